#!/usr/bin/env bash
# Builds the benchmarks and runs them, natively and under Wine, and times whole programs beside ours:
#   scripts/bench.sh [FILTER]      a regular expression for names of benchmarks; all by default
# Writes build/bench/table.md; a complete run also writes its comparisons to bench/RESULTS.md. Let nothing else
# run meanwhile.
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
# Nine repetitions of everything in a program, in random turn: only what was measured side by side is
# compared. A program that fails or hangs leaves its rows of the table empty.
options=(
  --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true --benchmark_min_time=0.02
  --benchmark_out_format=json
)
run_here() {
  local program name
  for program in "$root"/build/bench/bench/*_bench; do
    name=${program##*/}
    step "$name, native" "run it by hand" timeout 240 "$program" "${options[@]}" \
      --benchmark_filter="$filter" --benchmark_out="$results/$name.native.json" || failed=1
  done
}
run_under_wine() {
  local program name chosen
  cd "$results" # a relative name means the same to Windows programs
  for program in "$root"/build/bench-x64/bench/*_bench.exe; do
    name=$(basename "$program" .exe)
    chosen=$filter
    # The forms are compared natively; here only what is used counts.
    [[ $name != kernel_bench || $filter != . ]] || chosen=level:2
    step "$name, Wine" "run it by hand: scripts/wine-run" timeout 240 "$root/scripts/wine-run" "$program" \
      "${options[@]}" --benchmark_filter="$chosen" --benchmark_out="$name.wine.json" || failed=1
  done
}
# Ten minutes of sound through whole programs, from start to end. The import alone counts from within.
run_whole_programs() {
  local work=$results/whole
  mkdir -p "$work"
  cd "$work"
  local pieces=() count
  for ((count = 0; count < 50; count++)); do pieces+=("$root/host/demo/demo.ogg"); done
  sox "${pieces[@]}" -b 16 long.wav
  oggenc -Q -q 4 -o long.ogg long.wav
  local import="'$root/scripts/wine-run' '$root/build/bench-x64/bench/ogg_bench.exe'"
  import="TESSALY_BENCH_OGG=long.ogg $import --benchmark_filter=ImportIntoPool --benchmark_format=json"
  "$root/scripts/lib/time-programs" "$results/whole.native.json" \
    "oggdec long.ogg" "oggdec -Q -o out.wav long.ogg" \
    "import of long.ogg into a pool, Wine" "$import --benchmark_min_time=0.001 2>/dev/null" \
    "sox long.ogg out.wav" "sox long.ogg -b 16 out.wav" \
    "marlinda convert long.ogg out.wav, Wine" \
    "'$root/scripts/wine-run' '$root/build/bench-x64/marlinda.exe' convert long.ogg out.wav >/dev/null"
  rm -f long.wav long.ogg out.wav
}
failed=
run_here
# One session, so that the Windows programs share one start of Wine.
under_wine() {
  run_under_wine
  if [[ $filter == . ]]; then
    step "whole programs" "see the log" bash -euo pipefail -c run_whole_programs || failed=1
  fi
  [[ -z $failed ]]
}
export -f step say run_under_wine run_whole_programs under_wine
export root results filter logs
"$root/scripts/wine-session" bash -uo pipefail -c "$(declare -p options); failed=; under_wine" || failed=1

table=$root/build/bench/table.md
"$root/scripts/lib/bench-table" "$root/bench/goals.txt" "$results" >"$table"
cat "$table"
[[ -z $failed ]] || die "a program failed; its rows are empty"
if [[ $filter == . ]]; then
  page=$root/bench/RESULTS.md
  # The explanation stays. The first of the two tables compares.
  {
    sed '/^## Last run/,$d' "$page"
    printf '## Last run: %(%F)T\n\n' -1
    sed '/^$/,$d' "$table"
  } >"$page.new"
  mv "$page.new" "$page"
fi
