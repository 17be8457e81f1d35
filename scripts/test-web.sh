#!/usr/bin/env bash
# Sets up and runs the editor page's tests: the CBOR codec, the templating
# library and the page in Node (jsdom), then the page in headless Chromium
# against a fake effect. One run of Node's test runner, so its closing
# "# pass N" / "# fail N" lines count everything. Exits non-zero on failure.
# Screenshots go to build-page/screenshots, or to $LUMBREL_WEB_OUT.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-web.sh
node --test --test-concurrency=1 \
  tests/web/page/cbor.test.mjs \
  tests/web/page/zelmar.test.mjs \
  tests/web/page/page.test.mjs \
  tests/web/page/browser.test.mjs
