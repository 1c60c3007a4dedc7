#!/usr/bin/env bash
# Reads the code: clang-format, then cppcheck and clang-tidy over everything that is not a test:
#   scripts/lint.sh [--changed | FILE.cpp...]
# Kernels are read as this machine compiles them, components as the cross compiler does, so the code
# for Windows is read too. A file that was clean is read again only after a change of it, of a header
# or of .clang-tidy. All of them take fifteen to thirty minutes on two cores; scripts/test.sh leaves it
# out for that reason. --changed reads only the files that differ from the last commit: seconds, but a
# changed header then counts for them alone.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"
cd "$root"

"$root/scripts/setup.sh" lint
step "format of the code" "clang-format -i FILE puts it right" "$root/scripts/lib/check-format"
configure native
configure x64
# The generated headers are read, too.
step -q "generate the contracts" "see the log" cmake --build build/x64 --target marlinda_contracts_files

folders=()
for folder in core pool edit device import export task converter host; do
  [[ ! -d $folder ]] || folders+=("$folder")
done
# cppcheck takes what a body may throw for thrown by the function that gives the body to ComCall, which
# catches it. It sees no headers but ours.
step "cppcheck" "see the log" cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ -I . \
  --enable=warning,performance,portability --suppress=throwInNoexceptFunction \
  --suppress=missingInclude --suppress=unknownMacro "${folders[@]}"
files=("$@")
if [[ ${1:-} == --changed ]]; then
  mapfile -t files < <({
    git diff --name-only --diff-filter=d HEAD -- "${folders[@]/%//*.cpp}"
    git ls-files --others --exclude-standard -- "${folders[@]/%//*.cpp}"
  })
  [[ ${#files[@]} -gt 0 ]] || exit 0
elif [[ ${#files[@]} -eq 0 ]]; then
  mapfile -t files < <(find "${folders[@]}" -name '*.cpp' | sort)
fi
stamps=$root/build/lint
mkdir -p "$stamps"
newest=$(find .clang-tidy "${folders[@]}" \( -name '*.h' -o -name .clang-tidy \) -printf '%T@ %p\n' |
  sort -rn | sed -n '1s/^[^ ]* //p')

# The C++ headers of the cross compiler, which clang does not look for by itself.
mingw=$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")/include/c++
export root stamps newest mingw

lint_one() {
  local file=$1 stamp=$stamps/${1//\//-}.ok arguments
  if [[ $stamp -nt $file && $stamp -nt $newest ]]; then return; fi
  if grep -qF "\"file\": \"$root/$file\"" build/native/compile_commands.json; then
    arguments=(-p build/native)
  else
    arguments=(-p build/x64 "--extra-arg=-isystem$mingw" "--extra-arg=-isystem$mingw/x86_64-w64-mingw32")
  fi
  if clang-tidy --quiet "${arguments[@]}" "$file" >"$stamp.log" 2>/dev/null; then
    mv "$stamp.log" "$stamp"
  else
    sed "s|$root/||" "$stamp.log"
    rm -f "$stamp" "$stamp.log"
    return 1
  fi
}
export -f lint_one
begun=$SECONDS
if printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$(nproc)" bash -c 'lint_one "$1"' lint; then
  say "clang-tidy: ${#files[@]} files" $((SECONDS - begun))
else
  die "clang-tidy found something, see above; a check that does not fit goes into .clang-tidy with its reason"
fi
