# Functions that the scripts share: run a step, configure a preset and build it. Sourcing this file sets `root` and
# `logs`. It works from any current folder.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
logs=$root/build/logs
mkdir -p "$logs"
# Compilers and tests put temporary files here, so that none stay in the system's folder.
export TMPDIR=$root/build/tmp
mkdir -p "$TMPDIR"

die() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# step [-q] WHAT REMEDY COMMAND...: runs a command with its output in a log. On success, prints one line, or nothing
# with -q. On failure, prints the end of the log, its path and REMEDY.
step() {
  local quiet=
  if [[ $1 == -q ]]; then
    quiet=1
    shift
  fi
  local what=$1 remedy=$2 started=$SECONDS log status=0
  shift 2
  log=$logs/$(tr -cs 'A-Za-z0-9\n' - <<<"$what").log
  "$@" >"$log" 2>&1 </dev/null || status=$?
  if [[ $status -ne 0 ]]; then
    tail -n 30 "$log" >&2
    {
      echo
      echo "${0##*/}: failed: $what (status $status)"
      echo "  log: ${log#"$root"/}"
      echo "  possible remedy: $remedy"
    } >&2
    return "$status"
  fi
  [[ -n $quiet ]] || say "$what" $((SECONDS - started))
}

# say WHAT SECONDS: prints the line of a successful step.
say() { printf '  %-52s %4d s\n' "$1" "$2"; }

# configure PRESET [CMAKE ARGUMENTS...]: configures the preset if the build would not do so itself.
configure() {
  local preset=$1 folder=$root/build/$1
  shift
  # The cache of a moved or copied clone holds the old path.
  if [[ -f $folder/CMakeCache.txt ]] &&
    ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$folder/CMakeCache.txt"; then
    rm -rf "$folder"
  fi
  if [[ ! -f $folder/build.ninja || $root/CMakePresets.json -nt $folder/CMakeCache.txt || $# -gt 0 ]]; then
    step -q "configure $preset" "scripts/setup.sh installs what is missing; rm -r build/$preset starts afresh" \
      cmake -S "$root" --preset "$preset" "$@"
  fi
}

# compile PRESET [TARGET...]: configures and builds. Concurrent scripts take turns.
compile() {
  local preset=$1 targets=() lock
  exec {lock}>"$root/build/$1.lock"
  flock "$lock"
  shift
  [[ $# -eq 0 ]] || targets=(--target "$@")
  configure "$preset"
  step "build $preset" "look for the first line with 'error' in the log" \
    cmake --build "$root/build/$preset" "${targets[@]}"
  exec {lock}>&-
}
