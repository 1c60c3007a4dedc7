#!/usr/bin/env bash
# Installs missing packages on a Debian machine, as root, and builds the libraries that the engine links:
#   scripts/setup.sh [GROUP...]     groups: build test demo lint bench fuzz package; "build test" by default
# If nothing is missing, the script takes a fraction of a second.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

# Cross compilers, the interface compiler (widl and the files that it reads), header-only libraries, tools to
# fetch and build source packages, and packages needed to configure the tests.
build=(
  cmake ninja-build g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix
  wine64-tools libwine-dev libwine libcli11-dev libstb-dev nlohmann-json3-dev
  dpkg-dev ca-certificates xz-utils libutfcpp-dev
  googletest python3
)
# Wine, its display and a font for pictures and windows.
wine=(wine64 libwine xvfb fonts-dejavu-core)
# Decoders of Wine's DirectShow. plugins-good reads rarer WAV formats and AVI, and libav reads WMA and WMV. Uncompressed
# files need none.
decoders=(
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly gstreamer1.0-libav
)
# The programs that describe the demo's result.
demo=("${build[@]}" "${wine[@]}" sox sndfile-programs)
# Tools to make and unpack the packages.
package=("${build[@]}" nsis zip unzip)
# The native compiler, and libraries for native builds of the kernels and their tests.
native=(g++ libtag1-dev libgmock-dev)
# Independent programs that check the files the engine reads and writes, and a sound server in place of a sound card.
test=(
  "${build[@]}" "${wine[@]}" "${decoders[@]}" "${native[@]}" clang-format sox sndfile-programs vorbis-tools ffmpeg
  pulseaudio pulseaudio-utils debootstrap "${package[@]}"
)
lint=("${build[@]}" "${native[@]}" clang-format clang-tidy cppcheck)
bench=(
  "${build[@]}" "${wine[@]}" "${native[@]}" libsndfile1-dev libswresample-dev sox sndfile-programs ffmpeg
  vorbis-tools pulseaudio pulseaudio-utils valgrind
)
fuzz=("${build[@]}" "${native[@]}" clang libclang-rt-14-dev)

groups=("$@")
[[ ${#groups[@]} -gt 0 ]] || groups=(build test)
packages=()
for group in "${groups[@]}"; do
  case $group in
    build | demo | test | lint | bench | fuzz | package) declare -n members=$group ;;
    *)
      echo "usage: setup.sh [build|test|demo|lint|bench|fuzz|package ...]" >&2
      exit 2
      ;;
  esac
  packages+=("${members[@]}")
done

missing=()
installed=$(dpkg-query -W -f '${db:Status-Abbrev}${Package}\n' "${packages[@]}" 2>/dev/null || true)
for package in $(printf '%s\n' "${packages[@]}" | sort -u); do
  grep -qxF "ii $package" <<<"$installed" || missing+=("$package")
done

if [[ ${#missing[@]} -gt 0 ]]; then
  [[ $(id -u) -eq 0 ]] ||
    die "packages are missing; install them as root: apt-get install --no-install-recommends ${missing[*]}"
  command -v apt-get >/dev/null || die "packages are missing, and apt-get was not found; install them by hand: ${missing[*]}"
  echo "Installing ${#missing[@]} packages: ${missing[*]}"
  apt() {
    DEBIAN_FRONTEND=noninteractive TMPDIR=/tmp apt-get -y -o DPkg::Lock::Timeout=300 "$@"
  }
  # Ignore an unreachable list. If a package is missing because of it, the installation below fails.
  step -q "read the package lists" "check the network" apt update || true
  step "install packages" "fix the error of apt-get above, then run this again" \
    apt install --no-install-recommends "${missing[@]}"
fi

# Only groups that build native kernels need native libraries.
targets=()
libraries=(libogg libvorbis libsamplerate taglib mpg123 lame flac libebur128)
for group in "${groups[@]}"; do
  [[ $group == fuzz ]] || targets+=(x64 x86)
  [[ $group == build || $group == demo || $group == package ]] || targets+=(native)
  [[ $group != bench ]] || libraries+=(benchmark)
done
"$root/scripts/build-dependencies" --only "${libraries[*]}" "${targets[@]}"
