#!/usr/bin/env bash
# Checks all code with clang-format, and the folders listed below with cppcheck and clang-tidy:
#   scripts/lint.sh [--changed | FILE.cpp...]
# clang-tidy checks kernels (code without Windows) as native code and components as Windows code. It checks a clean
# file again only after a change to the file, to a header or to .clang-tidy. A full run takes fifteen to thirty
# minutes on two cores, so scripts/test.sh does not include it. With --changed, clang-tidy checks only the files that
# differ from the last commit, in seconds. It does not check other files that include a changed header.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"
cd "$root"

"$root/scripts/setup.sh" lint
step "format of the code" "clang-format -i FILE fixes it" "$root/scripts/lib/check-format"
configure native
configure x64-lint
# The checks need the generated headers.
step -q "generate the contracts" "see the log" cmake --build build/x64-lint --target marlinda_contracts_files

folders=()
for folder in core pool edit device import export task converter host; do
  [[ ! -d $folder ]] || folders+=("$folder")
done
# cppcheck does not see that ComCall catches the exceptions of its body. It reads only this project's headers, so it
# lacks other headers and their macros.
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

# The cross compiler's C++ headers, which clang does not find by itself.
mingw=$(dirname "$(x86_64-w64-mingw32-g++-posix -print-libgcc-file-name)")/include/c++
export root stamps newest mingw

lint_one() {
  local file=$1 stamp=$stamps/${1//\//-}.ok arguments
  if [[ $stamp -nt $file && $stamp -nt $newest ]]; then return; fi
  if grep -qF "\"file\": \"$root/$file\"" build/native/compile_commands.json; then
    arguments=(-p build/native)
  else
    arguments=(-p build/x64-lint "--extra-arg=-isystem$mingw" "--extra-arg=-isystem$mingw/x86_64-w64-mingw32")
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
  die "clang-tidy has findings, listed above; disable an unsuitable check in .clang-tidy and give the reason"
fi
