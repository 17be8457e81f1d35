#!/usr/bin/env bash
# Installs what Lumbrel needs to build and test on Debian 12, with apt, when it
# is missing. Safe to run again: packages already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
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
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all build dependencies present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
