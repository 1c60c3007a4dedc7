#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test: the kernels natively, plain and under
# the sanitizers, kernels and components under Wine, sound on sound servers of the tests' own; and checks
# the format of the code. Ends with one summary; the status is 0 only if everything passed.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"
started=$SECONDS

"$root/scripts/setup.sh" build test
echo "Building"
for preset in x64 x86 native asan tsan; do
  compile "$preset"
done

echo "Testing"
passed=0 failed=0 skipped=0 broken=()

# count LOG: "passed failed skipped" of the single tests in what CTest said with -V. A program that died
# before its closing line, or that is no GoogleTest program, counts as one test, and so does one that says
# that it was not tested.
count() {
  awk '
    /^test [0-9]+$/ { ran = bad = left = 0 }
    /^[0-9]+: \[==========\] [0-9]+ tests? from .* ran/ { ran += $3 }
    /^[0-9]+: \[  FAILED  \] [0-9]+ tests?, listed below/ { bad += $5 }
    /^[0-9]+: \[  SKIPPED \] [0-9]+ tests?, listed below/ { left += $5 }
    / NOT TESTED\. / { ran++; left++ }
    /^ *[0-9]+\/[0-9]+ Test +#[0-9]+: / {
      whole = / Passed +[0-9.]+ sec/
      if (ran == 0) { ran = 1; bad = !whole }
      else if (!whole && bad == 0) { ran++; bad = 1 }
      passed += ran - bad - left; failed += bad; skipped += left
    }
    END { print passed + 0, failed + 0, skipped + 0 }' "$1"
}

# suite NAME PRESET WHAT OPTION [COMMAND...]: runs the tests of one preset that CTest's option -L or -LE
# (with the label of the sound tests) leaves, by the command; says how they went and leaves "passed failed
# skipped" in a file for the sum.
suite() {
  local name=$1 preset=$2 what=$3 option=$4 begun=$SECONDS status=0 good bad left
  shift 4
  local log=$logs/test-$name.log
  (cd "$root" && "$@" ctest --preset "$preset" -V --no-tests=error "$option" '^sound$') >"$log" 2>&1 </dev/null || status=$?
  read -r good bad left < <(count "$log")
  # Whatever CTest says counts, also where no single test says why.
  [[ $status -eq 0 || $bad -gt 0 ]] || bad=1
  echo "$good $bad $left $what" >"$logs/result-$name"
  # A whole program that this machine cannot run says so, and nobody is to overlook it.
  grep ' NOT TESTED\. ' "$log" >&2 || true
  if [[ $bad -eq 0 ]]; then
    say "$what: $good tests" $((SECONDS - begun))
    return
  fi
  {
    grep -E '\[  FAILED  \]|Failure|exception|Sanitizer|runtime error|\*\*\*(Failed|Timeout|Exception)' "$log" |
      awk "!seen[\$0]++" | head -n 40
    tail -n 15 "$log"
    echo "  FAILED $what: $bad of $((good + bad)) tests; all output: build/logs/test-$name.log"
    echo "  again: ctest --preset $preset -R NAME, for each of those that failed"
  } >&2
}

rm -f "$logs"/result-*
# One line of suites per core of a small machine: those under Wine wait now and then, those of sound
# mostly. Sound has a prefix of its own, for others register and unregister the classes meanwhile.
suite x64 x64 "kernels and components under Wine" -LE "$root/scripts/wine-session" &
suite native native "kernels, native" -LE
suite asan asan "kernels under AddressSanitizer and UBSan" -LE
suite tsan tsan "kernels under ThreadSanitizer" -LE
suite sound x64 "sound under Wine" -L env "TESSALY_WINE_PREFIX=$root/build/wine-sound" "$root/scripts/wine-session"
wait
for name in x64 sound native asan tsan; do
  # A suite that left no result has failed.
  good=0 bad=1 left=0 what="tests of $name"
  read -r good bad left what 2>/dev/null <"$logs/result-$name" || true
  passed=$((passed + good)) failed=$((failed + bad)) skipped=$((skipped + left))
  [[ $bad -eq 0 ]] || broken+=("$what")
done

if step "format of the code" "clang-format -i FILE puts it right" "$root/scripts/lib/check-format"; then
  passed=$((passed + 1))
else
  failed=$((failed + 1)) broken+=("format of the code")
fi

echo
if [[ $failed -gt 0 ]]; then
  printf 'Failed: %s\n' "${broken[@]}"
fi
echo "All of it took $((SECONDS - started)) s."
echo "$passed passed, $failed failed, $skipped skipped"
[[ $failed -eq 0 && $passed -gt 1 ]]
