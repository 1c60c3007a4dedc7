#!/usr/bin/env bash
# Installs missing packages, builds everything, runs every test and checks the format of the code. Kernels (code
# without Windows) run natively under sanitizers. Kernels and components run under Wine in 64 and 32 bits, with
# private sound servers. Prints a summary. The status is 0 only if everything passed.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"
started=$SECONDS

"$root/scripts/setup.sh" build test
passed=0 failed=0 skipped=0 broken=()

# count LOG: prints "passed failed skipped", the numbers of single tests in the output of CTest with -V. A
# program without GoogleTest's closing line counts as one test, and so does one that prints NOT TESTED. A
# program that begins tests and prints no closing line has failed: under Wine a stack overflow can end it
# with status 0.
count() {
  awk '
    /^test [0-9]+$/ { ran = bad = left = begun = 0 }
    /^[0-9]+: \[==========\] Running/ { begun = 1 }
    /^[0-9]+: \[==========\] [0-9]+ tests? from .* ran/ { ran += $3 }
    /^[0-9]+: \[  FAILED  \] [0-9]+ tests?, listed below/ { bad += $5 }
    /^[0-9]+: \[  SKIPPED \] [0-9]+ tests?, listed below/ { left += $5 }
    / NOT TESTED\. / { ran++; left++ }
    /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: / {
      whole = / Passed +[0-9.]+ sec/ && !(begun && ran == 0)
      if (ran == 0) { ran = 1; bad = !whole }
      else if (!whole && bad == 0) { ran++; bad = 1 }
      passed += ran - bad - left; failed += bad; skipped += left
    }
    END { print passed + 0, failed + 0, skipped + 0 }' "$1"
}

# suite NAME PRESET WHAT SELECTION [COMMAND...]: runs tests of a preset through COMMAND. CTest's option SELECTION
# ("-L LABEL" or "-LE LABEL") selects the tests. Prints the result and writes "passed failed skipped" to a file
# for the summary.
suite() {
  local name=$1 preset=$2 what=$3 begun=$SECONDS status=0 good bad left selection
  read -ra selection <<<"$4"
  shift 4
  local log=$logs/test-$name.log
  (cd "$root" && "$@" ctest --preset "$preset" -V --no-tests=error "${selection[@]}") >"$log" 2>&1 </dev/null || status=$?
  read -r good bad left < <(count "$log")
  # Count a failure of CTest itself, which no single test reports.
  [[ $status -eq 0 || $bad -gt 0 ]] || bad=1
  echo "$good $bad $left $what" >"$logs/result-$name"
  # Reports the tests that this machine cannot run.
  grep ' NOT TESTED\. ' "$log" >&2 || true
  if [[ $bad -eq 0 ]]; then
    say "$what: $good tests" $((SECONDS - begun))
    return
  fi
  {
    grep -E '\[  FAILED  \]|Failure|exception|Sanitizer|runtime error|\*\*\*(Failed|Timeout|Exception)' "$log" |
      awk "!seen[\$0]++" | head -n 40
    tail -n 15 "$log"
    sed -n 's/.*Test *#[0-9]*: \([^ ]*\).*\*\*\*Timeout.*/  HANG: \1 was ended; it gave no result in ten minutes/p' "$log"
    echo "  FAILED $what: $bad of $((good + bad)) tests; log: build/logs/test-$name.log"
    echo "  to repeat a failed test: ctest --preset $preset -R NAME"
  } >&2
}

rm -f "$logs"/result-*
names=(x64 package sound asan tsan x86 x86-sound x86-loss)
"$root/scripts/x86-root" >"$logs/x86-root.log" 2>&1 &
system=$!
# Suites run during later builds, because tests that wait for timers leave the processor idle. Sound tests have separate
# Wine prefixes, because other tests register and unregister the classes.
compile x64
suite x64 x64 "kernels and components, 64 bits" "-LE ^(sound|package)$" "$root/scripts/wine-session" &
suite sound x64 "sound, 64 bits" "-L ^sound$" env "TESSALY_WINE_PREFIX=$root/build/wine-sound" "$root/scripts/wine-session" &
compile x86
suite package x64 "packages of both" "-L ^package$" &
bits_32=0
wait "$system" || bits_32=$?
cat "$logs/x86-root.log"
session_32=(env TESSALY_WINE_BITS=32 "$root/scripts/wine-session")
sound_32=(env "TESSALY_WINE_PREFIX=$root/build/wine-x86-sound" "${session_32[@]}")
if [[ $bits_32 -eq 0 ]]; then
  suite x86 x86 "kernels and components, 32 bits" "-LE ^sound$" "${session_32[@]}" &
  suite x86-sound x86 "sound, 32 bits" "-L ^sound$ -E ^device_loss_test$" "${sound_32[@]}" &
  sound_suite=$!
elif [[ $bits_32 -eq 3 ]]; then
  echo "  32 bits NOT TESTED. The reason is above." >&2
  echo "0 0 1 32 bits" | tee "$logs"/result-x86{,-sound} >"$logs/result-x86-loss"
fi
if compile asan; then
  suite asan asan "kernels under AddressSanitizer and UBSan" "-LE ^sound$" &
fi
if compile tsan threaded_kernel_tests; then
  suite tsan tsan "kernels with threads under ThreadSanitizer" "-L ^threads$" &
fi
# Wine's 32-bit sound driver can abort a program that loses its device just after the sound was interrupted. The load of
# a build often interrupts the sound, so this test starts after the last build.
if [[ $bits_32 -eq 0 ]]; then
  wait "$sound_suite"
  suite x86-loss x86 "loss of sound devices, 32 bits" "-R ^device_loss_test$" "${sound_32[@]}" &
fi
wait
for name in "${names[@]}"; do
  # A suite without a result counts as failed.
  good=0 bad=1 left=0 what="tests of $name"
  read -r good bad left what 2>/dev/null <"$logs/result-$name" || true
  passed=$((passed + good)) failed=$((failed + bad)) skipped=$((skipped + left))
  [[ $bad -eq 0 ]] || broken+=("$what")
done

if step "format of the code" "clang-format -i FILE fixes it" "$root/scripts/lib/check-format"; then
  passed=$((passed + 1))
else
  failed=$((failed + 1)) broken+=("format of the code")
fi

echo
if [[ $failed -gt 0 ]]; then
  printf 'Failed: %s\n' "${broken[@]}"
fi
echo "Total time: $((SECONDS - started)) s."
echo "$passed passed, $failed failed, $skipped skipped"
[[ $failed -eq 0 && $passed -gt 1 ]]
