// lumbrelAnalysis: turns the padded STFT rows of one step into band values.
//
// Each low band is an oscillator turning at its own frequency. Its prediction
// is last step's value rotated by one interval and shrunk by `keep`. What the
// STFT shows beyond all predictions (the residual, found in the bin domain by
// placing the bands on bins and convolving with the window's kernel) is shared
// among the low bands in proportion to their recent energy: a closed-form first
// gain, then a few rounds of gradient descent on the squared residual. Each
// band's frequency is then read from the phase of its value against its
// prediction. Above the knee, with directCopy, bands are read from the STFT.
#include "engine/engine_impl.h"

#include <algorithm>

namespace varkesh::lumbrel {

namespace {

// The element-wise passes over the tracked bands, with unaliased rows so that
// they vectorise.
void predictRows(float *__restrict xr, float *__restrict xi, float *__restrict pr, float *__restrict pi,
	float *__restrict e, const float *__restrict tr, const float *__restrict ti, const float *__restrict rotR,
	const float *__restrict rotI, const float *__restrict k, const float *__restrict m, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		float predR = rotR[b] * xr[b] - rotI[b] * xi[b];
		float predI = rotR[b] * xi[b] + rotI[b] * xr[b];
		pr[b] = predR;
		pi[b] = predI;
		xr[b] = k[b] * predR;
		xi[b] = k[b] * predI;
		e[b] = e[b] * (k[b] * k[b]);
		e[b] = e[b] + (tr[b] * tr[b] + ti[b] * ti[b]) * m[b];
	}
}

void measureRows(float *__restrict ar, float *__restrict ai, float *__restrict q, float *__restrict hz,
	float *__restrict zr, float *__restrict zi, float *__restrict inc, const float *__restrict xr,
	const float *__restrict xi, const float *__restrict pr, const float *__restrict pi, const float *__restrict d,
	const float *__restrict nominal, float rate, std::size_t low) {
	for (std::size_t b = 0; b < low; ++b) {
		ar[b] = d[b] * ar[b];
		ai[b] = d[b] * ai[b];
		q[b] = d[b] * q[b];
		ar[b] += 2 * (pr[b] * xr[b] + pi[b] * xi[b]);
		ai[b] += 2 * (pr[b] * xi[b] - pi[b] * xr[b]);
		q[b] = q[b] + ((xr[b] * xr[b] + xi[b] * xi[b]) + (pr[b] * pr[b] + pi[b] * pi[b]));
		hz[b] = nominal[b] + (rate * ai[b]) / (6.2831855f * q[b] + 1e-30f);
		float inv = 1 / (q[b] + 1e-30f);
		zr[b] = ar[b] * inv;
		zi[b] = ai[b] * inv;
		inc[b] = -((zr[b] * zr[b] + zi[b] * zi[b]) + -1.0f);
	}
}

} // namespace

float EngineImpl<float>::gather(const float *paddedRow, std::size_t band) const {
	const float *at = paddedRow + bandBin[band] + padded::before;
	float f = bandFraction[band];
	return (1 - f) * at[0] + f * at[1];
}

void EngineImpl<float>::scatter(float value, std::size_t band, float *paddedRow) const {
	std::size_t bin = bandBin[band];
	if (bin >= fftBins) return;
	float f = bandFraction[band];
	paddedRow[bin + padded::before] += (1 - f) * value;
	if (bin < fftBins - 1) paddedRow[bin + padded::before + 1] += f * value;
}

void EngineImpl<float>::lumbrelAnalysis() {
	if (channelsIn == 0) return;
	std::size_t low = grid.lowBands;
	// Every channel finishes a phase before the next phase begins.
	if (low) {
		for (std::size_t c = 0; c < channelsIn; ++c) trackBands(c);
		for (std::size_t c = 0; c < channelsIn; ++c) predictBands(c);
	}
	for (std::size_t c = 0; c < channelsIn; ++c) resolveBands(c);
	if (low) {
		for (std::size_t c = 0; c < channelsIn; ++c) measureFrequencies(c);
	}
	for (std::size_t c = 0; c < channelsIn; ++c) {
		row(inputImagStorage, c)[0] = 0;
		inputRealTable[c] = row(inputRealStorage, c);
		inputImagTable[c] = row(inputImagStorage, c);
		inputHzTable[c] = row(inputHzStorage, c);
	}
}

