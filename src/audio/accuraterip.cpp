#include "audio/accuraterip.h"

#include "protocol/blockingget.h"

#include <algorithm>

namespace {

constexpr int32_t kLbaStart = 150;
constexpr int kHeaderBytes = 13;
constexpr int kTrackBytes = 9;
// An answer is a few entries of a few hundred bytes; more is not the database.
constexpr qint64 kMaxAnswerBytes = 1 << 20;

uint32_t readWord(const uint8_t *bytes)
{
    return uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
}

int digitSum(int32_t value)
{
    int sum = 0;
    for (; value > 0; value /= 10) {
        sum += value % 10;
    }
    return sum;
}

QString hex8(uint32_t value)
{
    return QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0'));
}

} // namespace

namespace AccurateRip {

bool readTableOfContents(CdIo_t *disc, TableOfContents *toc)
{
    if (!disc || !toc) {
        return false;
    }
    const track_t first = cdio_get_first_track_num(disc);
    const track_t last = cdio_get_last_track_num(disc);
    if (first == CDIO_INVALID_TRACK || last == CDIO_INVALID_TRACK || first > last || last > 99) {
        return false;
    }
    *toc = TableOfContents();
    for (track_t number = first; number <= last; ++number) {
        const lsn_t start = cdio_get_track_lsn(disc, number);
        if (start == CDIO_INVALID_LSN) {
            return false;
        }
        toc->tracks.push_back({int(number), int32_t(start), cdio_get_track_format(disc, number) == TRACK_FORMAT_AUDIO});
    }
    const lsn_t leadOut = cdio_get_track_lsn(disc, CDIO_CDROM_LEADOUT_TRACK);
    if (leadOut == CDIO_INVALID_LSN) {
        return false;
    }
    toc->leadOut = int32_t(leadOut);
    return true;
}

QString DiscIds::text() const
{
    return QStringLiteral("%1-%2-%3-%4")
        .arg(audioTracks, 3, 10, QLatin1Char('0'))
        .arg(hex8(id1), hex8(id2), hex8(freedb));
}

DiscIds discIds(const TableOfContents &toc)
{
    DiscIds ids;
    uint32_t position = 0;
    for (const TocTrack &track : toc.tracks) {
        if (track.audio) {
            ++position;
            ids.id1 += uint32_t(track.start);
            ids.id2 += uint32_t(std::max<int32_t>(track.start, 1)) * position;
        }
    }
    if (position == 0) {
        return {};
    }
    ids.audioTracks = int(position);
    // The disc's own lead-out, even after an Enhanced CD's data session:
    // dBpoweramp, whose maker runs the database, counts it so.
    ids.id1 += uint32_t(toc.leadOut);
    ids.id2 += uint32_t(std::max<int32_t>(toc.leadOut, 1)) * (position + 1);

    // The freedb id counts every track, data included, in whole seconds.
    int sum = 0;
    for (const TocTrack &track : toc.tracks) {
        sum += digitSum((track.start + kLbaStart) / 75);
    }
    const int32_t seconds = (toc.leadOut + kLbaStart) / 75 - (toc.tracks.front().start + kLbaStart) / 75;
    ids.freedb = uint32_t(sum % 255) << 24 | uint32_t(seconds) << 8 | uint32_t(toc.tracks.size());
    return ids;
}

QString Lookup::summary() const
{
    switch (status) {
    case Status::Found:
        return QStringLiteral("%1 entries").arg(entries.size());
    case Status::NotInDatabase:
        return QStringLiteral("not in database");
    case Status::Failed:
        break;
    }
    return QStringLiteral("not checked: ") + error;
}

QString entryPath(const DiscIds &ids)
{
    return QStringLiteral("accuraterip/%1/%2/%3/dBAR-%4.bin")
        .arg(ids.id1 & 0xf, 0, 16)
        .arg(ids.id1 >> 4 & 0xf, 0, 16)
        .arg(ids.id1 >> 8 & 0xf, 0, 16)
        .arg(ids.text());
}

QUrl entryURL(const DiscIds &ids, const QUrl &root)
{
    QString base = root.toString(QUrl::FullyEncoded);
    if (!base.endsWith(QLatin1Char('/'))) {
        base += QLatin1Char('/');
    }
    return QUrl(base + entryPath(ids));
}

bool parseEntries(const QByteArray &data, const DiscIds &ids, std::vector<Entry> *entries, QString *error)
{
    entries->clear();
    const int entryBytes = kHeaderBytes + kTrackBytes * ids.audioTracks;
    if (data.isEmpty() || data.size() % entryBytes != 0) {
        *error = QStringLiteral("the database's answer (%1 bytes) is not a whole number of %2-byte entries")
                     .arg(data.size())
                     .arg(entryBytes);
        return false;
    }
    const auto *bytes = reinterpret_cast<const uint8_t *>(data.constData());
    for (qsizetype at = 0; at < data.size(); at += entryBytes) {
        const uint8_t *header = bytes + at;
        if (header[0] != ids.audioTracks || readWord(header + 1) != ids.id1 || readWord(header + 5) != ids.id2 ||
            readWord(header + 9) != ids.freedb) {
            *error = QStringLiteral("the database's answer holds an entry for another disc");
            entries->clear();
            return false;
        }
        Entry entry;
        for (int track = 0; track < ids.audioTracks; ++track) {
            const uint8_t *record = header + kHeaderBytes + std::ptrdiff_t(track) * kTrackBytes;
            entry.tracks.push_back({record[0], readWord(record + 1), readWord(record + 5)});
        }
        entries->push_back(std::move(entry));
    }
    return true;
}

Lookup fetch(const DiscIds &ids, const QUrl &root, int timeoutMs)
{
    Lookup lookup;
    if (!ids.isValid()) {
        lookup.error = QStringLiteral("the disc has no audio track");
        return lookup;
    }
    const QUrl url = entryURL(ids, root);
    if (!url.isValid() || (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))) {
        lookup.error = QStringLiteral("the database address %1 is not an http address").arg(url.toString());
        return lookup;
    }
    const BlockingGet::Answer answer = BlockingGet::get(url, timeoutMs, kMaxAnswerBytes);
    switch (answer.failure) {
    case BlockingGet::Answer::Failure::TooLarge:
        lookup.error = QStringLiteral("the database's answer is too large");
        return lookup;
    case BlockingGet::Answer::Failure::TimedOut:
        lookup.error = QStringLiteral("the database did not answer within %1 seconds").arg(timeoutMs / 1000.0);
        return lookup;
    case BlockingGet::Answer::Failure::Transport:
        lookup.error = QStringLiteral("the database could not be reached: %1").arg(answer.error);
        return lookup;
    default:
        break;
    }
    if (answer.status == 404) {
        lookup.status = Lookup::Status::NotInDatabase;
        return lookup;
    }
    if (answer.status != 200) {
        lookup.error = QStringLiteral("the database answered HTTP %1").arg(answer.status);
        return lookup;
    }
    if (!parseEntries(answer.body, ids, &lookup.entries, &lookup.error)) {
        return lookup;
    }
    lookup.status = Lookup::Status::Found;
    return lookup;
}

