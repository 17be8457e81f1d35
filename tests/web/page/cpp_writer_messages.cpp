// Writes messages shaped like the effect's with the project's own CBOR writer,
// one per line as "name hex", for the page's decoder tests. Built and run by
// cbor.test.mjs when a C++ compiler is at hand; its output is also committed
// as cpp-writer-messages.txt.
#include "storage/cbor_writer.h"

#include <cstdio>
#include <vector>

using varkesh::cbor::CborWriter;

namespace {

void print(const char *name, const std::vector<unsigned char> &bytes) {
	std::printf("%s ", name);
	for (unsigned char b : bytes) std::printf("%02x", b);
	std::printf("\n");
}

// A ParamRange as the page sees it: the eight fields in their order.
void writeRange(CborWriter &w, double value, const char *name, double unit) {
	w.openMap();
	w.addText("value"), w.addFloat(value);
	w.addText("$type"), w.addText("ParamRange");
	w.addText("name"), w.addText(name);
	w.addText("defaultValue"), w.addFloat(10.0);
	w.addText("text"), w.addText("12.5");
	w.addText("textUnits"), w.addText("ms");
	w.addText("gesture"), w.addBool(true);
	w.addText("rangeUnit"), w.addFloat(unit);
	w.addBreak();
}

} // namespace

int main() {
	const float hz[] = {0.0f, 93.75f, 187.5f, 24000.0f};
	const float row0[] = {1.0f, 0.5f, 1e-6f, 0.0f};
	const float row1[] = {0.25f, -2.0f, 3.5e-3f, 1e-30f};

	{ // A parameter update: single-pair maps down to the parameter.
		std::vector<unsigned char> bytes;
		CborWriter w(bytes);
		w.writeHead(5, 1), w.addText("engineConfig");
		w.writeHead(5, 1), w.addText("latencyMs");
		writeRange(w, 12.5, "latency", 0.625);
		print("update", bytes);
	}
	{ // A spectrum: "$type" and "hz" with the first, two energy rows.
		std::vector<unsigned char> bytes;
		CborWriter w(bytes);
		w.writeHead(4, 2), w.addText("meters");
		w.openMap(), w.addText("analysisSpectrum");
		w.openMap();
		w.addText("$type"), w.addText("Spectrum");
		w.addText("hz"), w.addTypedArray(hz, 4, false);
		w.addText("energy"), w.writeHead(4, 2);
		w.addTypedArray(row0, 4, false);
		w.addTypedArray(row1, 4, false);
		w.addBreak();
		w.addBreak();
		print("meters", bytes);
	}
	{ // A reply with a stepped parameter and a group.
		std::vector<unsigned char> bytes;
		CborWriter w(bytes);
		w.writeHead(4, 2), w.addText("state");
		w.openMap();
		w.addText("peakShifterConfig"), w.openMap();
		w.addText("semitones"), w.openMap();
		w.addText("value"), w.addInt(-24);
		w.addText("$type"), w.addText("ParamStepped");
		w.addText("low"), w.addInt(-24);
		w.addText("high"), w.addInt(24);
		w.addText("name"), w.addText("semitones");
		w.addText("text"), w.addText("-24");
		w.addBreak();
		w.addBreak();
		w.addBreak();
		print("reply", bytes);
	}
	{ // Heads at the edges of each width, through the signed integer path.
		std::vector<unsigned char> bytes;
		CborWriter w(bytes);
		const long long values[] = {0, 23, 24, 255, 256, 65535, 65536, 4294967295LL, 4294967296LL,
			9007199254740991LL, -1, -24, -25, -256, -257, -65537, -4294967297LL};
		w.openArray();
		for (long long v : values) w.addInt(v);
		w.addBreak();
		print("integers", bytes);
	}
	{ // Both byte orders of one float array, and an empty one.
		std::vector<unsigned char> bytes;
		CborWriter w(bytes);
		w.writeHead(4, 3);
		w.addTypedArray(row1, 4, true);
		w.addTypedArray(row1, 4, false);
		w.addTypedArray(row1, 0, false);
		print("floatOrders", bytes);
	}
	{ // Text that is not ASCII, doubles that are not floats, and booleans.
		std::vector<unsigned char> bytes;
		CborWriter w(bytes);
		w.openMap();
		w.addText("name"), w.addText("Lumbrel: Pitch Shifter \xE2\x80\x94 \xC3\xBC");
		w.addText("pi"), w.addFloat(3.141592653589793);
		w.addText("tiny"), w.addFloat(-1e-300);
		w.addText("flags"), w.writeHead(4, 2), w.addBool(false), w.addBool(true);
		w.addBreak();
		print("mixed", bytes);
	}
	return 0;
}
