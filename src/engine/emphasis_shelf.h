#pragma once
// The emphasis shelves around the engine: a high shelf at 1200 Hz lifts the
// input before analysis so that leakage of strong low frequencies into high bins
// stays small; the output shelf has the opposite gain and undoes it. The flatten
// tables take the shelf's magnitude back out of the spectrum, so the effect sees
// a spectrum without emphasis.
#include "linear/biquad.h"

#include <cstddef>

namespace varkesh::lumbrel {

using Shelf = varkesh::filters::BiquadStatic<float, false>;

// Sets the coefficients of a high shelf of `gainDb` (designed in double, stored
// as float); leaves the state alone.
void designEmphasisShelf(Shelf &shelf, double gainDb, float sampleRate);

// table[k] = 1 / |H(e^jw)| at w = 2 pi k / fftSamples, for k below fftBins.
void fillFlatten(float *table, std::size_t fftBins, std::size_t fftSamples, const Shelf &shelf);

} // namespace varkesh::lumbrel
