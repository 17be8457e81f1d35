#include "render/parameter_docs.h"

#include "host/host.h"
#include "host/instance.h"
#include "render/param_table.h"

#include <cctype>
#include <map>

namespace lumbrel::render {

namespace {

// What each parameter does, by key path; "plugin/keyPath" where one key path
// means different things in two plug-ins. The plug-ins carry no such text.
const std::map<std::string, std::string> &descriptions() {
	static const std::map<std::string, std::string> text = {
		{"engineConfig.latencyMs", "How long the sound is delayed. Shorter plays more tightly; longer hears low notes more precisely."},
		{"engineConfig.overlap", "How many analysis windows overlap. More follows changes more finely and costs more CPU."},
		{"engineConfig.resolution", "Bands per unit of the engine's frequency scale. More separates close partials and costs more CPU."},
		{"engineConfig.iterationsLog2", "Refinement passes per analysis. More is more precise and costs more CPU."},
		{"engineConfig.directCopy", "Pass the input straight to the output where the effect changes nothing, instead of resynthesising it."},
		{"channelMode", "\"mono\" analyses the channels together and treats them alike; \"full\" treats each channel apart."},
		{"peaksConfig.smoothing", "Smoothing of the spectrum before it is cut into peaks: more finds fewer, broader peaks."},
		{"gainsConfig.phaseSmoothing", "Smoothing of the phase changes across neighbouring bands."},
		{"gainsConfig.detailBoost", "Boosts bands whose phase may be misaligned, to keep detail; negative values soften them."},
		{"gainsConfig.transientReset", "How strongly phases reset when new energy arrives: keeps attacks sharp."},
		{"gainsConfig.transientBoost", "Extra level on attacks."},
		{"peakShifterConfig.semitones", "The pitch shift, in semitones; \"none\" leaves the pitch."},
		{"peakShifterConfig.tonalityLimit", "Above this frequency the spectrum is left unshifted (mostly noise and air)."},
		{"timbreConfig.smoothing", "How broad the spectral envelope that timbre correction holds in place is."},
		{"timbreCorrection", "How much of the original timbre (formants) is kept when the pitch moves: 0 none, higher keeps more."},
		{"octaves.gainD2", "Level of the copy two octaves down."},
		{"octaves.gainD1", "Level of the copy one octave down."},
		{"octaves.gainU1", "Level of the copy one octave up."},
		{"octaves.gainU2", "Level of the copy two octaves up."},
		{"octaver/mix", "Balance of the dry sound and the octave copies."},
		{"octaver/sweep", "Moves all copies together from the input's pitch (0) to their full octave distance (1)."},
		{"nrMode", "\"noise\" learns a noise print from what plays; \"static\" removes the learnt print; \"adaptive\" follows the noise by itself."},
		{"nrCleanup", "How hard the noise is removed."},
		{"nrMix", "Balance of the input and the cleaned sound."},
		{"chorus/chorusConfig.detune", "How far each partial's pitch wanders."},
		{"chorus/chorusConfig.antiWarble", "Holds the wandering of neighbouring partials together, against a warbling sound."},
		{"chorus/chorusConfig.width", "Stereo width: 0 moves both channels alike, higher lets them wander apart."},
		{"chorus/chorusConfig.mix", "Level of the chorus against the dry sound."},
		{"chorus-detune/chorusConfig.mix", "Level of the chorus voices against the dry sound."},
		{"chorus-detune/chorusConfig.detune", "How far the three voices are detuned."},
		{"chorus-detune/chorusConfig.spin", "Speed of the oscillator that detunes the voices."},
		{"chorus-detune/chorusConfig.width", "Stereo spread of the voices."},
		{"chorus-detune/chorusConfig.crisp", "\"smooth\" or \"crisp\" voices: crisp keeps attacks sharper."},
		{"envelopeConfig.smoothing", "Smoothing of each band's level across frequency before attack, body and sustain are told apart."},
		{"envelopeConfig.periodMs", "The time scale that separates attack from body and body from sustain."},
		{"gains.attack", "Level of the attacks: above 1 punchier, below 1 softer."},
		{"gains.body", "Level of the body of each sound."},
		{"gains.sustain", "Level of the sustain and the room: below 1 drier."},
		{"swell.time", "How long a new sound takes to swell in."},
		{"swell.sweep", "Tilts the swell time across frequency, from one end of the spectrum to the other; 0 swells all bands alike."},
		{"swell.focus", "How much the energy around a band is discounted, so that the swell acts on what stands out: 0 none."},
		{"swell.autoGain", "The most a band may be lifted back as its sound swells in."},
		{"decay.smoothing", "Smoothing of the spectrum across frequency before tonal parts are told from noise."},
		{"decay.tonalLimit", "How tonal a band must be to have its decay changed; noisier bands pass."},
		{"decay.rt20", "The longest decay the memory follows: the time to fall 20 dB."},
		{"decay.rangeDb", "How far the memory may sit above the present level: the most the decay is lifted."},
		{"decay.factor", "How fast ringing notes decay: 1 as played, below 1 slower (0 holds them, within the range), above 1 faster."},
		{"chordConfig.baseNote", "The root of the chord that partials are pulled to."},
		{"chordConfig.mode", "The chord or scale on the root; MIDI notes played to the plug-in take the place of the chord."},
		{"chordConfig.snapSemitones", "The farthest a partial is moved to reach a note."},
		{"chordConfig.maxHz", "Partials above this frequency are left alone."},
		{"chordConfig.hz3", "Above this frequency a partial may also snap to a note's third harmonic."},
		{"chordConfig.hz5", "Above this frequency a partial may also snap to a note's fifth harmonic."},
		{"shepard-drop/semitones", "The shift; moving it a whole octave returns to the same sound, so it can fall or rise without end."},
		{"shepard.octaveOverlap", "Width, in octaves, of the bell that fades the four octave copies in and out."},
		{"shepard.sensitivity", "How much moving the shift widens the bell of copies: more, the faster it moves."},
		{"shepard.smoothTime", "Time, in seconds, over which the bell follows how fast the shift moves."},
	};
	return text;
}

std::string cell(std::string text) {
	std::string out;
	for (const char c : text) out += c == '|' ? std::string("\\|") : std::string(1, c);
	return out.empty() ? "—" : out;
}

// The unit of a printed value: what follows the number.
std::string unitOf(const std::string &printed) {
	std::size_t p = 0;
	if (p < printed.size() && printed[p] == '-') ++p;
	while (p < printed.size() && (std::isdigit(static_cast<unsigned char>(printed[p])) || printed[p] == '.')) ++p;
	if (p == 0) return "";
	const auto first = printed.find_first_not_of(' ', p);
	return first == std::string::npos ? "" : printed.substr(first);
}

} // namespace

std::string parameterReference(const host::Bundle &bundle) {
	std::string page = "# Parameters\n\n"
					   "Every setting of every Lumbrel effect, as hosts, the editors and `lumbrel-render` show it.\n"
					   "Made by `lumbrel-render --list --markdown` from the plug-ins themselves: do not edit by hand.\n"
					   "The key path names a parameter for `lumbrel-render --set` and in saved states;\n"
					   "the range and default are the texts the plug-in prints.\n";
	for (std::uint32_t i = 0; i < bundle.count(); ++i) {
		const auto *d = bundle.descriptor(i);
		if (!d) continue;
		host::Host host;
		host::Instance instance(bundle, d->id, host);
		if (!instance.valid() || !instance.init()) continue;
		const ParamTable table(instance);
		const std::string id = d->id, shortId = id.substr(id.rfind('.') + 1);
		page += "\n## " + std::string(d->name) + "\n\n`" + id + "`\n\n";
		page += "| Key path | Name | Range | Unit | Default | What it does |\n|---|---|---|---|---|---|\n";
		for (const auto &entry : table.entries()) {
			const std::string defaultText = table.text(entry, entry.info.default_value);
			const std::string unit = entry.stepped() ? "" : unitOf(defaultText);
			auto found = descriptions().find(shortId + "/" + entry.keyPath);
			if (found == descriptions().end()) found = descriptions().find(entry.keyPath);
			page += "| `" + cell(entry.keyPath) + "` | " + cell(entry.info.name) + " | " + cell(table.rangeText(entry)) + " | "
				+ cell(unit) + " | " + cell(defaultText) + " | "
				+ (found == descriptions().end() ? "—" : found->second) + " |\n";
		}
	}
	return page;
}

} // namespace lumbrel::render
