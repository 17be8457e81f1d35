#!/usr/bin/env bash
# lumbrel-editor installed into a home of its own and run from outside the
# repository, $BROWSER stubbed by a program that fetches the page it is handed.
# Usage: editor_command_test.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
repo=$(cd "$(dirname "$0")/../../.." && pwd)
if [ ! -f "$repo/node_modules/ws/package.json" ] || ! command -v node > /dev/null; then
	echo "skipped: needs Node.js and node_modules/ws (scripts/setup-web.sh --runtime)"
	exit 77
fi
root=$(mktemp -d)
pid=
trap '[ -n "$pid" ] && kill "$pid" 2> /dev/null; rm -rf "$root"' EXIT
fail() { echo "FAIL: $*"; cat "$root/out.txt" "$root/err.txt" 2> /dev/null; exit 1; }

DESTDIR=$root cmake --install "$build" > "$root/install.log"
editor=$(find "$root" -path '*/bin/lumbrel-editor' -type f)
bundle=$(find "$root" -name Lumbrel.clap -type f)
[ -x "$editor" ] && [ -f "$bundle" ] || fail "the install holds no lumbrel-editor or Lumbrel.clap"
home=$(dirname "$(dirname "$bundle")") # .../.clap/Lumbrel.clap

cat > "$root/browser" << 'STUB'
#!/bin/sh
node -e 'fetch(process.argv[1]).then((r) => r.text()).then((t) => require("fs").writeFileSync(process.argv[2], t))' "$1" "$BROWSER_PAGE.part"
echo "$1" > "$BROWSER_PAGE.url"
mv "$BROWSER_PAGE.part" "$BROWSER_PAGE"
STUB
chmod +x "$root/browser"
cd "$root"
run() { env -i HOME="$home" PATH="$(dirname "$editor"):/usr/local/bin:/usr/bin:/bin" \
	BROWSER="$root/browser" BROWSER_PAGE="$root/page.html" "$@"; }

run lumbrel-editor --help | grep -q "lumbrel-editor swell" || fail "--help shows no example"
run lumbrel-editor --list | grep -q "varkesh.lumbrel.swell" || fail "--list lacks swell"
! run lumbrel-editor no-such-effect 2> "$root/err.txt" && [ "$(wc -l < "$root/err.txt")" = 1 ] || fail "an unknown effect started, or did not say so in one line"

# The one command of the README, a simple command so that $! is the program's.
env -i HOME="$home" PATH="$(dirname "$editor"):/usr/local/bin:/usr/bin:/bin" \
	BROWSER="$root/browser" BROWSER_PAGE="$root/page.html" lumbrel-editor swell > "$root/out.txt" 2> "$root/err.txt" &
pid=$!
for _ in $(seq 100); do
	[ -f "$root/page.html" ] && break
	kill -0 "$pid" 2> /dev/null || fail "lumbrel-editor stopped"
	sleep 0.2
done
[ -f "$root/page.html" ] || fail "no browser was opened within 20 s"
grep -q "?ws=" "$root/page.html.url" && grep -qi "<html" "$root/page.html" || fail "no page, or no WebSocket port in $(cat "$root/page.html.url")"
grep -q "Lumbrel: Swell" "$root/out.txt" || fail "no line names the effect"
kill -TERM "$pid" # as Ctrl-C in its terminal: both stop it in order
wait "$pid" || fail "it did not stop cleanly"
pid=
echo "lumbrel-editor: installed, --help, --list, and the editor served to the browser"
