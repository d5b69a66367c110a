#include "session/sessionfilelists.h"

#include <QHash>

namespace {

const char *listName(std::size_t index)
{
    static const char *const names[] = {"found", "ready", "uploading", "skipped", "errored", "completed", "retry"};
    return names[index];
}

} // namespace

std::optional<FileList> SessionFileLists::listOf(const QString &path) const
{
    for (std::size_t i = 0; i < m_lists.size(); ++i) {
        if (m_lists[i].contains(path)) {
            return FileList(i);
        }
    }
    return std::nullopt;
}

qsizetype SessionFileLists::remaining() const
{
    return found().size() + ready().size() + uploading().size();
}

qsizetype SessionFileLists::add(FileList to, const QStringList &paths)
{
    qsizetype added = 0;
    for (const QString &path : paths) {
        added += add(to, path) ? 1 : 0;
    }
    return added;
}

bool SessionFileLists::add(FileList to, const QString &path)
{
    if (listOf(path)) {
        return false;
    }
    mutableList(to).append(path);
    return true;
}

bool SessionFileLists::move(const QString &path, FileList from, FileList to, End end)
{
    if (!mutableList(from).remove(path)) {
        return false;
    }
    insert(to, path, end);
    return true;
}

void SessionFileLists::relocate(const QString &path, FileList to, End end)
{
    if (const auto from = listOf(path)) {
        mutableList(*from).remove(path);
    }
    insert(to, path, end);
}

void SessionFileLists::moveAll(FileList from, FileList to, End end)
{
    if (from == to) {
        return;
    }
    OrderedPathSet &source = mutableList(from);
    if (end == End::Front) {
        while (!source.isEmpty()) {
            const QString path = source.last();
            source.removeAt(source.size() - 1);
            insert(to, path, End::Front);
        }
    } else {
        while (!source.isEmpty()) {
            insert(to, source.takeFirst(), End::Back);
        }
    }
}

std::optional<SessionFileLists::Next> SessionFileLists::takeNext()
{
    for (const FileList from : {FileList::Retry, FileList::Ready}) {
        OrderedPathSet &source = mutableList(from);
        if (!source.isEmpty()) {
            Next next{source.takeFirst(), from == FileList::Retry};
            insert(FileList::Uploading, next.path, End::Back);
            return next;
        }
    }
    return std::nullopt;
}

qsizetype SessionFileLists::remove(const QString &path, FileList from)
{
    OrderedPathSet &source = mutableList(from);
    const qsizetype row = source.indexOf(path);
    if (row >= 0) {
        source.removeAt(row);
    }
    return row;
}

QList<qsizetype> SessionFileLists::remove(const QStringList &paths, FileList from)
{
    return mutableList(from).removeAll(paths);
}

void SessionFileLists::clear(FileList list)
{
    mutableList(list).clear();
}

void SessionFileLists::insert(FileList to, const QString &path, End end)
{
    if (end == End::Front) {
        mutableList(to).prepend(path);
    } else {
        mutableList(to).append(path);
    }
}

QString SessionFileLists::invariantViolation() const
{
    QHash<QString, std::size_t> seen;
    for (std::size_t i = 0; i < m_lists.size(); ++i) {
        for (const QString &path : m_lists[i]) {
            const auto it = seen.constFind(path);
            if (it != seen.constEnd()) {
                return QStringLiteral("%1 is in the %2 and the %3 list")
                    .arg(path, QLatin1String(listName(it.value())), QLatin1String(listName(i)));
            }
            seen.insert(path, i);
        }
    }
    return QString();
}
