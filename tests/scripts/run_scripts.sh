#!/usr/bin/env bash
# Drives the module from Windows' script host: registers it for the machine, runs the scripts beside
# this file and unregisters it again.
#   tests/scripts/run_scripts.sh BUILD_FOLDER
# A script whose classes this version of the module does not offer yet is named and left out.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
if [[ $1 != --in-session ]]; then
  exec "$root/scripts/wine-session" "$0" --in-session "$@"
fi
build=$(realpath "$2")
unset TESSALY_REGISTRATION

filters='HKLM\Software\Brevant\Cutloom\Import Filters'
modules=(tests/tone_import.dll tests/interface_picker.dll Tessaly.dll)
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

set_text() { wine reg add "$1" /v "$2" /d "$3" /f >/dev/null; }

# run SCRIPT "CLASSES IT NEEDS" [ARGUMENTS...]: the script's output goes to $work/output.
run() {
  local script=$1 needed=$2 class status=0
  shift 2
  : >"$work/output"
  for class in $needed; do
    [[ " $offered " == *" $class "* ]] && continue
    echo "not run: $script needs C$class, which this version does not offer"
    return 1
  done
  wine cscript //nologo "$(windows_path "$here/$script")" "$@" >"$work/raw" 2>&1 || status=$?
  tr -d '\r' <"$work/raw" >"$work/output"
  # The script host ends with status 0 also after an error that the script did not expect.
  if [[ $status == 0 && $(tail -n 1 "$work/output") == passed ]]; then
    echo "passed: $script"
    return 0
  fi
  echo "FAILED: $script (status $status)"
  cat "$work/output"
  failures=$((failures + 1))
  return 1
}

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
register tests/interface_picker.dll

offered=
for class in AudioPool EditedAudio FileFilterMgr NullReader OggImport WavExportFilter; do
  status=0
  wine "$build/tests/registration_tests.exe" --activate "Marlinda.$class.1" || status=$?
  case $status in
    0) offered+="$class " ;;
    3) ;;
    *) expect "creating Marlinda.$class.1" "status $status" "status 0" ;;
  esac
done

# One second of a tone, made by programs that know nothing of the module.
sox -n -r 44100 -c 2 -b 16 "$work/tone.wav" synth 1 sine 440 gain -6
oggenc -Q -o "$work/tone.ogg" "$work/tone.wav"
tone=$(windows_path "$work/tone.ogg")
cut=$(windows_path "$work/cut.wav")

run null_reader.vbs NullReader || true
run null_reader.js NullReader || true
run audio_pool.vbs AudioPool || true
run edited_audio.vbs "EditedAudio NullReader" || true

wine reg export "$filters" "$(windows_path "$work/filters.reg")" /y >/dev/null 2>&1 || true
wine reg delete "$filters" /f >/dev/null 2>&1 || true
set_text "$filters" Ogg '{2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0}'
run file_filters.vbs "FileFilterMgr OggImport" "$tone" "$(windows_path "$here/run_scripts.sh")" || true

if run import_edit_export.vbs "AudioPool OggImport EditedAudio WavExportFilter" "$tone" "$cut"; then
  expect "what the script saw" "$(head -n 1 "$work/output")" "frames 44100 42100"
  expect "frames in the WAV file" "$(sox --info -s "$work/cut.wav")" 42100
  expect "bits in the WAV file" "$(sox --info -b "$work/cut.wav")" 16
fi
if run import_edit_export.js "AudioPool OggImport EditedAudio WavExportFilter" "$tone" "$cut" 44100; then
  expect "frames in the WAV file" "$(sox --info -s "$work/cut.wav")" 44100
  expect "bits in the WAV file" "$(sox --info -b "$work/cut.wav")" 24
fi

# The samples, which find the importers in the list: the engine's, and the one that is a sample itself.
# sample SCRIPT IN "EXPECTED OUTPUT" [ARGUMENTS...]: writes $work/half.wav.
sample() {
  local script=$1 input=$2 expected=$3
  shift 3
  rm -f "$work/half.wav"
  wine cscript //nologo "$(windows_path "$root/samples/scripts/$script")" "$(windows_path "$input")" \
    "$(windows_path "$work/half.wav")" "$@" >"$work/raw" 2>&1 || true
  expect "what $script says of ${input##*/}" "$(tr -d '\r' <"$work/raw")" "$expected"
}
sample cut_in_half.vbs "$work/tone.ogg" "22050 of 44100 frames written"
expect "frames in the WAV file" "$(sox --info -s "$work/half.wav")" 22050
sample cut_in_half.js "$work/tone.ogg" "22050 of 44100 frames written" 44100
expect "frames in the WAV file" "$(sox --info -s "$work/half.wav")" 22050

rm "$work/half.wav"
for call in "vbs IN OUT.wav" "js IN OUT.wav FRAMES"; do
  script=cut_in_half.${call%% *}
  said=$(wine cscript //nologo "$(windows_path "$root/samples/scripts/$script")" "$tone" 2>&1) && status=0 ||
    status=$?
  expect "what $script says without all its arguments" "${said//$'\r'/}, status $status" \
    "usage: cscript $script ${call#* }, status 2"
done
sample cut_in_half.js "$work/tone.ogg" "usage: cscript cut_in_half.js IN OUT.wav FRAMES" many
expect "what that leaves" "$(ls "$work" | grep half || true)" ""

description=$root/samples/import-filter/example.tone
sample cut_in_half.vbs "$description" "No import filter reads $(windows_path "$description")"
register tests/tone_import.dll
sample cut_in_half.vbs "$description" "27562 of 55125 frames written"
# sox says its estimate in whole hertz.
expect "the pitch of the first tone" \
  "$(sox "$work/half.wav" -n trim 0 0.5 stat 2>&1 | sed -n 's/^Rough *frequency: *\(439\|44[01]\)$/440/p')" 440
expect "the pause after it" \
  "$(sox "$work/half.wav" -n trim 22050s stat 2>&1 | sed -n 's/^Maximum amplitude: *//p')" 0.000000
wine regsvr32 /s /u "$(windows_path "$build/tests/tone_import.dll")" || true
sample cut_in_half.vbs "$description" "No import filter reads $(windows_path "$description")"
exit $((failures > 0))
