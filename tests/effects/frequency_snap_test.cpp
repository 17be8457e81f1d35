// Frequency snap through the plug-in: detuned partials pulled onto a chord or onto notes held by CLAP note events and
// MIDI (their frequencies, levels, and the sample at which a note acts); its note port.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;
using lumbrel::host::InputEvents;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.frequency-snap";
constexpr double rate = 48000;

double noteHz(double note) { return 440 * std::exp2((note - 69) / 12); }

// A note event at an absolute sample of the signal.
struct Note {
	std::size_t at;
	enum Kind { On, Off, MidiOn, MidiOff } kind;
	int key;
	double velocity = 1; // CLAP 0..1; MIDI 0..127
};

// Output channel 0 of `in` run in blocks of `block` frames, cut also at `cuts`, each note in the block holding its sample.
std::vector<float> play(PluginRunner &runner, const std::vector<float> &in, const std::vector<Note> &notes,
	std::uint32_t block = 1024, std::vector<std::size_t> cuts = {}) {
	return runner.run({in}, block, [&](std::size_t start, std::size_t &end) {
		for (std::size_t cut : cuts) end = cut > start && cut < end ? cut : end;
		for (const Note &note : notes) {
			if (note.at < start || note.at >= end) continue;
			const auto time = std::uint32_t(note.at - start);
			switch (note.kind) {
			case Note::On: runner.events.note(time, CLAP_EVENT_NOTE_ON, std::int16_t(note.key), note.velocity); break;
			case Note::Off: runner.events.note(time, CLAP_EVENT_NOTE_OFF, std::int16_t(note.key), 0.0); break;
			case Note::MidiOn: runner.events.midi(time, 0x90, std::uint8_t(note.key), std::uint8_t(note.velocity)); break;
			case Note::MidiOff: runner.events.midi(time, 0x80, std::uint8_t(note.key), 0); break;
			}
		}
	})[0];
}

constexpr std::size_t window = 16384; // 0.34 s, 2.9 Hz bins

// First sample from which the 5 ms RMS rises above half its level in the 0.5 s before `end`.
std::size_t onsetSample(const std::vector<float> &x, std::size_t end) {
	std::size_t i = 0;
	while (i + 240 < end && rms(x, i, i + 240) <= 0.5 * rms(x, end - 24000, end)) i += 16;
	return i;
}

using FrequencySnap = BundleTest;

} // namespace

// One note input, taking MIDI, for this plug-in alone; the other nine have none.
TEST_F(FrequencySnap, ReportsOneNoteInputPort) {
	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const std::string id = bundle->descriptor(p)->id;
		lumbrel::host::Host host;
		lumbrel::host::Instance instance(*bundle, id.c_str(), host);
		ASSERT_TRUE(instance.init());
		const auto *ports = instance.extension<clap_plugin_note_ports>(CLAP_EXT_NOTE_PORTS);
		ASSERT_NE(ports, nullptr) << id;
		EXPECT_EQ(ports->count(instance.clapPlugin(), false), 0u) << id;
		EXPECT_EQ(ports->count(instance.clapPlugin(), true), id == pluginId ? 1u : 0u) << id;
		clap_note_port_info info{};
		EXPECT_EQ(ports->get(instance.clapPlugin(), 0, true, &info), id == pluginId) << id;
		EXPECT_FALSE(ports->get(instance.clapPlugin(), 1, true, &info)) << id;
		if (id == pluginId) {
			EXPECT_TRUE(info.supported_dialects & CLAP_NOTE_DIALECT_MIDI);
		}
	}
}

