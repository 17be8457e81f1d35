#!/usr/bin/env bash
# A small mutation check: does the test suite notice when the code is wrong?
#
# Each entry of the list below plants one fault: an exact piece of text in one
# file and what replaces it. The faults are applied one at a time to a copy of
# the tree (build-mutants/tree, built in build-mutants/tree/build with ccache),
# which is rebuilt incrementally; then the fault's own subsystem's tests run,
# then the whole C++ suite (ctest, stopping at the first failure) and the
# page tests, the page tests first for a fault in the page. A fault is killed when a test fails, and survives when everything
# passes. The unchanged copy must pass first. If a text is not found exactly
# once, the script stops before building anything, so the list cannot rot
# quietly when the code moves.
#
#   scripts/mutants.sh [--list] [--only REGEX]
#
# --only runs the faults whose subsystem or name matches REGEX (e.g. --only
# 'storage|web'). The table goes to stdout and to build-mutants/results.md.
# LUMBREL_STRESS_SECONDS (default 5) bounds the automation stress test;
# LUMBREL_MUTANTS_DIR moves the work folder.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

subsystems=() names=() files=() olds=() news=()
# fault SUBSYSTEM NAME FILE OLD NEW
fault() { subsystems+=("$1"); names+=("$2"); files+=("$3"); olds+=("$4"); news+=("$5"); }

# ---- linear: transforms and filters
fault linear "FFT twiddle with the wrong sign" src/linear/platform_fft_linux.cpp \
	'im = float(std::sin(angle));' 'im = float(-std::sin(angle));'
fault linear "real FFT untangling twiddle a quarter turn off" src/linear/real_fft.cpp \
	'float t = float(-0.5 * pi - 2.0 * pi * double(k) / double(size));' \
	'float t = float(0.5 * pi - 2.0 * pi * double(k) / double(size));'
fault linear "forward real FFT: odd-factor twiddles conjugated" src/linear/real_fft.cpp \
	'double angle = -2.0 * pi * double(m * k) / double(halfSize);' \
	'double angle = 2.0 * pi * double(m * k) / double(halfSize);'
fault linear "biquad feedback sign" src/linear/biquad.h \
	'Sample y = b0 * x + b1 * x1 + b2 * x2 - (a1 * y1 + a2 * y2);' \
	'Sample y = b0 * x + b1 * x1 + b2 * x2 + (a1 * y1 + a2 * y2);'
# ---- engine: analysis, synthesis, block loop
fault engine "band rotation with the wrong sign" src/engine/analysis.cpp \
	'float rotatedI = rotR[b] * ti[b] + rotI[b] * tr[b];' 'float rotatedI = rotR[b] * ti[b] - rotI[b] * tr[b];'
fault engine "band interpolation weights swapped" src/engine/analysis.cpp \
	'*lowerWeight = bandFractionBelow.data(), *upperWeight = bandFraction.data();' \
	'*lowerWeight = bandFraction.data(), *upperWeight = bandFractionBelow.data();'
fault engine "reported latency one sample long" src/engine/engine_impl.h \
	'return latencyBlock - latencyReduction; }' 'return latencyBlock - latencyReduction + 1; }'
fault engine "latency reduction read one sample late" src/engine/block_loop.cpp \
	'chunk > latencyReduction ? chunk - latencyReduction : 0;' \
	'chunk > latencyReduction + 1 ? chunk - latencyReduction - 1 : 0;'
fault engine "sleeps before the tail has rung out" src/engine/block_loop.cpp \
	'} else if (silentSamples < windowSamples) {' '} else if (silentSamples < windowSamples / 8) {'
fault engine "scatter: a run's upper sums dropped at the next run" src/engine/engine_impl.h \
	'lower = upper;' 'lower = loadBin(bin + 1);'
fault engine "emphasis shelf gain doubled in dB" src/engine/emphasis_shelf.cpp \
	'double A = std::pow(10.0, gainDb * 0.025);' 'double A = std::pow(10.0, gainDb * 0.05);'
# ---- storage: CBOR
fault storage "CBOR writer: 256 in a one-byte argument" src/storage/cbor_writer.h \
	'} else if (argument < 0x100) {' '} else if (argument <= 0x100) {'
fault storage "CBOR walker refuses 8-byte arguments" src/storage/cbor_walker.h \
	'} else if (additional < 28) {' '} else if (additional < 27) {'
