#!/usr/bin/env bash
# Runs long tests of the device classes: ten minutes of gapless playback and five of recording, compared bit for
# bit, and ten thousand starts and stops each of playing, recording and scrubbing. The run takes about forty
# minutes, so scripts/test.sh does not include it.
#   scripts/soak-device.sh [CYCLES [SECONDS]]     10000 cycles and 600 seconds by default
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"
cycles=${1:-10000} seconds=${2:-600}
[[ $# -le 2 && $cycles =~ ^[0-9]+$ && $seconds =~ ^[0-9]+$ ]] || {
  echo "usage: soak-device.sh [CYCLES [SECONDS]]" >&2
  exit 2
}

# shellcheck disable=SC2154 -- root comes from common.sh
"$root/scripts/setup.sh" build test
compile x64 Tessaly device_component_tests sound_tool
tests=$root/build/x64/tests

echo "Playing $seconds s and recording half as long"
TESSALY_DEVICE_SECONDS=$seconds "$root/scripts/wine-session" python3 -B "$root/tests/device/device_test.py" \
  "$tests/sound_tool.exe" PlayTest RecordTest
echo "Starting and stopping $cycles times"
TESSALY_DEVICE_CYCLES=$cycles "$root/scripts/sound-session" "$root/scripts/wine-run" \
  "$tests/device_component_tests.exe" '--gtest_filter=Cycles.*'
