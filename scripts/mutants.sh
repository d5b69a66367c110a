#!/usr/bin/env bash
# Plants one-line faults in the program, one at a time, and tells which test
# catches each: the tests named with the fault run first, then the rest of
# the suite, stopping at the first failure. Run by hand, not in CI; a whole
# run takes a while (an incremental build and up to a suite run per fault).
#
# Usage: scripts/mutants.sh [--build DIR] [--only N] [--list]
#   --build DIR  a configured build folder of this checkout (default: build)
#   --only N     plant fault N only
#   --list       list the faults and check each still applies
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$top/build
only=
list=
while (($#)); do
    case $1 in
    --build) build=$(cd "$2" && pwd) || exit 2; shift 2 ;;
    --build=*) build=$(cd "${1#*=}" && pwd) || exit 2; shift ;;
    --only) only=$2; shift 2 ;;
    --only=*) only=${1#*=}; shift ;;
    --list) list=1; shift ;;
    *) echo "usage: scripts/mutants.sh [--build DIR] [--only N] [--list]" >&2; exit 2 ;;
    esac
done

files=() tests=() from=() to=()
# fault FILE "TESTS MOST LIKELY TO CATCH IT" ORIGINAL REPLACEMENT
fault() { files+=("$1"); tests+=("$2"); from+=("$3"); to+=("$4"); }

# Ripping and encoding.
fault src/audio/cdripper.cpp tst_cdripper \
    'const bool good = sector && !skipped && ' 'const bool good = sector && '
fault src/audio/cdripper.cpp "tst_cdripper tst_cdcli" \
    'if (uint32_t(lastLsn) > context->leadOut) {' 'if (uint32_t(lastLsn) > context->leadOut + 75) {'
fault src/audio/cdripper.cpp tst_cdripper \
    'if (!ripIsAudioTrack(disc, number)) {' 'if (!disc) {'
fault src/audio/cdripper.cpp tst_cdripper \
    'const int64_t last = (isLastTrack && !isFirstTrack) ? n - kAccurateRipSkip : n;' \
    'const int64_t last = isLastTrack ? n - kAccurateRipSkip : n;'
fault src/audio/cdripper.cpp tst_cdripper \
    'if (std::strncmp(line, kHarmless, sizeof kHarmless - 1) != 0) {' \
    'if (std::strncmp(line, kHarmless, sizeof kHarmless - 1) == 0) {'
fault src/audio/cdripper.cpp tst_cdripper \
    'watch->refuse = watch->pollStop();' 'watch->pollStop();'
fault src/audio/flacencoder.cpp tst_flacencoder \
    'if (before != FLAC__STREAM_ENCODER_OK || !finished) {' 'if (before != FLAC__STREAM_ENCODER_OK) {'
fault src/audio/flacencoder.cpp "tst_flacencoder tst_cdtrackupload" \
    'QFile::remove(m_filepath.toLocalFile());' 'QFile::exists(m_filepath.toLocalFile());'
fault src/audio/flacencoder.cpp tst_flacencoder \
    'appendComment(comments, "albumartist", *tags.albumArtist());' \
    'appendComment(comments, "album artist", *tags.albumArtist());'
# Discs and their metadata.
fault src/cd/discsession.cpp tst_discsession \
    'if (!m_handle) {' 'if (false) {'
fault src/cd/discmetadata.cpp tst_discmetadata \
    'if (code <= CDTEXT_GENRE_UNDEFINED || code > CDTEXT_GENRE_WORLD_MUSIC) {' \
    'if (code > CDTEXT_GENRE_WORLD_MUSIC) {'
fault src/cd/discmetadata.cpp tst_discmetadata \
    'if (!into) {' 'if (true) {'
# Platform and core.
fault src/platform/volumes.cpp tst_volumes \
    'const QString clean = QDir::cleanPath(path);' 'const QString clean = path;'
fault src/platform/discimages.cpp "tst_discsession tst_volumes" \
    'if (suffix != QLatin1String("cue") && suffix != QLatin1String("toc")) {' 'if (false) {'
fault src/platform/operationqueue.cpp tst_platform \
    'if (it->operation->queuePriority() > best->operation->queuePriority()) {' \
    'if (it->operation->queuePriority() < best->operation->queuePriority()) {'
fault src/core/transfermeter.cpp tst_core \
    '    if (m_total <= 0) {' '    if (m_total < 0) {'
fault src/core/logger.cpp "tst_uploadcli tst_core" \
    'const QByteArray echo = message.toUtf8()' 'const QByteArray echo = rawMessage.toUtf8()'
fault src/core/paths.cpp tst_core \
    'if (!match.hasMatch() || QFileInfo::exists(QStringLiteral("/proc/") + match.captured(1)) ||' \
    'if (!match.hasMatch() ||'
fault src/fingerprint/md5cache.cpp tst_fingerprint \
    'if (!modified || it->ts < *modified) {' 'if (!modified || it->ts + 1 < *modified) {'
# The folder scan.
fault src/session/folderscan.cpp tst_folderscan \
    'if (kind == EntryKind::Special) {' 'if (false) {'
fault src/session/folderscan.cpp "tst_folderscan tst_uploadcli" \
    '        ++errorCount;' '        errorCount += 0;'
