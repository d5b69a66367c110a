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
};
