#!/usr/bin/env bash
# Lets programs that others wrote read the files of the export's tests:
#   foreign_readers.sh WINE-RUN TESTS.exe
set -euo pipefail
for tool in sox soxi sndfile-info ffprobe mediainfo; do
  command -v "$tool" >/dev/null || { echo "foreign_readers: $tool is not installed" >&2; exit 1; }
done
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
TESSALY_KEPT_FILES="Z:$folder/" "$1" "$2" --gtest_filter='*EveryWidthAndChannelCount:*TakesAnnotations*'
cd "$folder"

checks=0 failures=0
expect() {  # WHAT EXPECTED ACTUAL
  checks=$((checks + 1))
  [[ $2 == "$3" ]] && return
  printf 'FAIL %s: expected "%s", got "%s"\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}
field() {  # NAME TEXT: the values of "NAME : value" lines
  sed -nE "s/^ *$1 *: *(.*[^ ]) *$/\1/p" <<<"$2" | paste -sd,
}

for file in ?*-?-?*.wav; do
  IFS=-. read -r bits channels frames _ <<<"$file"
  # The padding to four bytes counts.
  bytes=$(((bits / 8 * channels * frames + 3) / 4 * 4)) frames=$((bytes / (bits / 8 * channels)))
  expect "soxi $file" "44100 $channels $bits $frames" \
    "$(soxi -r "$file") $(soxi -c "$file") $(soxi -b "$file") $(soxi -s "$file")"
  info=$(sndfile-info "$file" 2>&1)
  expect "sndfile-info $file" "44100,44100 $channels,$channels $bits $frames" \
    "$(field 'Sample Rate' "$info") $(field Channels "$info") $(field 'Bit Width' "$info") $(field Frames "$info")"
  expect "mediainfo $file" "PCM 44100 $channels $bits" \
    "$(mediainfo --Inform='Audio;%Format% %SamplingRate% %Channels% %BitDepth%' "$file")"
  # ffprobe takes an empty data chunk for one that reaches to the end of the file.
  ((frames > 0)) || continue
  expect "ffprobe $file" "44100,$channels,$bits,$frames" "$(ffprobe -v error -of csv=p=0 \
    -show_entries stream=sample_rate,channels,bits_per_sample,duration_ts "$file")"
  sign=signed
  ((bits == 8)) && sign=unsigned
  sox -D "$file" -t raw -e $sign -b "$bits" found.raw
  header=$((channels > 2 ? 68 : 44))
  expect "samples of $file" same "$(tail -c +$((header + 1)) "$file" | cmp -s -n "$(stat -c %s found.raw)" - found.raw &&
    echo same)"
done

file=annotated.wav
info=$(sndfile-info $file)
expect "cue points" "0 100 400,1 200 800,2 200 800" \
  "$(sed -nE 's/.*Cue ID : +([0-9]+) +Pos : +([0-9]+).*Blk Start : ([0-9]+).*/\1 \2 \3/p' <<<"$info" | paste -sd,)"
expect "labels" "0 : Verse,1 : Chorus" "$(field labl "$info")"
expect "texts" "T|Ar|Genre|Alb|2009-01-01" \
  "$(for id in INAM IART IGNR IPRD ICRD; do field "$id" "$info"; done | paste -sd'|')"
# Other programs look for the unit of the meter before its beats.
expect "acid" "16 8/4 97.250000" "$(field Beats "$info") $(field Meter "$info") $(field Tempo "$info")"
expect "chapters" "100,Verse 200 300" \
  "$(ffprobe -v error -show_entries chapter=start:chapter_tags=title -of csv=p=0 $file | paste -sd' ')"
expect "tags" "T|Ar|Genre|Alb|2009-01-01" \
  "$(ffprobe -v error -show_entries format_tags -of default=nw=1:nk=1 $file | paste -sd'|')"
expect "speakers of six" 0x3F "$(field 'Channel Mask' "$(sndfile-info 24-6-257.wav)" | cut -d' ' -f1)"
expect "speakers of eight" 0xFF "$(field 'Channel Mask' "$(sndfile-info 32-8-257.wav)" | cut -d' ' -f1)"
echo "$checks checks, $failures failed"
((checks > 250 && failures == 0))
