#!/usr/bin/env bash
# Sets up and runs the editor page's tests: the CBOR codec, the templating
# library and the page in Node (jsdom), then the page in headless Chromium
# against every real plug-in of the C++ build through the editor bridge
# (tools/bridge). One run of Node's test runner, so
# its closing "# pass N" / "# fail N" lines count everything. Exits non-zero on
# failure. Screenshots go to build-page/screenshots, or to $LUMBREL_WEB_OUT.
#
# The bridge tests need the C++ build in $LUMBREL_BUILD_DIR (default build/);
# scripts/test.sh builds it first. Without it they are skipped, with a line
# saying so, except under CI, where that fails.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-web.sh
build_dir=${LUMBREL_BUILD_DIR:-build}
if [ ! -x "$build_dir/tools/lumbrel-editor-host" ] || [ ! -e "$build_dir/Lumbrel.clap" ]; then
  echo "test-web: no lumbrel-editor-host or Lumbrel.clap in $build_dir: the bridge tests will be skipped (scripts/build.sh builds them)"
fi
export LUMBREL_BUILD_DIR="$build_dir"
node --test --test-concurrency=1 \
  tests/web/page/cbor.test.mjs \
  tests/web/page/zelmar.test.mjs \
  tests/web/page/page.test.mjs \
  tests/web/page/bridge.test.mjs