fault storage "CBOR walker reads a float32 as float64" src/storage/cbor_walker.h \
	'if (additional == 26) type = CborType::Float32;' 'if (additional == 26) type = CborType::Float64;'
# ---- frame: parameters
fault frame "range map's curve from the wrong end" src/frame/range_param_info.cpp \
	'rangeC = (lowIn + highIn - 2 * mid) / (mid - highIn);' 'rangeC = (lowIn + highIn - 2 * mid) / (mid - lowIn);'
fault frame "value text rounds where it should truncate" src/frame/range_param_info.cpp \
	'written = std::to_chars(text, text + sizeof(text), static_cast<long long>(d)); // truncates towards zero' \
	'written = std::to_chars(text, text + sizeof(text), std::llround(d));'
fault frame "stepped text clamps to one end only" src/frame/stepped_param_info.cpp \
	'return std::clamp(value, std::min(low, high), std::max(low, high));' \
	'return std::max(value, std::min(low, high));'
# ---- blocks: the toolkit over the engine
fault blocks "envelope rate off by one period" src/blocks/envelope.cpp \
	'r[b] = 1 / (period * r[b] + 1);' 'r[b] = 1 / (period * r[b] + 2);'
fault blocks "peak walk stops on a plateau" src/blocks/peaks.cpp \
	'while (i + 1 < n && e[i + 1] >= e[i]) {' 'while (i + 1 < n && e[i + 1] > e[i]) {'
fault blocks "semitone ratio slightly flat" src/blocks/peak_shifter.h \
	'ratio = std::exp2(semitones * 0.083333336f);' 'ratio = std::exp2(semitones * 0.0825f);'
fault blocks "noise removal wet/dry weights swapped" src/blocks/noise_removal.cpp \
	'gain[b] = gain[b] * wet + (1 - wet);' 'gain[b] = gain[b] * (1 - wet) + wet;'
# ---- effects
fault effects "shepard drop rounds octaves down" src/effects/shepard_drop.h \
	'const float octaves = std::round((position - semitones) / 12);' \
	'const float octaves = std::floor((position - semitones) / 12);'
fault effects "decay scale: 10 dB where 20 dB is meant" src/effects/decay_scale.h \
	'std::exp2(-6.643856f / (subRate * rt20))' 'std::exp2(-3.321928f / (subRate * rt20))'
fault effects "chorus dry level curve" src/effects/chorus.h \
	'const float dry = 1 - 0.5f * mix * mix * (3 - mix);' 'const float dry = 1 - 0.5f * mix * (3 - mix);'
fault effects "frequency snap tuned a quarter semitone off" src/effects/frequency_snap.h \
	'const float hzUp = 440 * std::exp2(noteUp / 12 - 5.75f);' \
	'const float hzUp = 440 * std::exp2(noteUp / 12 - 5.7291667f);'
# ---- clap: the host layer
fault clap "parameter id CRC seed" src/clap/crc32.h \
	'std::uint32_t value = 0xFFFFFFFF;' 'std::uint32_t value = 0xFFFFFFFE;'
fault clap "block cut one frame after the event" src/clap/block_cutting.h \
	'end = header->time > start ? header->time : start; // not clamped to the block' \
	'end = header->time > start ? (header->time + 1 < frames ? header->time + 1 : frames) : start;'
fault clap "note time counted from the block, not the chunk" src/clap/note_events.h \
	'const std::uint64_t offset = header->time > start ? header->time - start : 0;' \
	'const std::uint64_t offset = header->time;'
# ---- web: the link to the page
fault web "message ring ignores overflow" src/web/message_ring.h \
	'if (slot.ready.load()) {' 'if (false && slot.ready.load()) {'
fault web "meter lease never runs out" src/web/meter_lease.h \
	'remainingSamples -= length;' 'remainingSamples -= 0;'
# ---- webview: the editor window's helpers
fault webview "base64 alphabet of URLs" src/webview/base64.cpp \
	'0123456789+/";' '0123456789-_";'
fault webview "media type keeps a fragment in the extension" src/webview/media_type.cpp \
	'std::strcspn(path, "?#");' 'std::strcspn(path, "?");'
