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

picker='{5B0E39C1-6F0A-4C53-9D7A-215E0B84C36E}'
filters='HKLM\Software\Brevant\Cutloom\Import Filters'
work=$(mktemp -d)
failures=0

wine() { "$TESSALY_WINE" "$@" </dev/null; }
windows_path() { local path="Z:$1"; printf '%s' "${path//\//\\}"; }

clean_up() {
  {
    wine reg delete "$filters" /f
    [[ ! -s $work/filters.reg ]] || wine reg import "$(windows_path "$work/filters.reg")"
    wine reg delete 'HKCR\TessalyTests.InterfacePicker' /f
    wine reg delete "HKCR\\CLSID\\$picker" /f
    wine regsvr32 /s /u "$(windows_path "$build/Tessaly.dll")"
  } >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap clean_up EXIT

set_text() { wine reg add "$1" /v "$2" /d "$3" /f >/dev/null; }
set_default() { wine reg add "$1" /ve /d "$2" /f >/dev/null; }

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

wine regsvr32 /s "$(windows_path "$build/Tessaly.dll")" || {
  echo "the module cannot be registered" >&2
  exit 1
}
set_default 'HKCR\TessalyTests.InterfacePicker\CLSID' "$picker"
set_default "HKCR\\CLSID\\$picker\\InprocServer32" "$(windows_path "$build/tests/interface_picker.dll")"
set_text "HKCR\\CLSID\\$picker\\InprocServer32" ThreadingModel Both

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
exit $((failures > 0))
