#include "engine/engine_windows.h"

#include <cmath>

namespace varkesh::lumbrel {

namespace {
constexpr double pi = 3.14159265358979323846;
}

void fillAnalysisWindow(float *window, std::size_t length, std::size_t interval) {
	if (length == 0) return;
	double r = double(float(length) / float(interval));
	double c = r * -0.6944444444444444; // -25/36 of the overlap
	double e1 = std::exp(c), e9 = std::exp(-6.25 * r), e4 = std::exp(-2.7777777777777777 * r);
	double m = e1 / (e9 + e1);
	double p = 1 - 2 * m * e4;
	auto gauss = [c](double u) { return std::exp(c * u * u); };

	window[0] = 0;
	if (double(length) - 1 < 1) return;
	double span = double(length - 1);
	for (std::size_t j = 1; j < length; ++j) {
		double x = double(2 * j - 1) / span;
		window[j] = float((gauss(x - 1) - m * (gauss(x - 3) + gauss(x + 1))) / p);
	}
}

void fillSynthesisWindow(float *window, std::size_t length, std::size_t interval) {
	float centre = float(interval);
	float invInterval = 1 / float(interval);
	for (std::size_t i = 0; i < length; ++i) {
		float u = (float(i) - centre) * invInterval;
		window[i] = std::abs(u) >= 1 ? 0.0f : float(std::cos(double(u) * pi)) + 1;
	}
}

} // namespace varkesh::lumbrel
