#!/usr/bin/env bash
# make-samples.sh DIR: writes a small folder of short, valid music files to
# upload: a few seconds of sine tones as 16-bit stereo WAV, laid out as
# Artist/Album/NN Title.wav, plus FLAC copies when the flac tool is installed.
# Every file has a different tone, so every file has its own MD5 digest.
# Needs only bash and awk; the output is the same on every run.
set -euo pipefail
export LC_ALL=C

if (($# != 1)); then
  echo "usage: $0 DIR" >&2
  exit 2
fi
out=$1
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

# write_tone FILE FREQUENCY: $seconds of a sine at a frequency that divides
# the sample rate, so one period repeated fills the file without a click.
write_tone() {
  local file=$1 frequency=$2
  local period=$((rate / frequency))
  local samples=$((rate * seconds / period * period))
  local data=$((samples * 4))
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

  {
    printf 'RIFF'
    printf "$(le $((36 + data)) 4)"
    printf 'WAVEfmt '
    printf "$(le 16 4)$(le 1 2)$(le 2 2)$(le $rate 4)$(le $((rate * 4)) 4)$(le 4 2)$(le 16 2)"
    printf 'data'
    printf "$(le $data 4)"
    head -c "$data" "$tmp.data"
  } > "$file"
  rm -f "$tmp" "$tmp.period" "$tmp.data"
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
