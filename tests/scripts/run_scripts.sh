#!/usr/bin/env bash
# Registers the modules for the whole machine and runs the sample scripts in Windows' script host:
#   tests/scripts/run_scripts.sh BUILD_FOLDER
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
[[ $1 == --in-session ]] || exec "$root/scripts/wine-session" "$0" --in-session "$@"
build=$(realpath "$2")
unset TESSALY_REGISTRATION
filters='HKLM\Software\Brevant\Cutloom\Import Filters'
modules=(InterfacePicker.dll Tessaly.dll)
work=$(mktemp -d)

wine() { "$TESSALY_WINE" "$@" </dev/null; }
windows_path() { local path="Z:$1"; printf '%s' "${path//\//\\}"; }
clean_up() {
  wine reg delete "$filters" /f >/dev/null 2>&1 || true
  for module in "${modules[@]}"; do wine regsvr32 /s /u "$(windows_path "$build/$module")" || true; done
  rm -rf "$work"
}
trap clean_up EXIT

# sample SCRIPT [FRAMES]: runs a sample. Checks its output, because the script host returns 0 even after a script error.
sample() {
  local output half=$work/$1.wav
  output=$(wine cscript //nologo "$(windows_path "$root/samples/scripts/$1")" "$(windows_path "$work/tone.ogg")" \
    "$(windows_path "$half")" "${@:2}" 2>&1 | tr -d '\r') || true
  [[ $output == "22050 of 44100 frames written" && $(sox --info -s "$half") == 22050 ]] ||
    { echo "FAILED: $1: $output"; exit 1; }
}
for module in "${modules[@]}"; do wine regsvr32 /s "$(windows_path "$build/$module")"; done
wine reg add "$filters" /v Ogg /d '{2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0}' /f >/dev/null
sox -n -r 44100 -c 2 -b 16 "$work/tone.wav" synth 1 sine 440 gain -6
oggenc -Q -o "$work/tone.ogg" "$work/tone.wav"
sample cut_in_half.vbs
sample cut_in_half.js 44100
