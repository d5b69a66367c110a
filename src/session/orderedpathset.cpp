#include "session/orderedpathset.h"

OrderedPathSet::OrderedPathSet(std::initializer_list<QString> paths)
{
    for (const QString &path : paths) {
        append(path);
    }
}

bool OrderedPathSet::append(const QString &path)
{
    if (m_index.contains(path)) {
        return false;
    }
    m_index.insert(path);
    m_paths.append(path);
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
    if (m_index.contains(path)) {
        return false;
    }
    m_index.insert(path);
    m_paths.prepend(path);
    return true;
}

qsizetype OrderedPathSet::indexOf(const QString &path) const
{
    return m_index.contains(path) ? m_paths.indexOf(path) : -1;
}

bool OrderedPathSet::remove(const QString &path)
{
    if (!m_index.remove(path)) {
        return false;
    }
    // Paths mostly leave from the head, so the search is short in practice.
    m_paths.removeAt(m_paths.indexOf(path));
    return true;
}

void OrderedPathSet::removeAt(qsizetype index)
{
    m_index.remove(m_paths.at(index));
    m_paths.removeAt(index);
}

QString OrderedPathSet::takeFirst()
{
    QString path = m_paths.takeFirst();
    m_index.remove(path);
    return path;
}

void OrderedPathSet::clear()
{
    m_paths.clear();
    m_index.clear();
}
