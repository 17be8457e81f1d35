#include "render/spectrogram.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace lumbrel::render {

namespace {

using Layout = SpectrogramLayout;
constexpr std::size_t fftSize = 8192; // 5.9 Hz bins at 48 kHz: the lowest octave still resolves

// In-place radix-2 FFT; the picture needs nothing faster.
void fft(std::vector<std::complex<float>> &x) {
	const std::size_t n = x.size();
	for (std::size_t i = 1, j = 0; i < n; ++i) {
		std::size_t bit = n >> 1;
		for (; j & bit; bit >>= 1) j ^= bit;
		j ^= bit;
		if (i < j) std::swap(x[i], x[j]);
	}
	for (std::size_t length = 2; length <= n; length <<= 1) {
		const double angle = -2 * M_PI / double(length);
		for (std::size_t start = 0; start < n; start += length) {
			for (std::size_t k = 0; k < length / 2; ++k) {
				const auto w = std::complex<float>(std::polar(1.0, angle * double(k)));
				const auto a = x[start + k], b = x[start + k + length / 2] * w;
				x[start + k] = a + b;
				x[start + k + length / 2] = a - b;
			}
		}
	}
}

// Black through violet, red and orange to white: 256 levels.
std::array<std::array<std::uint8_t, 3>, 256> palette() {
	const float stops[][4] = {{0, 0, 0, 0}, {0.25f, 60, 10, 110}, {0.5f, 180, 30, 90}, {0.75f, 250, 140, 20},
		{1, 255, 255, 230}};
	std::array<std::array<std::uint8_t, 3>, 256> colours{};
	for (int i = 0; i < 256; ++i) {
		const float t = float(i) / 255;
		int s = 0;
		while (s < 3 && t > stops[s + 1][0]) ++s;
		const float u = (t - stops[s][0]) / (stops[s + 1][0] - stops[s][0]);
		for (int c = 0; c < 3; ++c) colours[i][c] = std::uint8_t(stops[s][c + 1] + u * (stops[s + 1][c + 1] - stops[s][c + 1]));
	}
	return colours;
}

// One panel: rows of palette indices, the top row the highest frequency.
void drawPanel(const std::vector<float> &samples, double sampleRate, std::uint8_t *pixels) {
	std::vector<float> window(fftSize);
	for (std::size_t i = 0; i < fftSize; ++i) window[i] = float(0.5 - 0.5 * std::cos(2 * M_PI * double(i) / fftSize));
	// A full-scale sine gives a peak of fftSize / 4 through the Hann window.
	const double fullScale = fftSize / 4.0;
	// Each row covers the bins between its lower and upper edge frequency.
	std::vector<std::pair<std::size_t, std::size_t>> rows(Layout::panelHeight);
	const double binHz = sampleRate / fftSize, ratio = std::log(Layout::highHz / Layout::lowHz);
	for (int r = 0; r < Layout::panelHeight; ++r) {
		const double low = Layout::lowHz * std::exp(ratio * r / Layout::panelHeight);
		const double high = Layout::lowHz * std::exp(ratio * (r + 1) / Layout::panelHeight);
		const auto first = std::size_t(std::lround(low / binHz));
		rows[std::size_t(r)] = {first, std::max(first + 1, std::size_t(std::lround(high / binHz)))};
	}
	std::vector<std::complex<float>> spectrum(fftSize);
	const double hop = double(samples.size()) / Layout::width;
	for (int x = 0; x < Layout::width; ++x) {
		const auto centre = std::ptrdiff_t((x + 0.5) * hop);
		for (std::size_t i = 0; i < fftSize; ++i) {
			const std::ptrdiff_t at = centre - std::ptrdiff_t(fftSize / 2) + std::ptrdiff_t(i);
			const float v = at >= 0 && at < std::ptrdiff_t(samples.size()) ? samples[std::size_t(at)] : 0.0f;
			spectrum[i] = v * window[i];
		}
		fft(spectrum);
		for (int r = 0; r < Layout::panelHeight; ++r) {
			float peak = 0;
			for (std::size_t b = rows[std::size_t(r)].first; b < rows[std::size_t(r)].second && b < fftSize / 2; ++b) {
				peak = std::max(peak, std::abs(spectrum[b]));
			}
			const double db = 20 * std::log10(std::max(double(peak) / fullScale, 1e-12));
			const double level = std::clamp(1 - db / Layout::floorDb, 0.0, 1.0);
			pixels[std::size_t(Layout::panelHeight - 1 - r) * Layout::width + std::size_t(x)] = std::uint8_t(level * 255);
		}
	}
}

std::uint32_t crc32(const std::uint8_t *data, std::size_t size, std::uint32_t crc = 0) {
	crc = ~crc;
	for (std::size_t i = 0; i < size; ++i) {
		crc ^= data[i];
		for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
	}
	return ~crc;
}

void put32(std::vector<std::uint8_t> &out, std::uint32_t v) {
	for (int shift = 24; shift >= 0; shift -= 8) out.push_back(std::uint8_t(v >> shift));
}

void chunk(std::vector<std::uint8_t> &png, const char *type, const std::vector<std::uint8_t> &data) {
	put32(png, std::uint32_t(data.size()));
	const std::size_t start = png.size();
	png.insert(png.end(), type, type + 4);
	png.insert(png.end(), data.begin(), data.end());
	put32(png, crc32(png.data() + start, png.size() - start));
}

// An 8-bit palette PNG. The image data is zlib with stored (uncompressed)
// blocks, which needs no compressor: a palette keeps it at a byte a pixel.
std::vector<std::uint8_t> encodePng(const std::vector<std::uint8_t> &pixels, int width, int height) {
	std::vector<std::uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}, header, colours, data;
	put32(header, std::uint32_t(width));
	put32(header, std::uint32_t(height));
	header.insert(header.end(), {8, 3, 0, 0, 0}); // 8 bits, palette
	chunk(png, "IHDR", header);
	for (const auto &c : palette()) colours.insert(colours.end(), c.begin(), c.end());
	chunk(png, "PLTE", colours);

