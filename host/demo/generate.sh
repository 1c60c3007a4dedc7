#!/usr/bin/env bash
# Generates demo.ogg, the music of the demo, with sox and vorbis-tools: five bars of a plucked melody over bass
# and beat at 100 beats a minute, so that cuts can be seen and heard. A bar takes 2.4 seconds.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT
beat=0.6
half=0.3

# note LENGTH KIND PITCH: makes a mono file of one note unless it exists, and prints its name. Pitch "-" is a rest.
note() {
  local file=$work/$2$3-$1.wav
  if [[ ! -e $file ]]; then
    if [[ $3 == - ]]; then
      sox -R -n -r 44100 -c 1 "$file" trim 0 "$1"
    else
      sox -R -n -r 44100 -c 1 "$file" synth "$1" "$2" "$3" fade h 0.005 "$1" 0.05
    fi
  fi
  printf '%s\n' "$file"
}

# line NAME LENGTH KIND PITCHES...: makes a line of equally long notes.
line() {
  local name=$1 length=$2 kind=$3 pitch files=()
  shift 3
  for pitch in "$@"; do files+=("$(note "$length" "$kind" "$pitch")"); done
  sox "${files[@]}" "$work/$name.wav"
}

line melody $half pluck \
  E5 - G5 E5 D5 C5 D5 -  C5 - E5 C5 A4 - C5 D5  F5 - A5 F5 E5 C5 F5 - \
  G5 - B5 G5 D5 E5 F5 D5  E5 D5 C5 G4 C5 - - -
line second $half pluck \
  C4 G4 E4 G4 C4 G4 E4 G4  A3 E4 C4 E4 A3 E4 C4 E4  F3 C4 A3 C4 F3 C4 A3 C4 \
  G3 D4 B3 D4 G3 D4 B3 D4  C4 G4 E4 G4 C4 E4 G4 C5
line bass $beat triangle C2 C2 G2 C2  A1 A1 E2 A1  F1 F1 C2 F1  G1 G1 D2 G1  C2 G1 C2 -

sox -R -n -r 44100 -c 1 "$work/kick.wav" synth 0.25 sine 110-40 fade l 0 0.25 0.2 pad 0 0.35
sox -R -n -r 44100 -c 1 "$work/hat.wav" synth 0.06 whitenoise highpass 6000 fade l 0 0.06 0.05 \
  pad $half 0.24
sox -m -v 0.9 "$work/kick.wav" -v 0.25 "$work/hat.wav" "$work/beat.wav" repeat 18
# Pans beat, bass and melody to the middle, the second voice to the left.
sox -m -v 0.4 "$work/melody.wav" -v 0.1 "$work/bass.wav" -v 0.4 "$work/beat.wav" "$work/middle.wav" \
  remix 1 1
sox -M -v 0.4 "$work/second.wav" -v 0.15 "$work/second.wav" "$work/side.wav"
sox -R -m -v 0.6 "$work/middle.wav" -v 0.6 "$work/side.wav" -b 16 "$work/piece.wav" \
  reverb 25 fade t 0 -0 0.6 gain -n -1

oggenc -Q -q 2 -s 2009 -t 'Five Bars' -a 'Tessaly' -l 'Demonstrations' -d 2024-03-01 -G Instrumental \
  -o demo.ogg "$work/piece.wav"
