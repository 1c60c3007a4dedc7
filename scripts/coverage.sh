#!/usr/bin/env bash
# Says which lines of the kernels their tests run:
#   scripts/coverage.sh [--list]     --list names every line that never ran
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

"$root/scripts/setup.sh" build test
compile coverage
# The counters of earlier runs would count, too.
find "$root/build/coverage" -name '*.gcda' -delete
step "tests of the kernels" "ctest --preset coverage --rerun-failed" \
  env -C "$root" ctest --preset coverage --no-tests=error
"$root/scripts/lib/coverage-table" "$root/build/coverage" "$@"
