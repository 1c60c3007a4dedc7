#!/usr/bin/env bash
# Builds the benchmarks and runs them, natively and under Wine, and times whole programs beside ours:
#   scripts/bench.sh [FILTER]      a regular expression for names of benchmarks; all by default
# Writes one table to build/bench/table.md. Let nothing else run meanwhile.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"
filter=${1:-.}

"$root/scripts/setup.sh" bench
echo "Building"
compile bench
compile bench-x64
results=$root/build/bench/results
rm -rf "$results"
mkdir -p "$results"

echo "Measuring"
run_here() {
  local program name
  for program in "$root"/build/bench/bench/*_bench; do
    name=${program##*/}
    step "$name, native" "run it by hand" "$program" --benchmark_filter="$filter" \
      --benchmark_out_format=json --benchmark_out="$results/$name.native.json"
  done
}
run_under_wine() {
  local program name
  cd "$results" # a relative name means the same to Windows programs
  for program in "$root"/build/bench-x64/bench/*_bench.exe; do
    name=$(basename "$program" .exe)
    step "$name, Wine" "run it by hand: scripts/wine-run" "$root/scripts/wine-run" "$program" \
      --benchmark_filter="$filter" --benchmark_out_format=json --benchmark_out="$name.wine.json"
  done
}
# Ten minutes of sound through whole programs, from start to end, the best of five.
run_whole_programs() {
  local work=$results/whole
  mkdir -p "$work"
  cd "$work"
  local pieces=() count
  for ((count = 0; count < 50; count++)); do pieces+=("$root/host/demo/demo.ogg"); done
  sox "${pieces[@]}" -b 16 long.wav
  oggenc -Q -q 4 -o long.ogg long.wav
  "$root/scripts/lib/time-programs" "$results/whole.json" \
    "oggdec long.ogg" "oggdec -Q -o out.wav long.ogg" \
    "sox long.ogg out.wav" "sox long.ogg -b 16 out.wav" \
    "marlinda convert long.ogg out.wav" \
    "'$root/scripts/wine-run' '$root/build/bench-x64/marlinda.exe' convert long.ogg out.wav"
  rm -f long.wav long.ogg out.wav
}
export -f step say run_under_wine run_whole_programs
export root results filter logs
run_here
"$root/scripts/wine-session" bash -euo pipefail -c run_under_wine
if [[ $filter == . ]]; then
  step "whole programs" "see the log" "$root/scripts/wine-session" bash -euo pipefail -c run_whole_programs
fi

"$root/scripts/lib/bench-table" "$results" >"$root/build/bench/table.md"
cat "$root/build/bench/table.md"
