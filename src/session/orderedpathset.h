#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

#include <initializer_list>

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
    void removeAt(qsizetype index);
    QString takeFirst();
    void clear();

    bool contains(const QString &path) const { return m_index.contains(path); }
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

private:
    QStringList m_paths;
    QSet<QString> m_index;
};
