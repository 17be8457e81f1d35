#!/usr/bin/env bash
# The portable signal path on 64-bit Arm: built with g++-aarch64-linux-gnu
# (the FFT stages with NEON), GoogleTest from Debian's sources built for the
# same target, and the tests run under qemu-aarch64. Trees in build-arm64/.
# The tests: FFT, STFT and row arithmetic; the engine; the storage (CBOR);
# and the bundle loaded through the host library with two effects measured.
set -euo pipefail
cd "$(dirname "$0")/.."
start=$SECONDS
out=$PWD/build-arm64
jobs=${LUMBREL_JOBS:-2}
toolchain=(-DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/arm64/toolchain.cmake -DCMAKE_BUILD_TYPE=Release)

if [ ! -f "$out/googletest/lib/cmake/GTest/GTestConfig.cmake" ]; then
  echo "test-arm64: GoogleTest for aarch64"
  cmake -S /usr/src/googletest -B "$out/googletest-build" "${toolchain[@]}" \
    -DCMAKE_INSTALL_PREFIX="$out/googletest" >/dev/null
  cmake --build "$out/googletest-build" -j "$jobs" >/dev/null
  cmake --install "$out/googletest-build" >/dev/null
fi

cmake -S . -B "$out/lumbrel" "${toolchain[@]}" -DCMAKE_PREFIX_PATH="$out/googletest" \
  -DLUMBREL_BENCHMARKS=OFF -DLUMBREL_TOOLS=OFF >/dev/null
targets=(linear_tests lumbrel_engine_tests storage_cbor_tests
  effects_spectral_pass_test effects_swell_decay_test)
echo "test-arm64: building ${targets[*]}"
cmake --build "$out/lumbrel" -j "$jobs" --target "${targets[@]}"
built=$SECONDS
# Everything these binaries hold, but the engine's rate and latency grid only
# at 48 kHz and 10 ms (the grid's other points run the same code) and not the
# odd-factor DFT sweep of the portable split layer: QEMU runs about 18 times
# slower than the machine, and the whole stage is kept to about ten minutes.
ctest --test-dir "$out/lumbrel" -R '^(linear_|lumbrel_engine_tests|storage_|effects_spectral_pass|effects_swell_decay)' \
  -E 'RatesLatencies/.*/(44100Hz|96000Hz|48000Hz_2ms|48000Hz_15ms)|SplitFFT\.MatchesDirectDftForOddFactors' \
  --output-on-failure -j "$jobs"
echo "test-arm64: built in $((built - start)) s, tests ran in $((SECONDS - built)) s under qemu-aarch64"
