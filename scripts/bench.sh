#!/usr/bin/env bash
# Builds the benchmarks, runs them natively and under Wine, and times marlinda beside other programs:
#   scripts/bench.sh [FILTER]      a regular expression for names of benchmarks; all by default
# Writes build/bench/table.md. A complete run also writes its comparisons to bench/RESULTS.md. Run nothing else
# meanwhile. The input files of the timed programs stay in build/bench/whole (0.8 GB).
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
# Each program repeats its benchmarks nine times in random order, so that other load on the machine affects compared
# benchmarks alike. A program that fails or hangs leaves its rows of the table empty.
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
run_counted() {
  # The benchmarks that goals.txt marks as "counted".
  local names
  mapfile -t names < <(awk -F ' *\\| *' -v chosen="$filter" '
    $3 ~ / counted$/ { for (i = 4; i <= 5; i++) if ($i ~ chosen && !seen[$i]++) print $i }' "$root/bench/goals.txt")
  [[ ${#names[@]} -gt 0 ]] || return 0
  step "kernel_bench, instructions" "run it by hand: scripts/lib/count-instructions" \
    "$root/scripts/lib/count-instructions" "$root/build/bench/bench/kernel_bench" \
    "$results/kernel_bench.counted.json" "${names[@]}" || failed=1
}
run_under_wine() {
  local program name chosen
  cd "$results" # Windows programs understand a relative name
  for program in "$root"/build/bench-x64/bench/*_bench.exe; do
    name=$(basename "$program" .exe)
    chosen=$filter
    # The vector forms are compared natively. Under Wine, measure only the fastest.
    [[ $name != kernel_bench || $filter != . ]] || chosen=level:2
    step "$name, Wine" "run it by hand: scripts/wine-run" timeout 240 "$root/scripts/wine-run" "$program" \
      "${options[@]}" --benchmark_filter="$chosen" --benchmark_out="$name.wine.json" || failed=1
  done
}
# Runs the benchmark once, because its fifty moves of the scrub position take 0.6 seconds each.
run_scrub() {
  cd "$results"
  "$root/scripts/wine-run" "$root/build/bench-x64/bench/scrub_to_sound.exe" --benchmark_filter="$filter" \
    --benchmark_out_format=json --benchmark_out=scrub_to_sound.wine.json \
    < <(parec --latency-msec=5 --raw --device=speaker.monitor)
}
# Makes the audio files of run_whole_programs, which times marlinda and comparable programs.
make_sources() {
  [[ ! -f hour.ogg ]] || return 0
  local pieces=() count
  for ((count = 0; count < 50; count++)); do pieces+=("$root/host/demo/demo.ogg"); done
  sox "${pieces[@]}" -b 16 ten.wav
  sox ten.wav ten.wav ten.wav ten.wav ten.wav ten.wav hour.wav
  oggenc -Q -q 4 -o ten.ogg ten.wav
  oggenc -Q -q 4 -o made.ogg hour.wav
  mv made.ogg hour.ogg
}
run_whole_programs() {
  local work=$root/build/bench/whole
  mkdir -p "$work"
  cd "$work"
  local ours="'$root/scripts/wine-run' '$root/build/bench-x64/marlinda.exe'"
  local ffmpeg="ffmpeg -v error -nostdin" soxr=
  ! ffmpeg -v quiet -buildconf | grep enable-libsoxr >/dev/null || soxr=:resampler=soxr
  local first_sound="'$root/scripts/lib/first-sound'"
  local wave="-filter_complex showwavespic=s=1200x320 -frames:v 1"
  local programs=(
    "marlinda --version" "$ours --version >/dev/null"
    "marlinda convert ten.ogg" "$ours convert ten.ogg out.wav >/dev/null"
    "oggdec ten.ogg" "oggdec -Q -o out.wav ten.ogg"
    "ffmpeg ten.ogg" "$ffmpeg -i ten.ogg out.wav"
    "marlinda convert --rate 48000 ten.ogg" "$ours convert ten.ogg out.wav --rate 48000 >/dev/null"
    "ffmpeg aresample ten.ogg" "$ffmpeg -i ten.ogg -af aresample=48000$soxr out.wav"
    "marlinda convert --bits 24 hour.wav" "$ours convert hour.wav out.wav --bits 24 >/dev/null"
    "sndfile-convert -pcm24 hour.wav" "sndfile-convert -pcm24 hour.wav out.wav"
    "marlinda cut hour.ogg" "$ours cut hour.ogg out.wav --keep 1800:1810 >/dev/null"
    "ffmpeg -ss hour.ogg" "$ffmpeg -ss 1800 -t 10 -i hour.ogg out.wav"
    "marlinda cut hour.wav" "$ours cut hour.wav out.wav --keep 1800:1810 >/dev/null"
    "ffmpeg -ss hour.wav" "$ffmpeg -ss 1800 -t 10 -i hour.wav out.wav"
    "marlinda play hour.ogg" "$first_sound $ours play hour.ogg"
    "ffplay hour.ogg" "$first_sound ffplay -v error -nodisp hour.ogg"
    "marlinda plot hour.ogg" "$ours plot hour.ogg out.png >/dev/null"
    "ffmpeg showwavespic hour.ogg" "$ffmpeg -i hour.ogg $wave out.png"
    "marlinda plot hour.wav" "$ours plot hour.wav out.png >/dev/null"
    "ffmpeg showwavespic hour.wav" "$ffmpeg -i hour.wav $wave out.png"
  )
  local index chosen=()
  for ((index = 0; index < ${#programs[@]}; index += 2)); do
    [[ ! ${programs[index]} =~ $filter ]] || chosen+=("${programs[@]:index:2}")
  done
  [[ ${#chosen[@]} -gt 0 ]] || return 0
  make_sources
  "$root/scripts/sound-session" "$root/scripts/lib/time-programs" "$results/whole.native.json" "${chosen[@]}"
  rm -f out.*
}
failed=
run_here
run_counted
# Runs in one wine-session, so that the Windows programs share one start of Wine.
under_wine() {
  run_under_wine
  step "scrub_to_sound, Wine" "see the log" "$root/scripts/sound-session" bash -euo pipefail -c run_scrub || failed=1
  step "whole programs" "see the log" bash -euo pipefail -c run_whole_programs || failed=1
  [[ -z $failed ]]
}
export -f step say run_under_wine run_scrub make_sources run_whole_programs under_wine
export root results filter logs
"$root/scripts/wine-session" bash -uo pipefail -c "$(declare -p options); failed=; under_wine" || failed=1

table=$root/build/bench/table.md
"$root/scripts/lib/bench-table" "$root/bench/goals.txt" "$results" >"$table"
cat "$table"
[[ -z $failed ]] || die "a program failed; its rows are empty"
if [[ $filter == . ]]; then
  page=$root/bench/RESULTS.md
  # Keeps the explanation and takes the first of the two tables, which holds the comparisons.
  {
    sed '/^## Last run/,$d' "$page"
    printf '## Last run: %(%F)T\n\n' -1
    sed '/^$/,$d' "$table"
  } >"$page.new"
  mv "$page.new" "$page"
fi