# ---- tools: host library and render tool
fault tools "automation interpolation weights swapped" tools/render/automation.cpp \
	'return a.value + (b.value - a.value) * t;' 'return b.value + (a.value - b.value) * t;'
fault tools "key paths take a group's description for a group" tools/host/key_paths.cpp \
	'return key == "name" || key == "desc" || key == "version"; }' 'return key == "name" || key == "version"; }'
# ---- page (JS): codec, templating, page script
fault page "CBOR codec drops booleans" src/web/page/src/cbor.js \
	"case 'boolean': w.u8(v ? 0xf5 : 0xf4); return;" "case 'boolean': w.u8(0xf7); return;"
fault page "CBOR codec: 24 as an immediate" src/web/page/src/cbor.js \
	'if (n < 24) this.u8(m | n);' 'if (n <= 24) this.u8(m | n);'
fault page "templating: a null merge keeps the key" src/web/page/src/zelmar.js \
	$'if (m === null && !keepNulls) {\n        if (had) {' $'if (m === undefined && !keepNulls) {\n        if (had) {'
fault page "stepper goes past its top" src/web/page/src/page.js \
	'function stepUp(d) { d.value = Math.min(d.value + 1, d.high); }' \
	'function stepUp(d) { d.value = Math.min(d.value + 1, d.high + 1); }'
# ---- later additions, at the end so that earlier numbers stay
fault effects "engine built from an unclamped resolution" src/effects/lumbrel_quorl.h \
	'const double resolution = withinRange(engineConfig.resolution.value, 5, 40);' \
	'const double resolution = engineConfig.resolution.value;'

# Replaces OLD by NEW in FILE, which must hold OLD exactly once.
substitute() {
	python3 - "$@" << 'EOF'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding='utf-8').read()
count = text.count(old)
if count != 1:
    sys.exit(f"mutants.sh: {path}: the fault's text is found {count} times, not once: {old}")
if len(sys.argv) > 4:
    open(path, 'w', encoding='utf-8').write(text.replace(old, new))
EOF
}

only='' list=0
while [ $# -gt 0 ]; do
	case "$1" in
	--list) list=1 ;;
	--only) only=${2:?--only needs a pattern}; shift ;;
	*) echo "mutants.sh: unknown argument '$1' (use --list or --only REGEX)" >&2; exit 2 ;;
	esac
	shift
done

selected=()
for i in "${!names[@]}"; do
	if [ -z "$only" ] || [[ "${subsystems[$i]} ${names[$i]}" =~ $only ]]; then selected+=("$i"); fi
done
# Every text must be where the list says, in the tree as it is now.
for i in "${selected[@]}"; do substitute "${files[$i]}" "${olds[$i]}" "${news[$i]}"; done
if [ "$list" = 1 ]; then
	for i in "${selected[@]}"; do printf '%2d  %-8s %-50s %s\n' "$((i + 1))" "${subsystems[$i]}" "${names[$i]}" "${files[$i]}"; done
	exit 0
