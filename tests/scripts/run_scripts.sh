#!/usr/bin/env bash
# Runs scripts under Windows' script host on the machine's registration of the modules:
#   tests/scripts/run_scripts.sh BUILD_FOLDER
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
if [[ $1 != --in-session ]]; then
  exec "$root/scripts/wine-session" "$0" --in-session "$@"
fi
build=$(realpath "$2")
unset TESSALY_REGISTRATION

filters='HKLM\Software\Brevant\Cutloom\Import Filters'
modules=(tests/tone_import.dll InterfacePicker.dll Tessaly.dll)
work=$(mktemp -d)
failures=0

wine() { "$TESSALY_WINE" "$@" </dev/null; }
windows_path() { local path="Z:$1"; printf '%s' "${path//\//\\}"; }

clean_up() {
  {
    wine reg delete "$filters" /f
    [[ ! -s $work/filters.reg ]] || wine reg import "$(windows_path "$work/filters.reg")"
    for module in "${modules[@]}"; do wine regsvr32 /s /u "$(windows_path "$build/$module")"; done
  } >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap clean_up EXIT

expect() {
  [[ $2 == "$3" ]] && return
  echo "FAILED: $1: $2 instead of $3"
  failures=$((failures + 1))
}

register() {
  wine regsvr32 /s "$(windows_path "$build/$1")" && return
  echo "$1 cannot be registered" >&2
  exit 1
}
register Tessaly.dll
register InterfacePicker.dll
wine reg export "$filters" "$(windows_path "$work/filters.reg")" /y >/dev/null 2>&1 || true
wine reg delete "$filters" /f >/dev/null 2>&1 || true
wine reg add "$filters" /v Ogg /d '{2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0}' /f >/dev/null

sox -n -r 44100 -c 2 -b 16 "$work/tone.wav" synth 1 sine 440 gain -6
oggenc -Q -o "$work/tone.ogg" "$work/tone.wav"

# output SCRIPT [ARGUMENTS...]: the script host's status is 0 also after an error in the script, so
# the text decides.
output() {
  local script=$1
  shift
  wine cscript //nologo "$(windows_path "$script")" "$@" 2>&1 | tr -d '\r' || true
}
# sample SCRIPT IN "EXPECTED OUTPUT" [ARGUMENTS...]: writes $work/half.wav.
sample() {
  local script=$1 input=$2 expected=$3
  shift 3
  rm -f "$work/half.wav"
  expect "output of $script for ${input##*/}" \
    "$(output "$root/samples/scripts/$script" "$(windows_path "$input")" "$(windows_path "$work/half.wav")" "$@")" \
    "$expected"
}

expect "output of edited_audio.vbs" "$(output "$here/edited_audio.vbs")" passed
sample cut_in_half.vbs "$work/tone.ogg" "22050 of 44100 frames written"
expect "frames in the WAV file" "$(sox --info -s "$work/half.wav")" 22050
sample cut_in_half.js "$work/tone.ogg" "22050 of 44100 frames written" 44100
expect "frames in the WAV file" "$(sox --info -s "$work/half.wav")" 22050
sample cut_in_half.js "$work/tone.ogg" "usage: cscript cut_in_half.js IN OUT.wav FRAMES" many
expect "files after wrong usage" "$(find "$work" -name 'half*')" ""

# The import filter of the samples, in a module of its own.
description=$root/samples/import-filter/example.tone
sample cut_in_half.vbs "$description" "No import filter reads $(windows_path "$description")"
register tests/tone_import.dll
sample cut_in_half.vbs "$description" "27562 of 55125 frames written"
# sox estimates in whole hertz.
expect "pitch of the first tone" \
  "$(sox "$work/half.wav" -n trim 0 0.5 stat 2>&1 | sed -n 's/^Rough *frequency: *\(439\|44[01]\)$/440/p')" 440
expect "pause after the first tone" \
  "$(sox "$work/half.wav" -n trim 22050s stat 2>&1 | sed -n 's/^Maximum amplitude: *//p')" 0.000000
wine regsvr32 /s /u "$(windows_path "$build/tests/tone_import.dll")" || true
sample cut_in_half.vbs "$description" "No import filter reads $(windows_path "$description")"
exit $((failures > 0))
