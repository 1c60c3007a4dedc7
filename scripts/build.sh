#!/usr/bin/env bash
# Builds the modules and the command-line program:
#   build/x64/Tessaly.dll  build/x64/Converter.dll  build/x64/Mp3Encoder.dll  build/x64/marlinda.exe
#   build/x86/Tessaly.dll  build/x86/Converter.dll  build/x86/Mp3Encoder.dll
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

"$root/scripts/setup.sh" build
compile x64 Tessaly Converter Mp3Encoder InterfacePicker marlinda
compile x86 Tessaly Converter Mp3Encoder
for product in x{64,86}/{Tessaly,Converter,Mp3Encoder}.dll x64/marlinda.exe; do
  [[ -s $root/build/$product ]] || die "the build did not make build/$product; see build/logs"
done
