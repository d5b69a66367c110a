#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

#include <initializer_list>
#include <utility>

// Paths kept unique in insertion order: adding a path that is already present
// changes nothing. Taking from the head and inserting at the head are cheap,
// which is how the upload run uses it.
class OrderedPathSet
{
public:
    OrderedPathSet() = default;
    OrderedPathSet(std::initializer_list<QString> paths);

    // Appends at the end; false (and no change) when the path is present.
    bool append(const QString &path);
    void append(const QStringList &paths);
    // Inserts at the head; false (and no change) when the path is present.
    bool prepend(const QString &path);
    bool remove(const QString &path);
    // Takes the paths present out in one pass over the list; the indexes
    // they had, ascending. Cheapest when the paths are copies of the ones
    // held here (as the rows of a list made from it are).
    QList<qsizetype> removeAll(const QStringList &paths);
    void removeAt(qsizetype index);
    QString takeFirst();
    void clear();

    bool contains(const QString &path) const { return isHeld(m_index.constFind(path)); }
    qsizetype indexOf(const QString &path) const;
    qsizetype size() const { return m_paths.size(); }
    qsizetype count() const { return m_paths.size(); }
    bool isEmpty() const { return m_paths.isEmpty(); }
    const QString &at(qsizetype index) const { return m_paths.at(index); }
    const QString &first() const { return m_paths.first(); }
    const QString &last() const { return m_paths.last(); }
    const QStringList &toList() const { return m_paths; }

    QStringList::const_iterator begin() const { return m_paths.cbegin(); }
    QStringList::const_iterator end() const { return m_paths.cend(); }

    bool operator==(const OrderedPathSet &other) const { return m_paths == other.m_paths; }

    // Paths added and taken out so far, each one change: a reader that knows
    // of every change it made or was told of sees from this whether any
    // other happened.
    quint64 changeCount() const { return m_changes; }

private:
    // Where a string's text lies. A key of the index and its entry in the
    // list are copies of one string, so they share it.
    using TextAddress = std::pair<const QChar *, qsizetype>;
    static TextAddress addressOf(const QString &path) { return {path.constData(), path.size()}; }
    bool isHeld(QSet<QString>::const_iterator key) const
    {
        return key != m_index.cend() && (m_takenKeys.isEmpty() || !m_takenKeys.contains(addressOf(*key)));
    }
    // Drops a key that removeAll left in the index.
    void forgetTaken(QSet<QString>::const_iterator key);

    QStringList m_paths;
    // Every path of the list, and those removeAll took out: taking them out
    // of a hash one by one costs more than the rest of a large removal, so
    // they stay, marked by address, until they are added again, the set is
    // cleared, or they outnumber the paths held.
    QSet<QString> m_index;
    QSet<TextAddress> m_takenKeys;
    quint64 m_changes = 0;
};
