#include "session/orderedpathset.h"

#include <algorithm>
#include <vector>

OrderedPathSet::OrderedPathSet(std::initializer_list<QString> paths)
{
    for (const QString &path : paths) {
        append(path);
    }
}

void OrderedPathSet::forgetTaken(QSet<QString>::const_iterator key)
{
    m_takenKeys.remove(addressOf(*key));
    m_index.erase(key);
}

bool OrderedPathSet::append(const QString &path)
{
    const auto key = m_index.constFind(path);
    if (isHeld(key)) {
        return false;
    }
    if (key != m_index.cend()) {
        forgetTaken(key);
    }
    m_index.insert(path);
    m_paths.append(path);
    ++m_changes;
    return true;
}

void OrderedPathSet::append(const QStringList &paths)
{
    for (const QString &path : paths) {
        append(path);
    }
}

bool OrderedPathSet::prepend(const QString &path)
{
    const auto key = m_index.constFind(path);
    if (isHeld(key)) {
        return false;
    }
    if (key != m_index.cend()) {
        forgetTaken(key);
    }
    m_index.insert(path);
    m_paths.prepend(path);
    ++m_changes;
    return true;
}

qsizetype OrderedPathSet::indexOf(const QString &path) const
{
    return contains(path) ? m_paths.indexOf(path) : -1;
}

bool OrderedPathSet::remove(const QString &path)
{
    const auto key = m_index.constFind(path);
    if (!isHeld(key)) {
        return false;
    }
    m_index.erase(key);
    // Paths mostly leave from the head, so the search is short in practice.
    m_paths.removeAt(m_paths.indexOf(path));
    ++m_changes;
    return true;
}

QList<qsizetype> OrderedPathSet::removeAll(const QStringList &paths)
{
    // The entries to go are found by the address of their text, so no path
    // is hashed; paths given as other copies of a text are looked up by it.
    QSet<TextAddress> gone;
    gone.reserve(paths.size());
    for (const QString &path : paths) {
        gone.insert(addressOf(path));
    }
    std::vector<qsizetype> rows;
    for (qsizetype i = 0; i < m_paths.size(); ++i) {
        if (gone.contains(addressOf(m_paths.at(i)))) {
            rows.push_back(i);
        }
    }
    if (qsizetype(rows.size()) < gone.size()) {
        // Some paths are not held, or held as other copies of their text.
        QSet<TextAddress> matched;
        for (const qsizetype row : rows) {
            matched.insert(addressOf(m_paths.at(row)));
        }
        QSet<TextAddress> copies;
        for (const QString &path : paths) {
            if (!matched.contains(addressOf(path))) {
                const auto key = m_index.constFind(path);
                if (isHeld(key) && !matched.contains(addressOf(*key))) {
                    copies.insert(addressOf(*key));
                }
            }
        }
        if (!copies.isEmpty()) {
            for (qsizetype i = 0; i < m_paths.size(); ++i) {
                if (copies.contains(addressOf(m_paths.at(i)))) {
                    rows.push_back(i);
                }
            }
            std::sort(rows.begin(), rows.end());
        }
        gone = matched.unite(copies);
    }
    QList<qsizetype> indexes(rows.cbegin(), rows.cend());
    if (rows.empty()) {
        return indexes;
    }
    qsizetype kept = 0;
    auto next = rows.cbegin();
    for (qsizetype i = 0; i < m_paths.size(); ++i) {
        if (next != rows.cend() && *next == i) {
            ++next;
        } else {
            if (kept != i) {
                m_paths[kept] = std::move(m_paths[i]);
            }
            ++kept;
        }
    }
    m_paths.resize(kept);
    m_changes += quint64(rows.size());
    // Their keys stay in the index, marked: a key owns its text, so no other
    // string gets that address while it is there.
    if (m_takenKeys.isEmpty()) {
        m_takenKeys = std::move(gone);
    } else {
        m_takenKeys.unite(gone);
    }
    if (m_takenKeys.size() > m_paths.size()) {
        m_index = QSet<QString>(m_paths.cbegin(), m_paths.cend());
        m_takenKeys.clear();
    }
    return indexes;
}

void OrderedPathSet::removeAt(qsizetype index)
{
    m_index.remove(m_paths.at(index));
    m_paths.removeAt(index);
    ++m_changes;
}

QString OrderedPathSet::takeFirst()
{
    QString path = m_paths.takeFirst();
    m_index.remove(path);
    ++m_changes;
    return path;
}

void OrderedPathSet::clear()
{
    m_changes += quint64(m_paths.size());
    m_paths.clear();
    m_index.clear();
    m_takenKeys.clear();
}
