#!/usr/bin/env bash
# Reports which of the product's lines run in the tests:
#   scripts/coverage.sh [--list]                 the kernels (code without Windows), by their native tests
#   scripts/coverage.sh --components [--list]    module, host and samples, by the tests under Wine; takes
#                                                half an hour
# --list prints every line that never ran.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

preset=coverage
[[ ${1:-} != --components ]] || preset=x64-coverage
"$root/scripts/setup.sh" build test
compile "$preset"
# Remove the counts of earlier runs, because a run adds its counts to them.
find "$root/build/$preset" -name '*.gcda' -delete
if [[ $preset == coverage ]]; then
  step "tests of the kernels" "ctest --preset coverage --rerun-failed" \
    env -C "$root" ctest --preset coverage --no-tests=error
else
  shift
  # This build is so slow that some tests exceed CTest's time limit. The lines that they ran still count. The package
  # tests need another build.
  log=$logs/coverage-components.log
  env -C "$root" "$root/scripts/wine-session" ctest --preset x64-coverage --no-tests=error -LE '^sound$' \
    -E '^package' >"$log" 2>&1 </dev/null || true
  TESSALY_WINE_PREFIX=$root/build/wine-sound env -C "$root" "$root/scripts/wine-session" \
    ctest --preset x64-coverage --no-tests=error -L '^sound$' >>"$log" 2>&1 </dev/null || true
  grep -E 'tests passed|\(Failed\)|\(Timeout\)' "$log"
  export GCOV=x86_64-w64-mingw32-gcov-posix
fi
"$root/scripts/lib/coverage-table" "$root/build/$preset" "$@"
