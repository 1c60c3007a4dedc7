#!/usr/bin/env bash
# Regenerates the sound files of the tests with sox, vorbis-tools and ffmpeg. The tree holds the files, so that every
# machine tests the same bytes. Run this script only to change them. Each Ogg file has its own fixed serial number, so
# that any two files can be chained.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

sox -R -n -r 44100 -c 1 -b 16 "$work/mono.wav" synth 1.5 pluck A3 gain -3
oggenc -Q -q 0 -s 1001 -o mono.ogg "$work/mono.wav"

# This file is full of transients, so that long and short codec blocks alternate. It is loud enough to clip.
sox -R -n -r 44100 -c 2 -b 16 "$work/stereo.wav" synth 1 pluck C4 pluck G4 \
  synth 1 square amod 6 pinknoise mix gain -n -0.2
oggenc -Q -q 1 -s 1002 -t 'A title' -a 'Someone' -l 'Ein Album' -d 2009-05-01 -G Ambient \
  -c 'COMMENT=of no interest' -o stereo.ogg "$work/stereo.wav"

sox -R -n -r 44100 -c 2 -b 16 "$work/other.wav" synth 0.5 pluck E4 pluck B4 gain -3
LC_ALL=C.UTF-8 oggenc -Q -q 0 -s 1003 -t 'Überraschung' -c 'date=1998-10-02' -c 'artist=Zoë' \
  -c 'ARTIST=Renée' -c '=nothing' -o other.ogg "$work/other.wav"

sox -R -n -r 48000 -c 6 -b 16 "$work/six.wav" synth 0.5 sine 110 sine 220 sine 330 sine 440 sine 550 \
  sine 660 gain -6
oggenc -Q -q 0 -s 1004 -o six_channels.ogg "$work/six.wav"

sox -R -n -r 8000 -c 1 -b 16 "$work/low.wav" synth 1 sine 200-3000 gain -6
oggenc -Q -q 2 -s 1005 -o rate_8000.ogg "$work/low.wav"

sox -n -r 44100 -c 2 -b 16 "$work/silent.wav" trim 0 0
oggenc -Q -q 0 -s 1006 -o no_samples.ogg "$work/silent.wav"

# The value of each sample is its frame number.
ffmpeg -v error -y -f lavfi -i "aevalsrc='n/32768':s=8000:d=3" -c:a pcm_s16le -metadata title=Film -bitexact film.avi
