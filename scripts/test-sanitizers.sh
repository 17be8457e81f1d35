#!/usr/bin/env bash
# The whole C++ test suite again under AddressSanitizer and
# UndefinedBehaviorSanitizer, and every fuzz target, from one clang tree
# (build-asan/, configured by scripts/fuzz.sh: with coverage for libFuzzer, so
# the same objects serve both); then the threaded web tests under
# ThreadSanitizer (build-tsan/). Exits non-zero on any failure or sanitizer
# report. Part of scripts/test.sh, and so of CI.
#
# The stress test runs a shorter pass here (LUMBREL_STRESS_SECONDS, default
# 10 s of audio per plug-in and rate); each fuzz target runs
# LUMBREL_FUZZ_SECONDS (default 30).
set -euo pipefail
cd "$(dirname "$0")/.."
export LUMBREL_FUZZ_BUILD_DIR=${LUMBREL_FUZZ_BUILD_DIR:-$PWD/build-asan}
start=$SECONDS
scripts/fuzz.sh --build-only
cmake --build "$LUMBREL_FUZZ_BUILD_DIR" -j "$(nproc)"
echo "sanitizers: the clang tree built in $((SECONDS - start)) s"

start=$SECONDS
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
LUMBREL_STRESS_SECONDS=${LUMBREL_SANITIZER_STRESS_SECONDS:-10} \
	ctest --test-dir "$LUMBREL_FUZZ_BUILD_DIR" --output-on-failure -j "$(nproc)"
echo "sanitizers: ctest under ASan/UBSan took $((SECONDS - start)) s"

start=$SECONDS
scripts/fuzz.sh "${LUMBREL_FUZZ_SECONDS:-30}"
echo "sanitizers: fuzzing took $((SECONDS - start)) s"

# ThreadSanitizer (build-tsan/): the web tests, where the audio and the main
# thread meet in the message ring. Only their targets are built.
start=$SECONDS
tsan_tests=(web_bridge_test)
tsan_dir=${LUMBREL_TSAN_BUILD_DIR:-build-tsan}
cmake -S . -B "$tsan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMBREL_SANITIZE=thread \
	-DLUMBREL_BENCHMARKS=OFF -DLUMBREL_TOOLS=OFF > /dev/null
cmake --build "$tsan_dir" -j "$(nproc)" --target "${tsan_tests[@]}"
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
for test in "${tsan_tests[@]}"; do
	echo "ThreadSanitizer: $test"
	"$tsan_dir/tests/web/$test"
done
echo "sanitizers: ThreadSanitizer took $((SECONDS - start)) s"
