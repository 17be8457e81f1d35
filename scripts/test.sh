#!/usr/bin/env bash
# Sets up, builds and runs every test. Exits non-zero if any test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh
build_dir=${LUMBREL_BUILD_DIR:-build}
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)"
# The editor page: codec, templating library, the page in jsdom and in Chromium.
scripts/test-web.sh
# Every fuzz target for a bounded time (LUMBREL_FUZZ_SECONDS, default 60 s each).
scripts/fuzz.sh "${LUMBREL_FUZZ_SECONDS:-60}"
# The whole C++ suite again under AddressSanitizer and UndefinedBehaviorSanitizer,
# and the threaded web tests under ThreadSanitizer.
scripts/test-sanitizers.sh
# The macOS bundle, cross-built, and checked as a Mac host would see it.
scripts/build-macos.sh
scripts/check-macos-bundle.sh
# The macOS Accelerate code run on Linux against vDSP/vForce as documented.
scripts/test-accelerate-path.sh
# The portable signal path built for arm64 and run under qemu-aarch64.
scripts/test-arm64.sh
