#!/usr/bin/env bash
# Sets up, builds and runs every test. Exits non-zero if any test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh
build_dir=${LUMBREL_BUILD_DIR:-build}
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)"
