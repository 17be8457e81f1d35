#!/usr/bin/env bash
# Installs what the editor page's build and tests need on Debian 12, with apt
# when missing: Node.js (18 or later) with npm, and Debian's Chromium for the
# browser tests. Then installs the pinned npm packages of package-lock.json
# with `npm ci` in the repository root. Safe to run again.
#
#   scripts/setup-web.sh --runtime   only what the editor bridge (lumbrel-editor)
#                                     runs on: Node.js and the npm package ws
set -euo pipefail
cd "$(dirname "$0")/.."
runtime=false
[ "${1:-}" = "--runtime" ] && runtime=true

missing=()
node_major=0
if command -v node >/dev/null 2>&1; then
  node_major=$(node -p 'process.versions.node.split(".")[0]')
fi
[ "$node_major" -ge 18 ] || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)
$runtime || [ -x "${LUMBREL_CHROMIUM:-/usr/bin/chromium}" ] || missing+=(chromium)

if [ ${#missing[@]} -gt 0 ]; then
  echo "setup-web: installing ${missing[*]}"
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

node_major=$(node -p 'process.versions.node.split(".")[0]')
if [ "$node_major" -lt 18 ]; then
  echo "setup-web: Node.js $(node --version) is too old; 18 or later is needed" >&2
  exit 1
fi

if $runtime; then
  # A full install (the tests') holds ws already; `npm ci` would replace it.
  [ -f node_modules/ws/package.json ] || npm ci --omit=dev --no-audit --no-fund --loglevel=error
  echo "setup-web: node $(node --version), ws $(node -p 'require("./node_modules/ws/package.json").version')"
  exit 0
fi
echo "setup-web: node $(node --version), npm $(npm --version), $("${LUMBREL_CHROMIUM:-/usr/bin/chromium}" --version 2>/dev/null || echo 'chromium ?')"
npm ci --no-audit --no-fund --loglevel=error
