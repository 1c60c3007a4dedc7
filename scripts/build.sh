#!/usr/bin/env bash
# Builds the modules and the command-line program:
#   build/x64/Tessaly.dll  build/x64/Converter.dll  build/x64/marlinda.exe
#   build/x86/Tessaly.dll  build/x86/Converter.dll
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

"$root/scripts/setup.sh" build
compile x64 Tessaly Converter InterfacePicker marlinda
compile x86 Tessaly Converter
for product in x64/Tessaly.dll x64/Converter.dll x64/marlinda.exe x86/Tessaly.dll x86/Converter.dll; do
  [[ -s $root/build/$product ]] || die "the build left no build/$product"
done