// T = mix F + keep (r T): the STFT at the band, smoothed along the band's rotation.
void EngineImpl<float>::trackBands(std::size_t c) {
	const float *sr = padded(spectrumReal, c), *si = padded(spectrumImag, c);
	float *tr = row(trackedReal, c), *ti = row(trackedImag, c);
	for (std::size_t b = 0, low = grid.lowBands; b < low; ++b) {
		float fr = gather(sr, b), fi = gather(si, b);
		float rr = rotateReal[b], ri = rotateImag[b];
		float rotatedR = rr * tr[b] - ri * ti[b];
		float rotatedI = rr * ti[b] + ri * tr[b];
		tr[b] = mix[b] * fr + keep[b] * rotatedR;
		ti[b] = mix[b] * fi + keep[b] * rotatedI;
	}
}

// P = r X, X = keep P, E = E keep^2 + |T|^2 mix.
void EngineImpl<float>::predictBands(std::size_t c) {
	predictRows(row(inputRealStorage, c), row(inputImagStorage, c), row(predictedReal, c), row(predictedImag, c),
		row(energy, c), row(trackedReal, c), row(trackedImag, c), rotateReal.data(), rotateImag.data(), keep.data(),
		mix.data(), grid.lowBands);
}

// Phase 3 for one channel: the high bands from the STFT, then the low bands'
// share of the residual.
void EngineImpl<float>::resolveBands(std::size_t c) {
	std::size_t low = grid.lowBands;
	const float *sr = padded(spectrumReal, c), *si = padded(spectrumImag, c);
	float *xr = row(inputRealStorage, c), *xi = row(inputImagStorage, c);
	float *e = row(energy, c);

	if (grid.highBands) {
		for (std::size_t b = low; b < bandCount; ++b) {
			xr[b] = gather(sr, b);
			xi[b] = gather(si, b);
		}
	}
	residualBeyondPredictions(c);
	firstGains(e);
	refineGains(e);

	// X += G F
	const float *fr = localReal.data(), *fi = localImag.data();
	const float *gr = gainReal.data(), *gi = gainImag.data();
	for (std::size_t b = 0; b < low; ++b) {
		float dr = gr[b] * fr[b] - gi[b] * fi[b];
		float di = gr[b] * fi[b] + gi[b] * fr[b];
		updateReal[b] = dr;
		updateImag[b] = di;
		xr[b] += dr;
		xi[b] += di;
	}
}

// R0 = S - convolve(scatter(X)): what the STFT holds beyond the low bands'
// predictions and the high bands; F = gather(R0) at the low bands.
void EngineImpl<float>::residualBeyondPredictions(std::size_t c) {
	const float *sr = padded(spectrumReal, c), *si = padded(spectrumImag, c);
	const float *xr = row(inputRealStorage, c), *xi = row(inputImagStorage, c);
	std::fill(scatterReal.begin(), scatterReal.end(), 0.0f);
	std::fill(scatterImag.begin(), scatterImag.end(), 0.0f);
	for (std::size_t b = 0; b < bandCount; ++b) {
		scatter(xr[b], b, scatterReal.data());
		scatter(xi[b], b, scatterImag.data());
	}
	convolve<false>(scatterReal.data(), convolvedReal.data());
	convolve<true>(scatterImag.data(), convolvedImag.data());

	float *r0r = residualReal.data(), *r0i = residualImag.data();
	const float *cr = convolvedReal.data(), *ci = convolvedImag.data();
	for (std::size_t i = 0; i < paddedBins; ++i) {
		r0r[i] = sr[i] - cr[i];
		r0i[i] = si[i] - ci[i];
	}
	for (std::size_t b = 0, low = grid.lowBands; b < low; ++b) {
		localReal[b] = gather(r0r, b);
		localImag[b] = gather(r0i, b);
	}
}

// The closed-form start: each band's share of its bin's energy (the bands'
// energies as the STFT would show them), taken from the band's energy.
void EngineImpl<float>::firstGains(float *e) {
	std::size_t low = grid.lowBands;
	std::fill(scatterReal.begin(), scatterReal.end(), 0.0f);
	for (std::size_t b = 0; b < low; ++b) scatter(e[b], b, scatterReal.data());
	convolve<false>(scatterReal.data(), convolvedReal.data());
	std::copy(convolvedReal.begin(), convolvedReal.end(), energySpectrum.begin());

	for (std::size_t b = 0; b < low; ++b) {
		const float *at = energySpectrum.data() + bandBin[b] + padded::before;
		float lo = at[0], hi = at[1];
		float binEnergy = lo + (hi - lo) * bandFraction[b];
		float g = e[b] / (binEnergy + 1e-15f);
		gainReal[b] = g;
		gainImag[b] = 0;
		e[b] = std::max(e[b] - g * g * binEnergy, 1e-30f);
	}
}

