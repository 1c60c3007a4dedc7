#!/usr/bin/env bash
# The engine's main job from end to end: a piece of music comes in as Ogg Vorbis, is cut, gets a second
# of silence, labels and a section marker, is drawn, and leaves as a WAV file, which other programs
# then describe. It is played when the machine has a sound device. Installs and builds what is missing
# first. The result stays in build/demo.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

"$root/scripts/setup.sh" demo
echo "Building"
compile x64 Tessaly marlinda

music=$root/host/demo/demo.ogg
folder=$root/build/demo
rm -rf "$folder"
mkdir -p "$folder"

# Shows a command as a person would type it, and runs it.
show() {
  local shown=$1
  shift
  printf '\n$ %s\n' "$shown"
  "$@" || die "that command ended with status $?"
}

demo() {
  cd "$folder"
  cp "$music" demo.ogg
  marlinda() { "$root/scripts/wine-run" "$root/build/x64/marlinda.exe" "$@"; }

  show "marlinda info demo.ogg" marlinda info demo.ogg
  # A bar takes 2.4 seconds: the third one first, then the first two, with a second of silence between.
  show 'marlinda cut demo.ogg demo.wav --keep 4.8:7.2 --keep 0:4.8 --silence 2.4:1 \
    --label "0:Third bar" --label "3.4:From the top" --marker "2.4:3.4:Silence" --plot demo.png' \
    marlinda cut demo.ogg demo.wav --keep 4.8:7.2 --keep 0:4.8 --silence 2.4:1 \
    --label "0:Third bar" --label "3.4:From the top" --marker "2.4:3.4:Silence" --plot demo.png
  show "sox --info demo.wav" sox --info demo.wav
  show "sndfile-info demo.wav" sndfile-info demo.wav

  # The sound library of a machine without devices complains at length.
  if marlinda devices 2>/dev/null | grep -qx "outputs: none"; then
    printf '\n%s\n' '"marlinda devices" finds no output on this machine, so the result is not played.'
  else
    show "sox demo.wav edited.ogg" sox demo.wav edited.ogg
    show "marlinda play edited.ogg" marlinda play edited.ogg
  fi
}
export root folder music
"$root/scripts/wine-session" true # makes the prefix on first use, before the commands are shown
export -f demo show die
"$root/scripts/wine-session" bash -euo pipefail -c demo
echo
echo "The result is in build/demo: demo.ogg (from), demo.wav (to) and demo.png (its waveform)."
