#!/usr/bin/env bash
# Cross-builds the macOS bundle on Linux: build-macos/Lumbrel.clap, one
# universal MH_BUNDLE with an x86_64 slice (macOS 10.13 and later) and an arm64
# slice (macOS 11 and later, ad hoc signed). Needs scripts/setup.sh first.
# Each slice is its own CMake tree (build-macos/x86_64, build-macos/arm64).
set -euo pipefail
cd "$(dirname "$0")/.."
out=build-macos
start=$SECONDS
export ZIG_GLOBAL_CACHE_DIR=$PWD/$out/zig-cache

for arch in x86_64 arm64; do
  echo "build-macos: $arch slice"
  cmake --no-warn-unused-cli -S . -B "$out/$arch" -DCMAKE_TOOLCHAIN_FILE=cmake/macos/toolchain.cmake -DLUMBREL_MACOS_ARCH=$arch \
    -DCMAKE_BUILD_TYPE=Release -DLUMBREL_TESTS=OFF -DLUMBREL_BENCHMARKS=OFF -DLUMBREL_TOOLS=OFF >/dev/null
  cmake --build "$out/$arch" --target lumbrel_bundle -j "${LUMBREL_JOBS:-2}"
done

# The bundle of the arm64 tree (Info.plist from src/clap/Info.plist.in), with
# the two slices joined. lipo copies each slice whole, signature included.
bundle=$out/Lumbrel.clap
rm -rf "$bundle.tmp"
mkdir -p "$bundle.tmp/Contents/MacOS" "$bundle.tmp/Contents/Resources"
cp "$out/arm64/Lumbrel.clap/Contents/Info.plist" "$bundle.tmp/Contents/"
llvm-lipo-14 -create "$out/x86_64/Lumbrel.clap/Contents/MacOS/Lumbrel" "$out/arm64/Lumbrel.clap/Contents/MacOS/Lumbrel" \
  -output "$bundle.tmp/Contents/MacOS/Lumbrel"
rm -rf "$bundle"
mv "$bundle.tmp" "$bundle"
llvm-objdump-14 --macho --universal-headers "$bundle/Contents/MacOS/Lumbrel" |
  awk '/cputype/ { arch = tolower($2); sub("cpu_type_", "", arch) } /^ *size / { printf "build-macos: %s slice %d KiB\n", arch, $2 / 1024 }'
echo "build-macos: $bundle in $((SECONDS - start)) s"
