#!/usr/bin/env bash
# Checks the cross-built macOS bundle (scripts/build-macos.sh) as a Mac host
# would find it: one line per problem, non-zero exit if any.
#  - Contents/MacOS/Lumbrel is universal with x86_64 and arm64 slices, each an
#    MH_BUNDLE with a two-level namespace;
#  - it exports exactly _clap_entry and _varkesh_lumbrel_*;
#  - it loads only libSystem, libc++, libobjc, Accelerate, Foundation and WebKit,
#    and every undefined symbol is bound to one of them;
#  - Contents/Info.plist parses and names the executable, identifier, package
#    type BNDL and version 1.0.0; Contents/Resources exists;
#  - the arm64 slice carries an ad hoc code signature (arm64 macOS loads no
#    unsigned code).
set -euo pipefail
cd "$(dirname "$0")/.."
bundle=${1:-build-macos/Lumbrel.clap}
binary=$bundle/Contents/MacOS/Lumbrel
start=$SECONDS
problems=0
fail() { echo "check-macos-bundle: $*" >&2; problems=$((problems + 1)); }

[ -f "$binary" ] || { echo "check-macos-bundle: $binary is missing (run scripts/build-macos.sh)" >&2; exit 1; }
[ -d "$bundle/Contents/Resources" ] || fail "Contents/Resources is missing"

archs=$(llvm-lipo-14 -archs "$binary" | xargs)
[ "$archs" = "x86_64 arm64" ] || fail "slices are '$archs', not 'x86_64 arm64'"

allowed='^/usr/lib/libSystem\.B\.dylib$|^/usr/lib/libc\+\+\.1\.dylib$|^/usr/lib/libobjc\.A\.dylib$|^/System/Library/Frameworks/(Accelerate|Foundation|WebKit)\.framework/Versions/[AC]/(Accelerate|Foundation|WebKit)$'
for arch in x86_64 arm64; do
  header=$(llvm-objdump-14 --macho --arch=$arch --private-header "$binary" | tail -1)
  grep -q ' BUNDLE ' <<< "$header" || fail "$arch: not an MH_BUNDLE: $header"
  grep -q 'TWOLEVEL' <<< "$header" || fail "$arch: no two-level namespace: $header"

  exports=$(llvm-nm-14 --arch=$arch -gU --format=just-symbols "$binary")
  grep -qx '_clap_entry' <<< "$exports" || fail "$arch: _clap_entry is not exported"
  extra=$(grep -vxE '_clap_entry|_varkesh_lumbrel_[A-Za-z0-9_]+' <<< "$exports" || true)
  [ -z "$extra" ] || fail "$arch: exports more than clap_entry and varkesh_lumbrel_*: $(echo $extra | cut -c1-200)"

  dylibs=$(llvm-objdump-14 --macho --arch=$arch --dylibs-used "$binary" | tail -n +2 | awk '{print $1}')
  strange=$(grep -vE "$allowed" <<< "$dylibs" || true)
  [ -z "$strange" ] || fail "$arch: loads a library outside the allowed set: $(echo $strange)"

  unbound=$(llvm-nm-14 --arch=$arch -m -u "$binary" |
    grep -vE '\(from (libSystem|libc\+\+|libobjc|Accelerate|Foundation|WebKit)\)$' || true)
  [ -z "$unbound" ] || fail "$arch: undefined symbols outside the allowed libraries: $(echo $unbound | cut -c1-300)"
  echo "check-macos-bundle: $arch: $(wc -l <<< "$exports") exports, $(wc -l <<< "$dylibs") libraries, $(llvm-nm-14 --arch=$arch -u "$binary" | wc -l) imports"
done

# Info.plist and the arm64 signature: plistlib, and the code signature's
# SuperBlob read by hand (big-endian; CodeDirectory flag 0x2 is ad hoc).
python3 - "$bundle" <<'PY' || problems=$((problems + 1))
import plistlib, struct, sys
bundle = sys.argv[1]
bad = []
try:
    with open(bundle + "/Contents/Info.plist", "rb") as f:
        info = plistlib.load(f)
    want = {"CFBundleExecutable": "Lumbrel", "CFBundlePackageType": "BNDL", "CFBundleShortVersionString": "1.0.0",
            "CFBundleVersion": "1.0.0"}
    for key, value in want.items():
        if info.get(key) != value:
            bad.append(f"Info.plist: {key} is {info.get(key)!r}, not {value!r}")
    if not info.get("CFBundleIdentifier"):
        bad.append("Info.plist: no CFBundleIdentifier")
except Exception as error:
    bad.append(f"Info.plist does not parse: {error}")

data = open(bundle + "/Contents/MacOS/Lumbrel", "rb").read()
magic, count = struct.unpack(">II", data[:8])
slices = {}
for i in range(count if magic == 0xCAFEBABE else 0):
    cputype, _, offset, size, _ = struct.unpack(">iiIII", data[8 + 20 * i:28 + 20 * i])
    slices[cputype] = data[offset:offset + size]
arm = slices.get(0x0100000C)
signed = False
if arm:
    ncmds = struct.unpack("<I", arm[16:20])[0]
    at = 32
    for _ in range(ncmds):
        cmd, size = struct.unpack("<II", arm[at:at + 8])
        if cmd == 0x1D:  # LC_CODE_SIGNATURE
            dataoff, datasize = struct.unpack("<II", arm[at + 8:at + 16])
            blob = arm[dataoff:dataoff + datasize]
            sb_magic, _, n = struct.unpack(">III", blob[:12])
            for j in range(n if sb_magic == 0xFADE0CC0 else 0):
                _, off = struct.unpack(">II", blob[12 + 8 * j:20 + 8 * j])
                cd_magic, _, _, flags = struct.unpack(">IIII", blob[off:off + 16])
                if cd_magic == 0xFADE0C02 and flags & 0x2:
                    signed = True
        at += size
if not signed:
    bad.append("arm64 slice has no ad hoc code signature")
for line in bad:
    print("check-macos-bundle: " + line, file=sys.stderr)
sys.exit(1 if bad else 0)
PY

if [ "$problems" -gt 0 ]; then
  echo "check-macos-bundle: $problems problem(s) in $bundle" >&2
  exit 1
fi
echo "check-macos-bundle: $bundle passes ($((SECONDS - start)) s)"