QString Verdict::text() const
{
    switch (kind) {
    case Kind::Accurate:
        return QStringLiteral("accurately ripped (confidence %1)").arg(confidence);
    case Kind::NoMatch:
        return QStringLiteral("no match");
    case Kind::NotInDatabase:
        return QStringLiteral("not in database");
    case Kind::NotChecked:
        break;
    }
    return QStringLiteral("not checked: ") + reason;
}

Verdict verify(const Lookup &lookup, int index, uint32_t v1, uint32_t v2)
{
    Verdict verdict;
    switch (lookup.status) {
    case Lookup::Status::Failed:
        verdict.reason = lookup.error;
        return verdict;
    case Lookup::Status::NotInDatabase:
        verdict.kind = Verdict::Kind::NotInDatabase;
        return verdict;
    case Lookup::Status::Found:
        break;
    }
    // Each entry is one pressing's sums of one version; a track is accurate
    // when either of its sums is among them.
    for (const Entry &entry : lookup.entries) {
        if (index < 0 || size_t(index) >= entry.tracks.size()) {
            continue;
        }
        const EntryTrack &track = entry.tracks[size_t(index)];
        if (track.checksum == v1) {
            verdict.confidenceV1 += track.confidence;
        }
        if (track.checksum == v2) {
            verdict.confidenceV2 += track.confidence;
        }
    }
    verdict.confidence = std::max(verdict.confidenceV1, verdict.confidenceV2);
    const bool matched = std::any_of(lookup.entries.begin(), lookup.entries.end(), [&](const Entry &entry) {
        return index >= 0 && size_t(index) < entry.tracks.size() &&
               (entry.tracks[size_t(index)].checksum == v1 || entry.tracks[size_t(index)].checksum == v2);
    });
    verdict.kind = matched ? Verdict::Kind::Accurate : Verdict::Kind::NoMatch;
    return verdict;
}

} // namespace AccurateRip
