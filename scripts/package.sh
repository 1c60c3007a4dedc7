#!/usr/bin/env bash
# Makes the packages from the 64-bit and the 32-bit build:
#   build/package/tessaly-VERSION.zip         unpack and run
#   build/package/tessaly-VERSION-setup.exe   installs, registers and removes
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

"$root/scripts/setup.sh" build package
compile x64 programs
compile x86 programs

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$root/build/x64/CMakeCache.txt")
name=tessaly-$version
package=$root/build/package
folder=$package/$name
rm -rf "$package"
mkdir -p "$package"

lay_out() {
  cmake --install "$root/build/x64" --strip --prefix "$folder" &&
    cmake --install "$root/build/x86" --strip --component programs --prefix "$folder" || return
  # Licence texts of linked libraries come from the libraries' sources. Licence texts of header-only libraries and
  # the compiler's runtime come from Debian's packages.
  local stamp library place
  for stamp in "$root"/build/deps/x64/.built-*; do
    library=${stamp##*.built-}
    [[ $library == benchmark ]] && continue
    place=$root/build/deps/src/$library
    cp "$(find "$place" -maxdepth 1 -name 'COPYING*' | sort | tail -n 1)" \
      "$folder/licences/$library.txt" || return
  done
  for library in libcli11-dev nlohmann-json3-dev libstb-dev mingw-w64-x86-64-dev \
    gcc-mingw-w64-x86-64-posix-runtime; do
    cp -L "/usr/share/doc/$library/copyright" "$folder/licences/$library.txt" || return
  done
  sed -i 's/$/\r/' "$folder/README.txt" "$folder/console.cmd" # for Windows' text editor and command prompt
}
pack() {
  (cd "$package" && find "$name" -type f | LC_ALL=C sort | zip -q -9 -X -@ "$name.zip")
}
set_up_program() {
  # Writes lists for the set-up program: licence texts to show, modules to register, files and folders to remove.
  local text
  {
    printf '\357\273\277' # byte order mark of UTF-8
    for text in "$folder/licences/third-party.md" "$folder"/licences/*.txt; do
      printf '======== %s ========\n\n%s\n\n' "${text#"$folder/"}" "$(<"$text")"
    done
  } | sed 's/\r*$/\r/' >"$folder.licences.txt"
  (cd "$folder" && find x64 x86 -name '*.dll' | LC_ALL=C sort | sed 's|^|${Module} |; s|/| |') >"$folder.modules.nsh"
  (cd "$folder" && {
    find . -type f -printf 'Delete "$INSTDIR/%P"\n'
    find . -mindepth 1 -depth -type d -printf 'RMDir "$INSTDIR/%P"\n'
  } | tr / '\\') >"$folder.remove.nsh"
  makensis -V2 -WX -DVERSION="$version" -DFOLDER="$folder" -DOUT="$folder-setup.exe" \
    "$root/installer/tessaly.nsi" &&
    rm "$folder".{licences.txt,modules.nsh,remove.nsh}
}
step "lay out the files" "see the log" lay_out
step "zip" "see the log" pack
step "set-up program" "see the log" set_up_program
# makensis returns 0 even if it could not write the whole file.
for product in "$folder.zip" "$folder-setup.exe"; do
  [[ -s $product ]] || die "missing or empty: ${product#"$root"/}"
  printf '  %-52s %4d KiB\n' "${product#"$root"/}" $(($(stat -c %s "$product") / 1024))
done
