#!/bin/sh
# docs/parameters.md is what the plug-ins say now: fails, with the difference,
# when a parameter changed and the page was not made again.
# Usage: parameters_doc_test.sh LUMBREL_RENDER BUNDLE DOC
now=$(mktemp)
trap 'rm -f "$now"' EXIT
"$1" --bundle "$2" --list --markdown > "$now" || exit 1
if ! diff -u "$3" "$now"; then
	echo "$3 is stale: make it again with lumbrel-render --list --markdown > docs/parameters.md"
	exit 1
fi
