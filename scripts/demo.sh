#!/usr/bin/env bash
# The main job: sets up, builds, installs Lumbrel.clap to ~/.clap (and
# lumbrel-render and lumbrel-editor to ~/.local/bin), then renders the built-in demo through each
# of the ten effects into demo-out/: <effect>.wav and a spectrogram
# <effect>.png per effect, input.wav/.png, and index.html to hear and see each
# before/after pair in a browser.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
# Node.js and ws, which lumbrel-editor (the editor in a browser) runs on.
scripts/setup-web.sh --runtime
scripts/build.sh
build_dir=${LUMBREL_BUILD_DIR:-build}
cmake --install "$build_dir"

out=demo-out
mkdir -p "$out"
# The demo's first part is a voice, spoken by espeak-ng and brought to the
# demo's 48 kHz by sox; without them the demo sings vowels instead.
voice=()
if command -v espeak-ng > /dev/null && command -v sox > /dev/null; then
	espeak-ng -v en -s 150 -w "$out/.voice-espeak.wav" "Ten spectral effects on one engine."
	# Resampled, with the silence at both ends cut off.
	sox -V1 "$out/.voice-espeak.wav" -r 48000 "$out/voice.wav" \
		silence 1 0.01 0.5% reverse silence 1 0.01 0.5% reverse
	rm -f "$out/.voice-espeak.wav"
	voice=(--voice "$out/voice.wav")
else
	echo "demo: no espeak-ng or sox; the demo's voice is synthesised"
fi
"$build_dir/tools/lumbrel-render" --demo "$out" "${voice[@]}" "$HOME/.clap/Lumbrel.clap"
# The programs are installed in ~/.local/bin; say so when the shell will not find them.
case ":$PATH:" in
*":$HOME/.local/bin:"*) ;;
*) echo "demo: lumbrel-render and lumbrel-editor are in ~/.local/bin, which is not on your PATH;" \
	"add it (e.g. echo 'export PATH=\"\$HOME/.local/bin:\$PATH\"' >> ~/.bashrc) or run them as ~/.local/bin/lumbrel-render" ;;
esac
