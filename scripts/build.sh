#!/usr/bin/env bash
# Configures and builds everything (bundle, tools, tests, benchmarks) in build/.
# Extra arguments go to CMake's configure step.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${LUMBREL_BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release "$@"
cmake --build "$build_dir" -j "$(nproc)"
