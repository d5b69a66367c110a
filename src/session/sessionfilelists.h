#pragma once

#include "session/orderedpathset.h"

#include <QString>
#include <QStringList>

#include <array>
#include <optional>

// The seven file lists of a session.
enum class FileList { Found, Ready, Uploading, Skipped, Errored, Completed, Retry };

// The file lists of an upload run, kept so that a path is in at most one list
// at a time: every change is one of the named moves below, and anyone else
// only reads. A path may be in no list at all (it left the run).
class SessionFileLists
{
public:
    enum class End { Back, Front };

    struct Next
    {
        QString path;
        bool isRetry = false;
    };

    const OrderedPathSet &list(FileList list) const { return m_lists[index(list)]; }
    const OrderedPathSet &found() const { return list(FileList::Found); }
    const OrderedPathSet &ready() const { return list(FileList::Ready); }
    const OrderedPathSet &uploading() const { return list(FileList::Uploading); }
    const OrderedPathSet &skipped() const { return list(FileList::Skipped); }
    const OrderedPathSet &errored() const { return list(FileList::Errored); }
    const OrderedPathSet &completed() const { return list(FileList::Completed); }
    const OrderedPathSet &retry() const { return list(FileList::Retry); }

    // The list holding path, if any.
    std::optional<FileList> listOf(const QString &path) const;
    // Files still to be sent or being sent: found, ready and uploading.
    qsizetype remaining() const;

    // Adds the paths that no list holds yet to the end of `to`; returns how
    // many were added.
    qsizetype add(FileList to, const QStringList &paths);
    bool add(FileList to, const QString &path);
    // Moves path from `from` to `to`; false, and no change, when `from` does
    // not hold it.
    bool move(const QString &path, FileList from, FileList to, End end = End::Back);
    // Moves path to `to` from whichever list holds it, or adds it there.
    void relocate(const QString &path, FileList to, End end = End::Back);
    // Moves every path of `from` to `to`, keeping their order.
    void moveAll(FileList from, FileList to, End end = End::Back);
    // The next file to send, moved to uploading: a retry first, else the
    // first ready file.
    std::optional<Next> takeNext();
    // Takes path out of `from`; the row it had, or -1 when it was not there.
    qsizetype remove(const QString &path, FileList from);
    // Takes the paths `from` holds out of it at once; the rows they had,
    // ascending.
    QList<qsizetype> remove(const QStringList &paths, FileList from);
    void clear(FileList list);

    // A description of the first path found in two lists, or an empty text.
    QString invariantViolation() const;

private:
    static constexpr std::size_t index(FileList list) { return std::size_t(list); }
    OrderedPathSet &mutableList(FileList list) { return m_lists[index(list)]; }
    void insert(FileList to, const QString &path, End end);

    std::array<OrderedPathSet, 7> m_lists;
};
