#!/usr/bin/env bash
# Builds and runs the whole C++ test suite again under AddressSanitizer and
# UndefinedBehaviorSanitizer (build-asan/), then the threaded web tests under
# ThreadSanitizer (build-tsan/). Exits non-zero on any failure or sanitizer
# report. Part of scripts/test.sh, and so of CI. The stress test runs a
# shorter pass here (LUMBREL_STRESS_SECONDS, default 10 s of audio per plug-in
# and rate).
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${LUMBREL_ASAN_BUILD_DIR:-build-asan}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMBREL_SANITIZE=address,undefined \
  -DLUMBREL_BENCHMARKS=OFF
cmake --build "$build_dir" -j "$(nproc)"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export LUMBREL_STRESS_SECONDS=${LUMBREL_STRESS_SECONDS:-10}
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)"

# ThreadSanitizer (build-tsan/): the web tests, where the audio and the main
# thread meet in the message ring. Only their targets are built.
tsan_tests=(web_message_ring_threads_test web_bridge_test web_saved_state_test)
tsan_dir=${LUMBREL_TSAN_BUILD_DIR:-build-tsan}
cmake -S . -B "$tsan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMBREL_SANITIZE=thread \
  -DLUMBREL_BENCHMARKS=OFF -DLUMBREL_TOOLS=OFF
cmake --build "$tsan_dir" -j "$(nproc)" --target "${tsan_tests[@]}"
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
for test in "${tsan_tests[@]}"; do
  echo "ThreadSanitizer: $test"
  "$tsan_dir/tests/web/$test"
done
