#pragma once

#include <QString>
#include <QStringList>

// The disc images the user has inserted (chosen or dropped), in insertion
// order. An inserted image is a virtual disc: it is listed with the drives
// until it is ejected. Safe to use from any thread.
class DiscImages
{
public:
    // True for a readable file whose name ends in ".cue" or ".toc".
    static bool isDiscImageFile(const QString &path);

    // Inserts the image at path. False when it is not a disc image file;
    // true when it is inserted now or was already.
    static bool insert(const QString &path);

    // Removes the image; false when it was not inserted.
    static bool eject(const QString &path);

    static bool contains(const QString &path);

    // The inserted images' absolute paths, oldest first.
    static QStringList list();

    // Ejects every image.
    static void clear();

    // The form in which paths are stored and compared: absolute and clean.
    static QString normalizedPath(const QString &path);

    // True when the image's audio samples are big-endian: a cue sheet whose
    // FILE type is MOTOROLA, or a toc (cdrdao keeps raw audio big-endian).
    // A cue with BINARY, or a file that cannot be read, is little-endian.
    static bool holdsBigEndianAudio(const QString &imagePath);

    // The path to hand libcdio for the image at path. libcdio resolves a
    // toc's FILE names against the working folder, so a toc that names its
    // files relatively is copied with absolute names into temporaryFolder and
    // the copy's path returned; a cue whose one FILE is not named as the
    // sheet is copied there beside a link named as libcdio expects; otherwise
    // path itself. Names are found as
    // libcdio finds them, and only they change. Empty when the copy cannot be
    // written, or when the image's folder has a name libcdio cannot read (a
    // quote, a tab or a line break in it).
    static QString openablePath(const QString &path, const QString &temporaryFolder);
};
