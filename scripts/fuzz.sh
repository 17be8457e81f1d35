#!/usr/bin/env bash
# Builds every fuzz target fuzz/<name>_fuzz.cpp with clang's libFuzzer,
# AddressSanitizer and UndefinedBehaviorSanitizer into build-asan/ (CMake with
# LUMBREL_FUZZ=ON; the same tree, tests included, is the one
# scripts/test-sanitizers.sh runs the C++ suite in), and runs each for the
# given number of seconds (default 30) over a fresh copy of its seed corpus
# fuzz/corpus/<name>/. Exits non-zero if a target fails to build, crashes,
# leaks, times out or breaks one of its own checks.
#
#   scripts/fuzz.sh [seconds]
#   scripts/fuzz.sh --build-only    configures the tree and builds the targets
#
# Extra libFuzzer options can be passed in FUZZ_FLAGS, e.g. FUZZ_FLAGS=-jobs=2.
set -euo pipefail

build_only=0
if [ "${1:-}" = --build-only ]; then build_only=1; set -- 1; fi
seconds="${1:-30}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
	echo "fuzz.sh: seconds must be a positive whole number, not '$seconds'" >&2
	exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
out="${LUMBREL_FUZZ_BUILD_DIR:-$root/build-asan}"
cc="${CC_FUZZ:-}"
cxx="${CXX_FUZZ:-}"
if [ -z "$cxx" ]; then
	for version in "" -14; do
		if command -v "clang++$version" > /dev/null && command -v "clang$version" > /dev/null; then
			cc="clang$version" cxx="clang++$version"
			break
		fi
	done
fi
if [ -z "$cxx" ]; then
	echo "fuzz.sh: no clang++ found (Debian: apt-get install clang libclang-rt-14-dev)" >&2
	exit 2
fi
cc="${cc:-clang}"

shopt -s nullglob
sources=("$root"/fuzz/*_fuzz.cpp)
if [ ${#sources[@]} -eq 0 ]; then
	echo "fuzz.sh: no fuzz/*_fuzz.cpp targets" >&2
	exit 2
fi

# The whole project with coverage for the fuzzer, under AddressSanitizer and
# UndefinedBehaviorSanitizer; the targets themselves add libFuzzer's main. The
# tests and tools are configured too, so that scripts/test-sanitizers.sh finds
# this tree as it left it and builds nothing twice.
echo "fuzz: building ${#sources[@]} targets in ${out#"$root"/}"
mkdir -p "$out"
# The sanitizer runtime as a shared library for every binary: the bundle and
# the editor library are linked with --no-undefined, which clang's static
# runtime (linked into executables only) cannot satisfy.
runtime="$(dirname "$("$cxx" -print-file-name=libclang_rt.asan-x86_64.so)")"
link_flags="-shared-libasan -Wl,-rpath,$runtime"
cmake -S "$root" -B "$out" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
	-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMBREL_SANITIZE=fuzzer-no-link,address,undefined \
	-DCMAKE_CXX_FLAGS="-fsanitize-coverage-ignorelist=$root/fuzz/coverage_ignorelist.txt" \
	-DCMAKE_EXE_LINKER_FLAGS="$link_flags" -DCMAKE_SHARED_LINKER_FLAGS="$link_flags" -DCMAKE_MODULE_LINKER_FLAGS="$link_flags" \
	-DLUMBREL_FUZZ=ON -DLUMBREL_TESTS=ON -DLUMBREL_BENCHMARKS=OFF -DLUMBREL_TOOLS=ON > "$out/configure.log" 2>&1 ||
	{ cat "$out/configure.log" >&2; echo "fuzz: FAILED to configure the build" >&2; exit 1; }
targets=()
for source in "${sources[@]}"; do targets+=("$(basename "$source" .cpp)"); done
if ! cmake --build "$out" -j "$(nproc)" --target "${targets[@]}" > "$out/build.log" 2>&1; then
	tail -n 60 "$out/build.log" >&2
	echo "fuzz: FAILED to build the targets (whole log: $out/build.log)" >&2
	exit 1
fi

[ "$build_only" = 1 ] && exit 0

failed=0
for target in "${targets[@]}"; do
	name="${target%_fuzz}"
	binary="$out/fuzz/$target"
	log="$out/$target.log"

	# libFuzzer adds what it finds to the first corpus folder, so it works
	# on a copy and the seeds in the repository stay as they are.
	corpus="$out/corpus/$name"
	rm -rf "$corpus"
	mkdir -p "$corpus"
	if [ -d "$root/fuzz/corpus/$name" ]; then
		cp "$root/fuzz/corpus/$name"/* "$corpus"/ 2> /dev/null || true
	fi
	artifacts="$out/artifacts/$name/"
	rm -rf "$artifacts"
	mkdir -p "$artifacts"

	echo "fuzz: running $target for ${seconds} s over $(ls "$corpus" | wc -l) seeds (log: ${log#"$root"/})"
	# shellcheck disable=SC2086
	# libFuzzer's own libraries load before the shared runtime; that is harmless here.
	if ASAN_OPTIONS="${ASAN_OPTIONS:-}:verify_asan_link_order=0" "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
		-print_final_stats=1 -artifact_prefix="$artifacts" ${FUZZ_FLAGS:-} "$corpus" > "$log" 2>&1; then
		runs="$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo '?')"
		echo "fuzz: $target passed: $runs runs, corpus now $(ls "$corpus" | wc -l) inputs"
	else
		echo "fuzz: $target FAILED; the last lines of its log:" >&2
		tail -n 40 "$log" >&2
		for crash in "$artifacts"*; do
			echo "fuzz: reproduce with: $binary $crash" >&2
		done
		failed=1
	fi
done
exit "$failed"