	std::vector<std::uint8_t> raw;
	for (int y = 0; y < height; ++y) {
		raw.push_back(0); // no filter
		raw.insert(raw.end(), pixels.begin() + std::ptrdiff_t(y) * width, pixels.begin() + std::ptrdiff_t(y + 1) * width);
	}
	data = {0x78, 0x01};
	for (std::size_t at = 0; at < raw.size() || at == 0; at += 65535) {
		const auto n = std::uint16_t(std::min<std::size_t>(65535, raw.size() - at));
		data.push_back(at + n >= raw.size() ? 1 : 0);
		data.insert(data.end(), {std::uint8_t(n), std::uint8_t(n >> 8), std::uint8_t(~n), std::uint8_t(~n >> 8)});
		data.insert(data.end(), raw.begin() + std::ptrdiff_t(at), raw.begin() + std::ptrdiff_t(at + n));
	}
	std::uint32_t a = 1, b = 0;
	for (const auto byte : raw) {
		a = (a + byte) % 65521;
		b = (b + a) % 65521;
	}
	put32(data, (b << 16) | a);
	chunk(png, "IDAT", data);
	chunk(png, "IEND", {});
	return png;
}

} // namespace

bool drawSpectrogram(const Audio &audio, const std::string &pngPath, bool &stereo, std::string &error) {
	const auto &channels = audio.channels;
	float peak = 0, difference = 0;
	for (std::size_t i = 0; i < audio.frames(); ++i) {
		peak = std::max(peak, std::abs(channels[0][i]));
		if (channels.size() > 1) difference = std::max(difference, std::abs(channels[0][i] - channels[1][i]));
	}
	stereo = channels.size() > 1 && difference > 1e-3f * peak;
	std::vector<std::vector<float>> panels;
	if (stereo) {
		panels = {channels[0], channels[1]};
	} else {
		std::vector<float> mean(audio.frames(), 0.0f);
		for (const auto &channel : channels) {
			for (std::size_t i = 0; i < mean.size(); ++i) mean[i] += channel[i] / float(channels.size());
		}
		panels = {std::move(mean)};
	}
	const int height = int(panels.size()) * Layout::panelHeight + (int(panels.size()) - 1) * Layout::gap;
	std::vector<std::uint8_t> pixels(std::size_t(height) * Layout::width, 0);
	for (std::size_t p = 0; p < panels.size(); ++p) {
		drawPanel(panels[p], audio.sampleRate,
			pixels.data() + p * std::size_t(Layout::panelHeight + Layout::gap) * Layout::width);
	}
	const auto png = encodePng(pixels, Layout::width, height);
	const std::string temporary = pngPath + ".partial";
	std::FILE *file = std::fopen(temporary.c_str(), "wb");
	const bool ok = file && std::fwrite(png.data(), 1, png.size(), file) == png.size();
	if ((file && std::fclose(file) != 0) || !ok || std::rename(temporary.c_str(), pngPath.c_str()) != 0) {
		std::remove(temporary.c_str());
		error = "cannot write " + pngPath;
		return false;
	}
	return true;
}

} // namespace lumbrel::render
