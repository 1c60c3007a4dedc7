#!/usr/bin/env bash
# Runs the sample scripts in Windows' script host with the machine's registration of the modules:
#   tests/scripts/run_scripts.sh BUILD_FOLDER
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
[[ $1 == --in-session ]] || exec "$root/scripts/wine-session" "$0" --in-session "$@"
build=$(realpath "$2")
unset TESSALY_REGISTRATION
filters='HKLM\Software\Brevant\Cutloom\Import Filters'
modules=(FlacImport.dll InterfacePicker.dll Tessaly.dll)
work=$(mktemp -d)
failures=0

wine() { "$TESSALY_WINE" "$@" </dev/null; }
windows_path() { local path="Z:$1"; printf '%s' "${path//\//\\}"; }
# register MODULE [/u]
register() { wine regsvr32 /s ${2:-} "$(windows_path "$build/$1")"; }
clean_up() {
  {
    wine reg delete "$filters" /f
    [[ ! -s $work/filters.reg ]] || wine reg import "$(windows_path "$work/filters.reg")"
    for module in "${modules[@]}"; do register "$module" /u; done
  } >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap clean_up EXIT

expect() {
  [[ $2 == "$3" ]] || { echo "FAILED: $1: $2 instead of $3"; failures=$((failures + 1)); }
}
# sample SCRIPT IN "EXPECTED OUTPUT" FRAMES [ARGUMENTS...]: writes $work/half.wav, or nothing. Compares the output,
# because the script host also returns 0 after a script error.
sample() {
  local script=$root/samples/scripts/$1 in=$2 expected=$3 frames=$4 output
  shift 4
  rm -f "$work/half.wav"
  output=$(wine cscript //nologo "$(windows_path "$script")" "$(windows_path "$in")" \
    "$(windows_path "$work/half.wav")" "$@" 2>&1 | tr -d '\r') || true
  expect "output of $script" "$output" "$expected"
  expect "frames in the WAV file" "$(sox --info -s "$work/half.wav" 2>/dev/null || true)" "$frames"
}
register Tessaly.dll
register InterfacePicker.dll
wine reg export "$filters" "$(windows_path "$work/filters.reg")" /y >/dev/null 2>&1 || true
wine reg delete "$filters" /f >/dev/null 2>&1 || true
wine reg add "$filters" /v Ogg /d '{2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0}' /f >/dev/null
sox -n -r 44100 -c 2 -b 16 "$work/tone.wav" synth 1 sine 440 gain -6
oggenc -Q -o "$work/tone.ogg" "$work/tone.wav"

sample cut_in_half.vbs "$work/tone.ogg" "22050 of 44100 frames written" 22050
sample cut_in_half.js "$work/tone.ogg" "22050 of 44100 frames written" 22050 44100
sample cut_in_half.js "$work/tone.ogg" "usage: cscript cut_in_half.js IN OUT.wav FRAMES" "" many
# The samples' import filter, in its own module.
sox "$work/tone.wav" "$work/tone.flac"
nobody="No import filter reads $(windows_path "$work/tone.flac")"
sample cut_in_half.vbs "$work/tone.flac" "$nobody" ""
register FlacImport.dll
sample cut_in_half.vbs "$work/tone.flac" "22050 of 44100 frames written" 22050
expect "difference from the tone" "$(sox -m -v 1 "$work/half.wav" -v -1 "$work/tone.wav" -n trim 0 22050s stat 2>&1 |
  sed -n 's/^Maximum amplitude *: *//p')" 0.000000
register FlacImport.dll /u
sample cut_in_half.vbs "$work/tone.flac" "$nobody" ""
exit $((failures > 0))