// Gradient descent on the squared residual, with a step that grows by half on
// success (up to 1) and halves on failure, when the previous gains come back.
void EngineImpl<float>::refineGains(const float *e) {
	std::size_t low = grid.lowBands;
	const float *fr = localReal.data(), *fi = localImag.data();
	float *gr = gainReal.data(), *gi = gainImag.data();
	float err = evaluate(e);
	float stepSize = 1.0f;
	for (std::size_t round = 0; round < iterations; ++round) {
		std::copy(gainReal.begin(), gainReal.end(), gainBackupReal.begin());
		std::copy(gainImag.begin(), gainImag.end(), gainBackupImag.begin());
		float previous = err;
		const float *rr = convolvedReal.data(), *ri = convolvedImag.data(); // R per unit of energy
		for (std::size_t b = 0; b < low; ++b) {
			float vr = gather(rr, b), vi = gather(ri, b);
			float a = stepSize * e[b];
			float cr = a * fr[b], ci = -(a * fi[b]); // step E conj(F)
			float ur = cr * vr - ci * vi, ui = cr * vi + ci * vr;
			float norm = fr[b] * fr[b] + fi[b] * fi[b] + 1e-30f;
			gr[b] += ur / norm;
			gi[b] += ui / norm;
		}
		err = evaluate(e);
		if (previous > err) {
			stepSize = std::min(stepSize * 1.5f, 1.0f);
		} else {
			std::copy(gainBackupReal.begin(), gainBackupReal.end(), gainReal.begin());
			std::copy(gainBackupImag.begin(), gainBackupImag.end(), gainImag.begin());
			stepSize *= 0.5f;
			err = evaluate(e);
		}
	}
}

// Residual R0 - convolve(G F) into the convolved pair, its squared sum over the
// bins, and then R per unit of band energy at each bin: gathered and times E it
// shares each bin's residual among the bands by energy.
float EngineImpl<float>::evaluate(const float *e) {
	std::size_t low = grid.lowBands;
	const float *fr = localReal.data(), *fi = localImag.data();
	const float *gr = gainReal.data(), *gi = gainImag.data();
	float *dr = updateReal.data(), *di = updateImag.data();
	for (std::size_t b = 0; b < low; ++b) {
		dr[b] = gr[b] * fr[b] - gi[b] * fi[b];
		di[b] = gr[b] * fi[b] + gi[b] * fr[b];
	}
	std::fill(scatterReal.begin(), scatterReal.end(), 0.0f);
	std::fill(scatterImag.begin(), scatterImag.end(), 0.0f);
	for (std::size_t b = 0; b < low; ++b) {
		scatter(dr[b], b, scatterReal.data());
		scatter(di[b], b, scatterImag.data());
	}
	convolve<false>(scatterReal.data(), convolvedReal.data());
	convolve<true>(scatterImag.data(), convolvedImag.data());

	float *rr = convolvedReal.data(), *ri = convolvedImag.data();
	const float *r0r = residualReal.data(), *r0i = residualImag.data();
	for (std::size_t i = 0; i < paddedBins; ++i) {
		rr[i] = r0r[i] - rr[i];
		ri[i] = r0i[i] - ri[i];
	}
	float err = 0;
	for (std::size_t i = padded::before, end = padded::before + fftBins; i < end; ++i) {
		err += rr[i] * rr[i] + ri[i] * ri[i];
	}

	std::fill(scatterReal.begin(), scatterReal.end(), 1e-30f);
	for (std::size_t b = 0; b < low; ++b) scatter(e[b], b, scatterReal.data());
	const float *perEnergy = scatterReal.data();
	for (std::size_t i = 0; i < paddedBins; ++i) {
		rr[i] = rr[i] / perEnergy[i];
		ri[i] = ri[i] / perEnergy[i];
	}
	return err;
}

// Phase against prediction, smoothed with a band-dependent memory: Im A / Q is
// the sine of the phase error per interval, read as the angle.
void EngineImpl<float>::measureFrequencies(std::size_t c) {
	measureRows(row(phaseSumReal, c), row(phaseSumImag, c), row(powerSum, c), row(inputHzStorage, c),
		row(coherenceReal, c), row(coherenceImag, c), row(incoherence, c), row(inputRealStorage, c),
		row(inputImagStorage, c), row(predictedReal, c), row(predictedImag, c), decay.data(), grid.bandHz.data(),
		stepRate, grid.lowBands);
}

} // namespace varkesh::lumbrel