// A chord shape with no note held: a sine a third of a semitone off moves onto the nearest chord note. Mode "none": only
// held notes count (CLAP and MIDI), and after the note-offs the sound falls silent. Every partial keeps its level.
TEST_F(FrequencySnap, PartialsSnapOntoTheChordOrTheHeldNotes) {
	struct Case {
		const char *base, *mode;
		std::vector<double> inputHz;
		std::vector<Note> notes;
		std::vector<int> targets;
	};
	const double f0 = noteHz(69.25);
	const std::size_t release = std::size_t(2 * rate);
	const Case cases[] = {{"A", "octave", {noteHz(69.3)}, {}, {69}}, {"A", "octave", {noteHz(80.7)}, {}, {81}},
		{"C", "major", {noteHz(67.35)}, {}, {67}}, {"C", "major", {noteHz(63.7)}, {}, {64}},
		{"D", "minor", {noteHz(65.3)}, {}, {65}},
		{"A", "none", {f0, 2 * f0, 3 * f0}, {{100, Note::On, 69}, {100, Note::On, 73}, {100, Note::On, 76}}, {69, 81, 88}},
		{"A", "none", {noteHz(60.3), noteHz(63.7), noteHz(67.3)},
			{{0, Note::MidiOn, 60, 100}, {0, Note::MidiOn, 64, 100}, {0, Note::MidiOn, 67, 100},
				{release, Note::MidiOff, 60}, {release, Note::MidiOff, 64}, {release, Note::MidiOff, 67}},
			{60, 64, 67}}};
	for (const Case &c : cases) {
		SCOPED_TRACE(testing::Message() << c.base << " " << c.mode << ", " << c.notes.size() << " note events, first partial "
										<< c.inputHz[0] << " Hz");
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		setText(runner, {"chordConfig", "baseNote"}, c.base);
		setText(runner, {"chordConfig", "mode"}, c.mode);
		std::vector<float> in(release + std::size_t(rate), 0.0f);
		for (std::size_t k = 0; k < c.inputHz.size(); ++k) {
			const auto partial = sine(c.inputHz[k], rate, in.size(), 0.1, double(k));
			for (std::size_t i = 0; i < in.size(); ++i) in[i] += partial[i];
		}
		const auto out = play(runner, in, c.notes);
		const std::size_t from = release - window;
		for (std::size_t k = 0; k < c.targets.size(); ++k) {
			const double target = noteHz(c.targets[k]), hz = peakFrequency(out, from, window, target, target * 0.035, rate);
			EXPECT_NEAR(cents(hz, target), 0, 3) << "partial " << k;
			EXPECT_NEAR(dB(magnitudeAt(out, from, window, hz, rate) / magnitudeAt(in, from, window, c.inputHz[k], rate)), 0, 2)
				<< "partial " << k;
		}
		if (c.notes.size() > 3) { // released
			EXPECT_LT(dB(rms(out, out.size() - 12000, out.size()) / rms(out, from, release)), -60);
		}
	}
}

// A note inside a block acts from its own sample: the same notes on block boundaries give the same output, a note-on 700
// samples early starts the sound 700 samples early, and the note-off silences it from its sample on.
TEST_F(FrequencySnap, NotesActAtTheirOwnSample) {
	const auto in = sine(noteHz(69.3), rate, std::size_t(1.5 * rate), 0.2);
	const std::size_t on = 4 * 1024 + 700, off = 40 * 1024 + 333;
	auto run = [&](std::size_t noteOn, std::vector<std::size_t> cuts) {
		PluginRunner runner(*bundle, pluginId);
		EXPECT_TRUE(runner.ok);
		setText(runner, {"chordConfig", "mode"}, "none");
		return play(runner, in, {{noteOn, Note::On, 69, 1.0}, {off, Note::Off, 69}}, 1024, cuts);
	};
	const auto inside = run(on, {});
	const auto onBoundaries = run(on, {on, off});
	const auto early = run(4 * 1024, {});
	double difference = 0, level = 0;
	for (std::size_t i = 0; i < inside.size(); ++i) {
		difference = std::max(difference, double(std::fabs(inside[i] - onBoundaries[i])));
		level = std::max(level, double(std::fabs(inside[i])));
	}
	EXPECT_LT(difference, 1e-6 * level);
	EXPECT_NEAR(double(onsetSample(inside, off)) - double(onsetSample(early, off)), 700, 130);
	const double after = rms(inside, off + 12000, off + 24000), during = rms(inside, off - 12000, off);
	EXPECT_LT(dB(after / during), -60);
}
