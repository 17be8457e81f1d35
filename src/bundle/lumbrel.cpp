// The bundle's front door: the exported entry and the table of plug-ins.
#include "clap/plugin_instance.h"
#include "clap/plugins.h"
#include "effects/chorus.h"
#include "effects/chorus_detune.h"
#include "effects/cleanup.h"
#include "effects/decay_scale.h"
#include "effects/frequency_snap.h"
#include "effects/octaver.h"
#include "effects/pitch_shifter.h"
#include "effects/shepard_drop.h"
#include "effects/swell.h"
#include "effects/transients.h"

#include <clap/clap.h>

namespace {

using namespace varkesh::lumbrel;

::quorl::clap::Plugins plugins;

clap_plugin_descriptor descriptor(const char *id, const char *name) {
	return clap_plugin_descriptor{CLAP_VERSION, id, name, "Varkesh Audio", "", "", "", "1.0.0", "", nullptr};
}

bool clap_init(const char *path) {
	// Hosts may call init again (after deinit, or by mistake without one); the
	// table is made once. Calls into the entry never overlap, so a flag will do.
	static bool registered = false;
	if (registered) return plugins.clap_init(path);
	registered = true;
	plugins.add<PitchShifterQUORL>(descriptor("varkesh.lumbrel.pitch-shifter-layer1", "Lumbrel: Pitch Shifter"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, CLAP_PLUGIN_FEATURE_PITCH_SHIFTER});
	plugins.add<OctaverQUORL>(descriptor("varkesh.lumbrel.octaver", "Lumbrel: Octaver"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, CLAP_PLUGIN_FEATURE_PITCH_SHIFTER});
	plugins.add<CleanupDraft2QUORL>(descriptor("varkesh.lumbrel.cleanup", "Lumbrel (WIP): Cleanup"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, CLAP_PLUGIN_FEATURE_RESTORATION});
	plugins.add<ChorusQUORL>(descriptor("varkesh.lumbrel.chorus", "Lumbrel: Chorus (Spectral)"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, CLAP_PLUGIN_FEATURE_CHORUS});
	plugins.add<ChorusDetuneQUORL>(descriptor("varkesh.lumbrel.chorus-detune", "Lumbrel: Chorus (Pitch-Shifter)"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, CLAP_PLUGIN_FEATURE_CHORUS});
	plugins.add<TransientsQUORL>(descriptor("varkesh.lumbrel.transients", "Lumbrel: Transients"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, CLAP_PLUGIN_FEATURE_TRANSIENT_SHAPER});
	plugins.add<SwellQUORL>(descriptor("varkesh.lumbrel.swell", "Lumbrel: Swell"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT});
	plugins.add<DecayScaleQUORL>(
		descriptor("varkesh.lumbrel.decay-scale", "Lumbrel (Bespoke Effect Example): Decay Scale"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT});
	plugins.add<FrequencySnapQUORL>(
		descriptor("varkesh.lumbrel.frequency-snap", "Lumbrel (Bespoke Effect Example): Frequency Snap"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT});
	plugins.add<ShepardDropQUORL>(
		descriptor("varkesh.lumbrel.shepard-drop", "Lumbrel (Bespoke Effect Example): Shepard Drop"),
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT});
	return plugins.clap_init(path);
}

// Registered plug-ins and the bundle path outlive deinit; they go with the process.
void clap_deinit() {}

const void *clap_get_factory(const char *factoryId) {
	if (factoryId && std::strcmp(factoryId, CLAP_PLUGIN_FACTORY_ID) == 0) return ::quorl::clap::Plugins::factory(plugins);
	return nullptr;
}

} // namespace

extern "C" CLAP_EXPORT const clap_plugin_entry clap_entry = {CLAP_VERSION, clap_init, clap_deinit, clap_get_factory};