fi
[ ${#selected[@]} -gt 0 ] || { echo "mutants.sh: no fault matches '$only'" >&2; exit 2; }



work=${LUMBREL_MUTANTS_DIR:-$root/build-mutants}
tree=$work/tree
build=$tree/build
mkdir -p "$tree"
echo "mutants: copying the tree to ${tree#"$root"/}"
# Tracked and new files as they are in the working tree, nothing ignored.
# Files deleted since the last run go too; build/ stays, for the next rebuild.
# Every file is dated now (-m), so that make never trusts an object built
# from an older copy; the compiler cache makes the rebuild cheap.
find "$tree" -mindepth 1 -maxdepth 1 ! -name build ! -name node_modules -exec rm -rf {} +
git ls-files -z --cached --others --exclude-standard | tar --null -T - -cf - | tar -xmf - -C "$tree"
[ -d "$root/node_modules" ] || scripts/setup-web.sh > /dev/null
ln -sfn "$root/node_modules" "$tree/node_modules"

export LUMBREL_STRESS_SECONDS=${LUMBREL_STRESS_SECONDS:-5}
export LUMBREL_BUILD_DIR=$build CI=1
jobs=${LUMBREL_MUTANT_JOBS:-2}

# Builds the whole tree, or only what a folder of the build needs.
rebuild() {
	if [ $# -gt 0 ]; then make -C "$1" -j "$jobs" > "$work/build.log" 2>&1
	else cmake --build "$build" -j "$jobs" > "$work/build.log" 2>&1; fi
}
# The C++ suite; prints the first failing test's name and fails if one fails.
run_ctest() {
	# Without the last run's timings ctest goes in the order the tests are
	# declared, subsystem by subsystem, rather than slowest first: a fault
	# is usually caught in its own subsystem's tests, long before the soak.
	local dir=${1:-$build}
	rm -f "$dir/Testing/Temporary/CTestCostData.txt"
	if ctest --test-dir "$dir" --stop-on-failure -j "$jobs" > "$work/ctest.log" 2>&1; then return 0; fi
	local failed
	failed=$(sed -n 's/^[0-9]*:\(.*\)$/\1/p' "$dir/Testing/Temporary/LastTestsFailed.log" 2> /dev/null | head -n 1)
	echo "${failed:-ctest}"
	return 1
}
run_page() {
	if (cd "$tree" && node --test --test-concurrency=1 tests/web/page/*.test.mjs) > "$work/page.log" 2>&1; then return 0; fi
	local failed
	failed=$(grep -m 1 -o '^ *not ok [0-9]* - .*' "$work/page.log" | sed 's/^ *not ok [0-9]* - //')
	echo "page: ${failed:-node}"
	return 1
}
# Regenerates the page's embedded files after a change to its sources.
page_build() { (cd "$tree" && node src/web/page/build.mjs > /dev/null); }

cmake -S "$tree" -B "$build" -DCMAKE_BUILD_TYPE=Release -DLUMBREL_BENCHMARKS=OFF \
	-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache > "$work/configure.log" 2>&1 ||
	{ cat "$work/configure.log" >&2; exit 1; }
echo "mutants: building and testing the unchanged tree"
start=$SECONDS
rebuild || { tail -n 40 "$work/build.log" >&2; echo "mutants: the unchanged tree does not build" >&2; exit 1; }
if ! failed=$(run_ctest) || ! failed=$(run_page); then
	echo "mutants: the unchanged tree fails ($failed); fix that first (logs in ${work#"$root"/})" >&2
	exit 1
fi
echo "mutants: unchanged tree passes ($((SECONDS - start)) s)"

results=$work/results.md
{
	echo "| # | Subsystem | Fault | File | Result | Caught by | Time |"
	echo "|---|---|---|---|---|---|---|"
} > "$results"
killed=0 survived=0
for i in "${selected[@]}"; do
	file=${files[$i]}
	start=$SECONDS
	cp "$tree/$file" "$work/original"
	substitute "$tree/$file" "${olds[$i]}" "${news[$i]}" apply
	result='' by=''
	if [ "${subsystems[$i]}" = page ]; then
		# The bundle embeds the page: rebuilt first, or the bridge test would
		# see the old page beside the new sources and fail for that alone.
		page_build
		if ! rebuild; then result='build failed'
		elif ! by=$(run_page); then result=killed
		elif ! by=$(run_ctest); then result=killed
		fi
	else
		# The fault's own subsystem's tests first: they are built and run in a
		# fraction of the whole suite's time, and usually catch it.
		if [ -d "$build/tests/${subsystems[$i]}" ] && rebuild "$build/tests/${subsystems[$i]}" &&
			! by=$(run_ctest "$build/tests/${subsystems[$i]}"); then result=killed
		elif ! rebuild; then result='build failed'; by=$(grep -m 1 'error' "$work/build.log" || true)
		elif ! by=$(run_ctest); then result=killed
		elif ! by=$(run_page); then result=killed
		fi
	fi
	if [ -z "$result" ]; then result=SURVIVED by=''; survived=$((survived + 1)); else killed=$((killed + 1)); fi
	cp "$work/original" "$tree/$file"
	[ "${subsystems[$i]}" = page ] && page_build
	line="| $((i + 1)) | ${subsystems[$i]} | ${names[$i]} | \`$file\` | $result | ${by//|/\\|} | $((SECONDS - start)) s |"
	echo "$line" >> "$results"
	echo "mutants: $line"
done
echo "killed $killed of $((killed + survived)), survived $survived" >> "$results"
echo
cat "$results"
# Leaves the copy built as unchanged for the next run.
rebuild || true
[ "$survived" -eq 0 ]
