#!/usr/bin/env bash
# Lets programs that others wrote read what the export wrote:
#   foreign_readers.sh WINE-RUN SAMPLE-FILES.exe
set -euo pipefail
wine_run=$1 program=$2

for tool in sox soxi sndfile-info ffprobe mediainfo; do
  command -v "$tool" >/dev/null || { echo "foreign_readers: $tool is not installed" >&2; exit 1; }
done

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
"$wine_run" "$program"

failures=0
checks=0
expect() {  # WHAT EXPECTED ACTUAL
  checks=$((checks + 1))
  if [[ $2 != "$3" ]]; then
    printf 'FAIL %s: expected "%s", got "%s"\n' "$1" "$2" "$3"
    failures=$((failures + 1))
  fi
}
field() {  # NAME TEXT: the values of "NAME : value" lines
  sed -nE "s/^ *$1 *: *(.*[^ ]) *$/\1/p" <<<"$2" | paste -sd,
}

# name rate channels bits frames. The 1001 frames of mono8_odd come with three of padding, which count.
while read -r name rate channels bits frames; do
  for file in "$name.wav" "${name}_annotated.wav" "${name}_streamed.wav"; do
    [[ -e $file || $bits == 32 ]] || expect "$file" there missing
    [[ -e $file ]] || continue
    raw=${file%.wav}.raw
    expect "soxi $file" "$rate $channels $bits $frames" \
      "$(soxi -r "$file") $(soxi -c "$file") $(soxi -b "$file") $(soxi -s "$file")"

    info=$(sndfile-info "$file" 2>&1)
    expect "sndfile-info $file" "$rate,$rate $channels,$channels $bits $frames" \
      "$(field 'Sample Rate' "$info") $(field Channels "$info") $(field 'Bit Width' "$info") $(field Frames "$info")"

    expect "mediainfo $file" "PCM $rate $channels $bits" \
      "$(mediainfo --Inform='Audio;%Format% %SamplingRate% %Channels% %BitDepth%' "$file")"

    # ffprobe takes an empty data chunk for one that reaches to the end of the file.
    if ((frames > 0)); then
      expect "ffprobe $file" "$rate,$channels,$bits,$frames" \
        "$(ffprobe -v error -show_entries stream=sample_rate,channels,bits_per_sample,duration_ts \
          -of csv=p=0 "$file")"
      encoding=signed
      ((bits == 8)) && encoding=unsigned
      sox -D "$file" -t raw -e $encoding -b "$bits" found.raw
      expect "samples of $file" same \
        "$(cmp -s -n "$(stat -c %s "$raw")" "$raw" found.raw && echo same || echo different)"
    fi
  done
done <<'TABLE'
mono8      22050 1  8  1000
mono8_odd   8000 1  8  1004
stereo16   44100 2 16 70000
three16    48000 3 16   500
six24      48000 6 24   333
eight32    96000 8 32   100
empty16    44100 2 16     0
TABLE

file=stereo16_annotated.wav
info=$(sndfile-info "$file")
expect "cue points" "0 100 400,1 200 800,2 200 800" \
  "$(sed -nE 's/.*Cue ID : +([0-9]+) +Pos : +([0-9]+).*Blk Start : ([0-9]+).*/\1 \2 \3/p' <<<"$info" | paste -sd,)"
expect "cue offsets" "100,200,300" \
  "$(sed -nE 's/.*Cue ID.*Offset : +([0-9]+)$/\1/p' <<<"$info" | paste -sd,)"
expect "labels" "0 : Verse,1 : Chorus" "$(field labl "$info")"
expect "texts" "A Title|An Artist|A Genre|An Album|2009-01-01" \
  "$(for id in INAM IART IGNR IPRD ICRD; do field "$id" "$info"; done | paste -sd'|')"
expect "acid" "8 4/4 120.000000" \
  "$(field Beats "$info") $(field Meter "$info") $(field Tempo "$info")"
expect "chapters" "100,Verse 200 300" \
  "$(ffprobe -v error -show_entries chapter=start:chapter_tags=title -of csv=p=0 "$file" | paste -sd' ')"
expect "tags" "A Title|An Artist|A Genre|An Album|2009-01-01" \
  "$(ffprobe -v error -show_entries format_tags -of default=nw=1:nk=1 "$file" | paste -sd'|')"
expect "mediainfo tags" "A Title|A Genre|2009-01-01" \
  "$(mediainfo --Inform='General;%Title%|%Genre%|%Recorded_Date%' "$file")"
expect "speakers of six" "0x3F" "$(field 'Channel Mask' "$(sndfile-info six24.wav)" | cut -d' ' -f1)"
expect "speakers of eight" "0xFF" "$(field 'Channel Mask' "$(sndfile-info eight32.wav)" | cut -d' ' -f1)"

echo "$checks checks, $failures failed"
((failures == 0))
