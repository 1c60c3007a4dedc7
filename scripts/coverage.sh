#!/usr/bin/env bash
# Says which lines of the product its tests run:
#   scripts/coverage.sh [--list]                 the kernels, by their tests on this machine
#   scripts/coverage.sh --components [--list]    all that is in the module, the host and the samples, by
#                                                the tests under Wine; half an hour
# --list names every line that never ran.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

preset=coverage
[[ ${1:-} != --components ]] || preset=x64-coverage
"$root/scripts/setup.sh" build test
compile "$preset"
# The counters of earlier runs would count, too.
find "$root/build/$preset" -name '*.gcda' -delete
if [[ $preset == coverage ]]; then
  step "tests of the kernels" "ctest --preset coverage --rerun-failed" \
    env -C "$root" ctest --preset coverage --no-tests=error
else
  shift
  # Counting makes this build so slow that tests with limits of time fail; what they ran counts as well.
  # A package is made of another build.
  log=$logs/coverage-components.log
  env -C "$root" "$root/scripts/wine-session" ctest --preset x64-coverage --no-tests=error -LE '^sound$' \
    -E '^package' >"$log" 2>&1 </dev/null || true
  TESSALY_WINE_PREFIX=$root/build/wine-sound env -C "$root" "$root/scripts/wine-session" \
    ctest --preset x64-coverage --no-tests=error -L '^sound$' >>"$log" 2>&1 </dev/null || true
  grep -E 'tests passed|\(Failed\)|\(Timeout\)' "$log"
  export GCOV=x86_64-w64-mingw32-gcov-posix
fi
"$root/scripts/lib/coverage-table" "$root/build/$preset" "$@"
