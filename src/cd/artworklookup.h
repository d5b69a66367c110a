#pragma once

#include "cd/plcid3tag.h"

#include <QHash>
#include <QString>
#include <QStringList>

// Cover art for a disc, the last source of its metadata: the Cover Art
// Archive by the MusicBrainz release, else Discogs by album title and album
// artist. Every failure is a log line and the next source; none reaches the
// caller. The fetches block the calling thread (the compiling thread), each
// wait bounded.
namespace ArtworkLookup {

enum class Source { None, CoverArtArchive, Discogs };

// Sets the same image on every record of tags. firstPath names the record
// the Discogs search is built from (the dictionary's first). Returns where
// the image came from.
Source lookUp(const QString &releaseId, QHash<QString, PLCID3Tag> &tags, const QString &firstPath, int timeoutMs);

// The Discogs search terms: printable ASCII only (other characters are
// dropped, not transliterated); "various artists" in any case is "Various".
QString cleanedSearchText(const QString &text);
QString artistSearchTerm(const QString &albumArtist);

// "Cover Art Archive", "Discogs" or an empty text.
QString sourceName(Source source);

} // namespace ArtworkLookup
