#!/usr/bin/env bash
# make-samples.sh DIR [DEVSERVER_DATA]: writes a small folder of short, valid
# music files to upload: a few seconds of sine tones as 16-bit stereo WAV,
# laid out as Artist/Album/NN Title.wav, plus FLAC copies when the flac tool is
# installed. Every file has a different tone, so every file has its own MD5
# digest. It also writes a sample audio CD image with CD-TEXT,
# DIR/Sample CD/sample-cd.cue (and .bin), and, given the local service's data
# folder, the MusicBrainz release, the cover art and the AccurateRip database
# entry that service answers for it.
# Needs only bash, awk and coreutils; the output is the same on every run.
set -euo pipefail
export LC_ALL=C

if (($# < 1 || $# > 2)); then
  echo "usage: $0 DIR [DEVSERVER_DATA]" >&2
  exit 2
fi
out=$1
devserver_data=${2:-}
mkdir -p "$out"

rate=44100
seconds=${PELICANE_SAMPLE_SECONDS:-3}

# A little-endian integer of $2 bytes as printf escapes.
le() {
  local value=$1 bytes=$2 text="" i
  for ((i = 0; i < bytes; i++)); do
    text+=$(printf '\\x%02x' $(((value >> (8 * i)) & 0xff)))
  done
  printf '%s' "$text"
}

# raw_tone FILE FREQUENCY BYTES: BYTES of 16-bit stereo PCM, a sine at a
# frequency that divides the sample rate, so one period repeated fills the
# file without a click.
raw_tone() {
  local file=$1 frequency=$2 data=$3
  local period=$((rate / frequency))
  local tmp
  tmp=$(mktemp "$out/.tone.XXXXXX")

  # One period, both channels, as printf escapes; awk does the sine.
  local escapes
  escapes=$(awk -v n="$period" 'BEGIN {
    for (i = 0; i < n; i++) {
      v = int(sin(2 * 3.14159265358979 * i / n) * 12000);
      if (v < 0) v += 65536;
      lo = v % 256; hi = int(v / 256);
      printf "\\x%02x\\x%02x\\x%02x\\x%02x", lo, hi, lo, hi;
    }
  }')
  printf "$escapes" > "$tmp.period"

  # Repeat the period by doubling, then cut to the exact length.
  cp "$tmp.period" "$tmp.data"
  while (($(stat -c %s "$tmp.data") < data)); do
    cat "$tmp.data" "$tmp.data" > "$tmp.next"
    mv "$tmp.next" "$tmp.data"
  done

  head -c "$data" "$tmp.data" > "$file"
  rm -f "$tmp" "$tmp.period" "$tmp.data"
}

# write_tone FILE FREQUENCY: $seconds of the tone as a WAV file.
write_tone() {
  local file=$1 frequency=$2
  local period=$((rate / frequency))
  local samples=$((rate * seconds / period * period))
  local data=$((samples * 4))
  raw_tone "$file.pcm" "$frequency" "$data"
  {
    printf 'RIFF'
    printf "$(le $((36 + data)) 4)"
    printf 'WAVEfmt '
    printf "$(le 16 4)$(le 1 2)$(le 2 2)$(le $rate 4)$(le $((rate * 4)) 4)$(le 4 2)$(le 16 2)"
    printf 'data'
    printf "$(le $data 4)"
    cat "$file.pcm"
  } > "$file"
  rm -f "$file.pcm"
}

# Frequencies that divide 44100 evenly, one per track.
albums=(
  "Lyrabox Quartet/First Light:441 490 525 588"
  "Lyrabox Quartet/Second Wind:630 700 735"
  "Pelican Brass/Harbour Songs:350 420 450 882 900"
)
count=0
for entry in "${albums[@]}"; do
  folder=${entry%%:*}
  mkdir -p "$out/$folder"
  track=1
  for frequency in ${entry#*:}; do
    name=$(printf '%02d Tone %d Hz' "$track" "$frequency")
    write_tone "$out/$folder/$name.wav" "$frequency"
    count=$((count + 1))
    track=$((track + 1))
  done
done

# The same tones once more as FLAC, a second format the service accepts.
if command -v flac > /dev/null 2>&1; then
  mkdir -p "$out/Pelican Brass/Harbour Songs (FLAC)"
  for wav in "$out/Pelican Brass/Harbour Songs/"*.wav; do
    target="$out/Pelican Brass/Harbour Songs (FLAC)/$(basename "${wav%.wav}").flac"
    if [[ ! -f "$target" ]]; then
      flac --silent --best --force -o "$target" "$wav"
    fi
    count=$((count + 1))
  done
fi

echo "Sample music: $count files in $out"

# --- The sample audio CD --------------------------------------------------
# Three tracks of 300 sectors (4 s) each, with CD-TEXT, as cue/bin. libcdio
# finds the audio by the cue's name, so both share it.
cd_dir="$out/Sample CD"
mkdir -p "$cd_dir"
cue="$cd_dir/sample-cd.cue"
bin="$cd_dir/sample-cd.bin"
sectors=300
if [[ ! -f "$bin" ]]; then
  : > "$bin.part"
  for frequency in 441 525 630; do
    raw_tone "$bin.track" "$frequency" $((sectors * 2352))
    cat "$bin.track" >> "$bin.part"
  done
  rm -f "$bin.track"
  mv "$bin.part" "$bin"
fi
cat > "$cue" <<'CUE'
PERFORMER "PELICAN BRASS"
TITLE "HARBOUR LIGHTS"
FILE "sample-cd.bin" BINARY
  TRACK 01 AUDIO
    TITLE "MORNING TIDE"
    PERFORMER "PELICAN BRASS"
    INDEX 01 00:00:00
  TRACK 02 AUDIO
    TITLE "GULL SONG"
    PERFORMER "PELICAN BRASS"
    INDEX 01 00:04:00
  TRACK 03 AUDIO
    TITLE "LANTERN WALK"
    PERFORMER "PELICAN BRASS"
    INDEX 01 00:08:00
CUE

# The MusicBrainz disc identifier: SHA-1 of the table of contents in hex
# (first and last track, lead-out and 99 track offsets, in LBA), in base64
# with "._-" for "+/=".
toc=$(printf '%02X%02X' 1 3; printf '%08X' $((3 * sectors + 150)) 150 $((sectors + 150)) $((2 * sectors + 150))
      for ((i = 0; i < 96; i++)); do printf '%08X' 0; done)
digest=$(printf '%s' "$toc" | sha1sum | cut -c1-40)
disc_id=$(printf "$(sed 's/../\\x&/g' <<< "$digest")" | base64 | tr '+/=' '._-')
echo "Sample CD: $cue (disc id $disc_id)"

if [[ -n "$devserver_data" ]]; then
  release=5a1e7c1d-0c7b-4c8e-9c61-0d1f2a3b4c5d
  reissue=8f3d2b6e-7a4c-4f1e-a2b9-3c4d5e6f7a8b
  mkdir -p "$devserver_data/musicbrainz/discid" "$devserver_data/musicbrainz/release" \
           "$devserver_data/coverart/$release"
  credit='<artist-credit><name-credit><artist id="2c7d9e1f-4b3a-4d5e-8f6a-7b8c9d0e1f2a"><name>Pelican Brass</name><sort-name>Pelican Brass</sort-name></artist></name-credit></artist-credit>'
  disc="<disc-list count=\"1\"><disc id=\"$disc_id\"><sectors>$((3 * sectors + 150))</sectors></disc></disc-list>"
  summary() { # id date country label barcode
    echo "<release id=\"$1\"><title>Harbour Lights</title><status>Official</status>$credit<date>$2</date><country>$3</country><barcode>$5</barcode><label-info-list count=\"1\"><label-info><label id=\"0d9e8f7a-6b5c-4d3e-2f1a-0b9c8d7e6f5a\"><name>$4</name></label></label-info></label-info-list><medium-list count=\"1\"><medium><position>1</position><format>CD</format>$disc<track-list count=\"3\"/></medium></medium-list></release>"
  }
  cat > "$devserver_data/musicbrainz/discid/$disc_id.xml" <<XML
<?xml version="1.0" encoding="UTF-8"?>
<metadata xmlns="http://musicbrainz.org/ns/mmd-2.0#"><disc id="$disc_id"><sectors>$((3 * sectors + 150))</sectors><release-list count="2">$(summary $release 2019-06-21 GB "Lyrabox Records" 5012345678900)$(summary $reissue 2021-03-05 US "Harbour Reissues" 0123456789012)</release-list></disc></metadata>
XML
  track() { # position title recording-id genre
    echo "<track id=\"$3-t\"><position>$1</position><number>$1</number><title>$2</title><length>4000</length><recording id=\"$3\"><title>$2</title><length>4000</length>$credit<tag-list count=\"1\"><tag count=\"3\"><name>$4</name></tag></tag-list></recording></track>"
  }
  for id in $release $reissue; do
    cat > "$devserver_data/musicbrainz/release/$id.xml" <<XML
<?xml version="1.0" encoding="UTF-8"?>
<metadata xmlns="http://musicbrainz.org/ns/mmd-2.0#"><release id="$id"><title>Harbour Lights</title><status>Official</status>$credit<date>$([[ $id == "$release" ]] && echo 2019-06-21 || echo 2021-03-05)</date><medium-list count="1"><medium><position>1</position><format>CD</format>$disc<track-list count="3" offset="0">$(track 1 "Morning Tide" 6a1b2c3d-0000-4000-8000-000000000001 brass)$(track 2 "Gull Song" 6a1b2c3d-0000-4000-8000-000000000002 brass)$(track 3 "Lantern Walk" 6a1b2c3d-0000-4000-8000-000000000003 brass)</track-list></medium></medium-list></release></metadata>
XML
  done

  # The cover: a 64 x 64 colour gradient as a 24-bit BMP, which the program
  # re-encodes as JPEG like every Cover Art Archive image.
  bmp="$devserver_data/coverart/$release/front.bmp"
  {
    printf 'BM'
    printf "$(le $((54 + 64 * 64 * 3)) 4)$(le 0 4)$(le 54 4)"
    printf "$(le 40 4)$(le 64 4)$(le 64 4)$(le 1 2)$(le 24 2)$(le 0 4)$(le $((64 * 64 * 3)) 4)"
    printf "$(le 2835 4)$(le 2835 4)$(le 0 4)$(le 0 4)"
    printf "$(awk 'BEGIN { for (y = 0; y < 64; y++) for (x = 0; x < 64; x++)
      printf "\\x%02x\\x%02x\\x%02x", 96 + x * 2, 40 + y * 3, 160 - x }')"
  } > "$bmp"
  echo "Sample CD metadata: release $release and its cover in $devserver_data"

  # The AccurateRip entry. The disc ids: id1 the sum of the track starts and
  # the lead-out (in sectors from 0), id2 the sum of each start (at least 1)
  # times its position, the lead-out counting as track 4; the freedb id
  # from the starts in seconds (LBA / 75).
  starts=(0 $sectors $((2 * sectors)))
  lead_out=$((3 * sectors))
  id1=$lead_out id2=$((lead_out * 4)) digits=0
  for i in 0 1 2; do
    start=${starts[i]}
    id1=$((id1 + start))
    id2=$((id2 + (start > 0 ? start : 1) * (i + 1)))
    for ((s = (start + 150) / 75; s > 0; s /= 10)); do digits=$((digits + s % 10)); done
  done
  freedb=$((((digits % 255) << 24) | (((lead_out + 150) / 75 - 150 / 75) << 8) | 3))
  name=$(printf 'dBAR-003-%08x-%08x-%08x.bin' $((id1 & 0xffffffff)) $((id2 & 0xffffffff)) "$freedb")
  ar_dir="$devserver_data/accuraterip/$(printf '%x/%x/%x' $((id1 & 15)) $((id1 >> 4 & 15)) $((id1 >> 8 & 15)))"
  mkdir -p "$ar_dir"
  # Each track's v1 and v2 sums straight from the tones written above (the
  # same awk sine): v1 sums word x position, v2 the high and low halves of
  # that product, both modulo 2^32, positions from 1; the first track skips
  # its first 2939 samples, the last its final 2940.
  sums=$(awk -v n=$((sectors * 588)) 'BEGIN {
    two32 = 4294967296
    split("441 525 630", frequencies, " ")
    for (t = 1; t <= 3; t++) {
      period = 44100 / frequencies[t]
      for (i = 0; i < period; i++) {
        v = int(sin(2 * 3.14159265358979 * i / period) * 12000)
        if (v < 0) v += 65536
        word[i] = v + v * 65536
      }
      first = t == 1 ? 2940 : 1; last = t == 3 ? n - 2940 : n
      v1 = 0; v2 = 0
      for (m = first; m <= last; m++) {
        p = word[(m - 1) % period] * m
        hi = int(p / two32); lo = p - hi * two32
        v1 = (v1 + lo) % two32
        v2 = (v2 + lo + hi) % two32
      }
      printf "%.0f %.0f\n", v1, v2
    }
  }')
  # Two entries, as the database holds a pressing: one of v1 sums seen 12
  # times, one of v2 sums seen 5 times; the sector-450 sums are not checked.
  header="$(le 3 1)$(le $id1 4)$(le $id2 4)$(le $freedb 4)"
  v1_entry=$header v2_entry=$header
  while read -r v1 v2; do
    v1_entry+="$(le 12 1)$(le "$v1" 4)$(le 0 4)"
    v2_entry+="$(le 5 1)$(le "$v2" 4)$(le 0 4)"
  done <<< "$sums"
  printf "$v1_entry$v2_entry" > "$ar_dir/$name"
  echo "Sample CD AccurateRip entry: $ar_dir/$name"
fi
