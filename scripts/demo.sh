#!/usr/bin/env bash
# Demonstrates the engine: imports an Ogg Vorbis file, cuts it, inserts a second of silence, adds two labels and a
# section marker, draws the result and writes a WAV file. Other programs then describe this file. Plays the file if
# the machine has a sound device. First installs and builds what is missing. Leaves the results in build/demo.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

"$root/scripts/setup.sh" demo
echo "Building"
compile x64 Tessaly marlinda

music=$root/host/demo/demo.ogg
folder=$root/build/demo
rm -rf "$folder"
mkdir -p "$folder"

# show TEXT COMMAND...: prints TEXT, which is the command as a person would type it, and runs COMMAND. The output of
# COMMAND goes to log.txt and to the variable `said`.
show() {
  local shown=$1
  shift
  printf '$ %s\n' "$shown"
  said=$("$@" 2>messages) || {
    cat messages >&2
    die "the command failed with status $?; see its messages above"
  }
  printf '$ %s\n%s\n\n' "$shown" "$said" >>log.txt
}
# pick REGEX: prints the first group of REGEX in the last command's output.
pick() {
  [[ $said =~ $1 ]] || die "the last output in log.txt does not match $1"
  printf '%s' "${BASH_REMATCH[1]}"
}

demo() {
  cd "$folder"
  cp "$music" demo.ogg
  marlinda() { "$root/scripts/wine-run" "$root/build/x64/marlinda.exe" "$@"; }
  local picks

  show "marlinda info demo.ogg" marlinda info demo.ogg
  picks="$(pick $'duration +([0-9:.]+)'), $(pick $'format +([^\n]+)')"
  printf '    "%s", %s, read by %s\n' "$(pick $'title +([^\n]+)')" "$picks" "$(pick $'read by +([^\n]+)')"
  # A bar takes 2.4 seconds. The result has the third bar, a second of silence and the first two bars.
  show 'marlinda cut demo.ogg demo.wav --keep 4.8:7.2 --keep 0:4.8 --silence 2.4:1 \
    --label "0:Third bar" --label "3.4:From the top" --marker "2.4:3.4:Silence" --plot demo.png' \
    marlinda cut demo.ogg demo.wav --keep 4.8:7.2 --keep 0:4.8 --silence 2.4:1 \
    --label "0:Third bar" --label "3.4:From the top" --marker "2.4:3.4:Silence" --plot demo.png
  printf '    %s\n' "$(pick $'(demo.wav[^\n]+)')"
  # Other programs describe the result.
  show "sox --info demo.wav" sox --info demo.wav
  printf '    %s, %s\n' "$(pick '= ([0-9]+ samples)')" "$(pick $'Sample Encoding: ([^\n]+)')"
  show "sndfile-info demo.wav" sndfile-info demo.wav
  printf '    labels "%s" and "%s", title "%s"\n' "$(pick $'labl : 0 : ([^\n]+)')" \
    "$(pick $'labl : 1 : ([^\n]+)')" "$(pick $'INAM : ([^\n]+)')"

  # Play only with a device. Without one, the sound library prints many messages.
  if marlinda devices 2>/dev/null | grep -qx "outputs: none"; then
    echo '"marlinda devices" finds no output on this machine, so the result is not played.'
  else
    sox demo.wav edited.ogg
    show "marlinda play edited.ogg" marlinda play edited.ogg
    printf '    %s\n' "$said"
  fi
  rm messages
}
export root folder music
"$root/scripts/wine-session" true # makes the prefix on first use, before the commands are shown
export -f demo show pick die
"$root/scripts/wine-session" bash -euo pipefail -c demo
echo "In build/demo: demo.ogg (from), demo.wav (to), demo.png (its waveform), log.txt (all output)."
cmp -s "$folder/demo.png" "$root/docs/images/demo.png" ||
  echo "The picture in README.md differs from this one. To update it: cp build/demo/demo.png docs/images/"
