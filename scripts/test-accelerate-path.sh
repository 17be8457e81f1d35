#!/usr/bin/env bash
# The macOS platform files (Accelerate FFT and row arithmetic) built on Linux
# over the test-only vDSP/vForce of tests/linear/accelerate_reference.cpp, and
# the FFT, STFT, vector, engine and effect tests run over them with the same
# bounds as the Linux path. Tree: build-accelerate/.
set -euo pipefail
cd "$(dirname "$0")/.."
start=$SECONDS
dir=build-accelerate
cmake -S . -B $dir -DCMAKE_BUILD_TYPE=Release -DLUMBREL_ACCELERATE_REFERENCE=ON \
  -DLUMBREL_BENCHMARKS=OFF -DLUMBREL_TOOLS=OFF >/dev/null
for folder in linear engine effects; do
  make -s -C $dir/tests/$folder -j "${LUMBREL_JOBS:-2}" all
done
ctest --test-dir $dir -R '^(linear_|lumbrel_engine_tests|effects_)' --output-on-failure -j "${LUMBREL_JOBS:-2}"
echo "test-accelerate-path: passed in $((SECONDS - start)) s"
