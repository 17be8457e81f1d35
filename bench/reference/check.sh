#!/bin/sh
# Records what the engine and the ten effects produce, or compares a build with
# such a record. For optimisation work that must not change the sound.
#
#   bench/reference/check.sh save  DIR [BUILD]   record into DIR (keep it outside the repository)
#   bench/reference/check.sh check DIR [BUILD]   compare BUILD with the record in DIR
#
# The record: the engine's bands, frequencies and output on a test signal in six
# settings, and the demo rendered through every effect (with the chorus given a
# fixed seed). The check prints each difference in dB relative to the signal.
set -eu
mode=${1:-}
dir=${2:-}
build=${3:-build}
if [ "$mode" != save ] && [ "$mode" != check ] || [ -z "$dir" ]; then
	echo "usage: $0 save|check DIR [BUILD]" >&2
	exit 1
fi
for f in "$build/bench/reference/lumbrel_reference_check" "$build/bench/reference/liblumbrel_fixed_seed.so" \
	"$build/tools/lumbrel-render" "$build/Lumbrel.clap"; do
	[ -e "$f" ] || { echo "$0: $f is missing; build the targets lumbrel_reference_check lumbrel_fixed_seed lumbrel-render first" >&2; exit 1; }
done
check=$build/bench/reference/lumbrel_reference_check
if [ "$mode" = save ]; then
	out=$dir
else
	[ -d "$dir/demo" ] || { echo "$0: no record in $dir (run: $0 save $dir)" >&2; exit 1; }
	out=$(mktemp -d)
	trap 'rm -rf "$out"' EXIT
fi
mkdir -p "$out"
"$check" bands "$out/engine" >/dev/null
LD_PRELOAD="$(realpath "$build/bench/reference/liblumbrel_fixed_seed.so")" \
	"$build/tools/lumbrel-render" --bundle "$build/Lumbrel.clap" --demo "$out/demo" >/dev/null
if [ "$mode" = save ]; then
	echo "recorded into $dir"
	exit 0
fi
status=0
for ref in "$dir"/engine-*.f32; do
	"$check" compare "$ref" "$out/$(basename "$ref")" || status=1
done
for ref in "$dir"/demo/*.wav; do
	name=$(basename "$ref")
	[ "$name" = input.wav ] && continue
	"$check" compare "$ref" "$out/demo/$name" || status=1
done
exit $status
