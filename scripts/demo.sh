#!/usr/bin/env bash
# The main job: sets up, builds, installs Lumbrel.clap to ~/.clap and renders
# the built-in demo through each of the ten effects into demo-out/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh
build_dir=${LUMBREL_BUILD_DIR:-build}
cmake --install "$build_dir"
build/tools/lumbrel-render --demo demo-out "$HOME/.clap/Lumbrel.clap"
