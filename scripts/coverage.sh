#!/usr/bin/env bash
# Says which lines of the product its tests run:
#   scripts/coverage.sh [--list]                 the kernels, by their tests on this machine
#   scripts/coverage.sh --components [--list]    all that is in the module and the host, by the tests
#                                                under Wine but those of sound; a quarter of an hour
# --list names every line that never ran.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

preset=coverage
around=()
tests=()
if [[ ${1:-} == --components ]]; then
  preset=x64-coverage
  around=("$root/scripts/wine-session")
  # The image of the module differs in this build; a package is made of another.
  tests=(-LE '^sound$' -E '^(abuse_module_image|package.*)$')
  shift
fi
"$root/scripts/setup.sh" build test
compile "$preset"
# The counters of earlier runs would count, too.
find "$root/build/$preset" -name '*.gcda' -delete
step "tests that count lines" "ctest --preset $preset --rerun-failed" \
  env -C "$root" "${around[@]}" ctest --preset "$preset" --no-tests=error "${tests[@]}"
"$root/scripts/lib/coverage-table" "$root/build/$preset" "$@"
