#!/usr/bin/env bash
# Builds every fuzz target fuzz/<name>_fuzz.cpp with clang's libFuzzer,
# AddressSanitizer and UndefinedBehaviorSanitizer into build-fuzz/, and runs
# each for the given number of seconds (default 60) over a fresh copy of its
# seed corpus fuzz/corpus/<name>/. Exits non-zero if a target fails to build,
# crashes, leaks, times out or breaks one of its own checks.
#
#   scripts/fuzz.sh [seconds]
#
# Extra libFuzzer options can be passed in FUZZ_FLAGS, e.g. FUZZ_FLAGS=-jobs=2.
set -euo pipefail

seconds="${1:-60}"
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
	echo "fuzz.sh: seconds must be a positive whole number, not '$seconds'" >&2
	exit 2
fi

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
out="$root/build-fuzz"
cxx="${CXX_FUZZ:-}"
if [ -z "$cxx" ]; then
	for candidate in clang++ clang++-14; do
		if command -v "$candidate" > /dev/null; then cxx="$candidate"; break; fi
	done
fi
if [ -z "$cxx" ]; then
	echo "fuzz.sh: no clang++ found (Debian: apt-get install clang libclang-rt-14-dev)" >&2
	exit 2
fi

mkdir -p "$out"
shopt -s nullglob
targets=("$root"/fuzz/*_fuzz.cpp)
if [ ${#targets[@]} -eq 0 ]; then
	echo "fuzz.sh: no fuzz/*_fuzz.cpp targets" >&2
	exit 2
fi

failed=0
for source in "${targets[@]}"; do
	target="$(basename "$source" .cpp)"
	name="${target%_fuzz}"
	binary="$out/$target"
	log="$out/$target.log"

	echo "fuzz: building $target"
	if ! "$cxx" -std=c++17 -O1 -g -fno-omit-frame-pointer \
		-fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
		-Wall -Wextra -Wno-unused-parameter \
		-I "$root/src" -I "$root/tests" \
		"$source" -o "$binary"; then
		echo "fuzz: FAILED to build $target" >&2
		failed=1
		continue
	fi

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
	if "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
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