fault src/session/folderscan.cpp tst_folderscan \
    'if (!walk(path, sink, isCanceled, errorCount)) {' 'if (!walk(path, sink, {}, errorCount)) {'
# pelicane-cli.
fault cli/ripcommand.cpp tst_cdcli \
    'return failures == 0 && skipped == 0 ? ExitSuccess : ExitTracksFailed;' 'return ExitSuccess;'
fault cli/uploadcommand.cpp tst_uploadcli \
    'return code == ExitSuccess && scanErrors > 0 ? ExitFilesFailed : code;' 'return code;'
# Upload, library, service, session and protocol: lines unlikely to move.
fault src/upload/asyncuploadrequestoperation_cd.cpp "tst_cdtrackupload tst_cdsession" \
    '[this] { return m_stopReadingCD.load() || isCancelled(); });' '[this] { return m_stopReadingCD.load(); });'
fault src/session/sessionmodel.h tst_uploadrun \
    'static constexpr int kMaxAttemptsPerFile = 10;' 'static constexpr int kMaxAttemptsPerFile = 11;'
fault src/library/unzipoperation.cpp tst_libraryunzip \
    "return !target.split(u'/').contains(QStringLiteral(\"..\"));" \
    'return !target.startsWith(QStringLiteral(".."));'
fault src/protocol/transporterror.cpp tst_protocol \
    '!isLoopback(reply->url()) && systemReportsOffline()) {' '!isLoopback(reply->url()) && false) {'
fault src/service/lyraboxservice.cpp "tst_lyraboxservice tst_signin" \
    'QJsonObject body{{"mode", "status"}, {"user_id", m_userIdValue}, {"token", m_userToken}};' \
    'QJsonObject body{{"mode", "status"}, {"user_id", m_userIdValue.toString()}, {"token", m_userToken}};'

count=${#files[@]}
# Replaces the original text, which must occur exactly once, in FILE (in
# place, or into OUT when given). Fails loudly when the code has moved.
plant() { # FILE FROM TO [OUT]
    python3 - "$@" <<'EOF'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
found = text.count(old)
if found != 1:
    sys.exit(f"not applied: the original text is {'not' if found == 0 else str(found) + ' times'} in {path}")
open(sys.argv[4] if len(sys.argv) > 4 else path, "w", encoding="utf-8").write(text.replace(old, new))
EOF
}

if [[ -n $list ]]; then
    scratch=$(mktemp)
    trap 'rm -f "$scratch"' EXIT
    for ((i = 0; i < count; ++i)); do
        state=$(plant "$top/${files[i]}" "${from[i]}" "${to[i]}" "$scratch" 2>&1) || true
        printf '%2d. %s [%s]: %s -> %s %s\n' $((i + 1)) "${files[i]}" "${tests[i]}" "${from[i]}" "${to[i]}" "$state"
    done
    exit 0
fi

[[ -f $build/CTestTestfile.cmake ]] || { echo "mutants: $build is not a configured build folder" >&2; exit 2; }
export QT_QPA_PLATFORM=offscreen
backup=$(mktemp)
planted=
restore() {
    # A plain copy, so the restored file is newer than the objects built
    # from the fault and the next build compiles it again.
    if [[ -n $planted ]]; then
        cat "$backup" >"$planted"
        planted=
    fi
}
trap 'restore; rm -f "$backup"' EXIT
trap 'restore; echo; echo "mutants: interrupted; the code is restored (rebuild $build before using it)" >&2; exit 130' INT TERM

# The first test that fails, running the named ones first, then the rest.
first_failure() { # TESTS...
    local named=$1 test
    for test in $named; do
        if ! ctest --test-dir "$build" -R "^${test}\$" --timeout 600 >/dev/null 2>&1; then
            echo "$test"
            return
        fi
    done
    local others="^(${named// /|})\$"
    rm -f "$build/Testing/Temporary/LastTestsFailed.log"
    if ! ctest --test-dir "$build" -E "$others" --stop-on-failure --parallel 2 --timeout 600 >/dev/null 2>&1; then
        sed -n 's/^[0-9]*:\(.*\)$/\1/p' "$build/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | head -1 |
            grep . || echo "the suite"
    fi
}

caught=0 tried=0
for ((i = 0; i < count; ++i)); do
    [[ -n $only && $only != $((i + 1)) ]] && continue
    file=$top/${files[i]}
    label="$((i + 1)). ${files[i]}: ${to[i]}"
    cp "$file" "$backup"
    if ! message=$(plant "$file" "${from[i]}" "${to[i]}" 2>&1); then
        echo "$label: $message"
        continue
    fi
    planted=$file
    tried=$((tried + 1))
    if ! cmake --build "$build" --parallel 2 >"$build/mutant-build.log" 2>&1; then
        echo "$label: does not build (see $build/mutant-build.log); not counted"
        tried=$((tried - 1))
    elif catcher=$(first_failure "${tests[i]}") && [[ -n $catcher ]]; then
        echo "$label: caught by $catcher"
        caught=$((caught + 1))
    else
        echo "$label: MISSED"
    fi
    restore
done
echo "Rebuilding the unchanged code..."
cmake --build "$build" --parallel 2 >"$build/mutant-build.log" 2>&1 || echo "mutants: the final build failed" >&2
((tried > 0)) || { echo "caught 0 of 0"; exit 0; }
echo "caught $caught of $tried ($((100 * caught / tried))%)"
