#include "engine/emphasis_shelf.h"

#include <algorithm>
#include <cmath>
#include <complex>

namespace varkesh::lumbrel {

namespace {
constexpr double pi = 3.14159265358979323846;
}

void designEmphasisShelf(Shelf &shelf, double gainDb, float sampleRate) {
	double f = std::clamp(1200 / double(sampleRate), 1e-6, 0.4999);
	double w = 2 * pi * f;
	double A = std::pow(10.0, gainDb * 0.025);
	double t = std::tan(f * pi / 2);
	double sinW = std::sin(w), c = std::cos(w);
	double k = (c + 1) * t / sinW;
	double h = 0.5 / k - 0.5 * k;
	double v = sinW * std::sqrt(A) * 2 * h;

	float b0 = float(((A + 1) + (A - 1) * c + v) * A);
	float b2 = float(((A + 1) + (A - 1) * c - v) * A);
	float b1 = float(-2 * A * ((A + 1) * c + (A - 1)));
	double a0 = (A + 1) - (A - 1) * c + v;
	double a2 = (A + 1) - (A - 1) * c - v;
	double a1 = 2 * ((A - 1) - (A + 1) * c);

	double norm = 1 / a0;
	shelf.b0 = float(double(b0) * norm);
	shelf.b1 = float(double(b1) * norm);
	shelf.b2 = float(double(b2) * norm);
	shelf.a1 = float(a1 * norm);
	shelf.a2 = float(a2 * norm);
}

void fillFlatten(float *table, std::size_t fftBins, std::size_t fftSamples, const Shelf &shelf) {
	float binToRadians = 1 / float(fftSamples) * 6.2831855f;
	for (std::size_t k = 0; k < fftBins; ++k) {
		float w = float(k) * binToRadians;
		float cosW = std::cos(w), sinW = std::sin(w);
		float cos2W = cosW * cosW - sinW * sinW, sin2W = 2 * sinW * cosW;
		std::complex<float> num{shelf.b0 + shelf.b1 * cosW + shelf.b2 * cos2W, -(shelf.b1 * sinW + shelf.b2 * sin2W)};
		std::complex<float> den{1 + shelf.a1 * cosW + shelf.a2 * cos2W, -(shelf.a1 * sinW + shelf.a2 * sin2W)};
		std::complex<float> response = num / den;
		table[k] = 1 / std::hypot(response.real(), response.imag());
	}
}

} // namespace varkesh::lumbrel
