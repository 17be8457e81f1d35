#!/usr/bin/env bash
# Sets up, builds and runs every test, printing each stage's time. Exits
# non-zero if any test fails. What CI runs.
#
# Lengths: LUMBREL_STRESS_SECONDS (automation stress, seconds of audio per
# plug-in and rate; default 5) and LUMBREL_FUZZ_SECONDS (each fuzz target;
# default 30).
set -euo pipefail
cd "$(dirname "$0")/.."
export LUMBREL_STRESS_SECONDS=${LUMBREL_STRESS_SECONDS:-5}
build_dir=${LUMBREL_BUILD_DIR:-build}

report=()
stage() {
	local name=$1 start=$SECONDS
	shift
	echo "test.sh: ---- $name"
	"$@"
	report+=("$(printf '%-28s %4d s' "$name" $((SECONDS - start)))")
	echo "test.sh: $name took $((SECONDS - start)) s"
}
trap 'echo "test.sh: stage times:"; printf "  %s\n" "${report[@]}"' EXIT

stage "setup" scripts/setup.sh
# Node.js, Chromium and the page's npm packages: the page tests, and the
# ctest tests that run lumbrel-editor and the demo page.
stage "web setup" scripts/setup-web.sh
stage "build (Release)" scripts/build.sh
stage "C++ tests (ctest)" ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)"
# The editor page: codec, templating library, the page in jsdom and in Chromium.
stage "page tests" scripts/test-web.sh
# One clang tree under AddressSanitizer and UndefinedBehaviorSanitizer, with
# coverage for libFuzzer: the whole C++ suite, then every fuzz target; and the
# threaded web tests under ThreadSanitizer.
stage "sanitizers and fuzzing" scripts/test-sanitizers.sh
# The macOS bundle, cross-built, and checked as a Mac host would see it.
stage "macOS bundle" scripts/build-macos.sh
stage "macOS bundle checks" scripts/check-macos-bundle.sh
# The macOS Accelerate code run on Linux against vDSP/vForce as documented.
stage "Accelerate path" scripts/test-accelerate-path.sh
# The portable signal path built for arm64 and run under qemu-aarch64.
stage "arm64 under QEMU" scripts/test-arm64.sh
