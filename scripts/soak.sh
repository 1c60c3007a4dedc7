#!/usr/bin/env bash
# Checks that take too long for the tests:
#   scripts/soak.sh [PART...]     all parts by default
# Parts:
#   samples   every vector form of the sample converters over all 2^32 patterns of a float (minutes)
#   dither    the vector forms of noise shaping for every sample (minutes)
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

# One function per part, named soak_PART.
parts=(samples dither)

soak_samples() {
  compile native sample_kernels_soak
  step "sample converters over all patterns" "the log names the patterns that differ" \
    "$root/build/native/tests/sample_kernels_soak"
}

soak_dither() {
  compile native dither_kernels_soak
  step "noise shaping of every sample" "the log names the first sample that differs" \
    "$root/build/native/tests/dither_kernels_soak"
}

chosen=("$@")
[[ ${#chosen[@]} -gt 0 ]] || chosen=("${parts[@]}")
for part in "${chosen[@]}"; do
  [[ " ${parts[*]} " == *" $part "* ]] || {
    echo "usage: soak.sh [${parts[*]}]" >&2
    exit 2
  }
done
"$root/scripts/setup.sh" build test
for part in "${chosen[@]}"; do "soak_$part"; done
