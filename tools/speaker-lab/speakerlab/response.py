"""Frequency grids, fractional-octave smoothing, minimum phase by the folded real cepstrum.

A response travels through the lab as its magnitude on a log grid (96 points per octave from
5 Hz to 192 kHz) until it is turned into a complex minimum-phase target:

1. smoothing: power (|H|^2) averaged in log frequency over a Hann window 1/6 or 1/3 octave
   wide at half height, centred on each grid point (magnitude smoothing; phase is not
   smoothed, it is made afterwards from the smoothed magnitude);
2. the smoothed log-magnitude is laid on the bins of a long FFT (2^19 points) whose frequency
   axis is bilinearly warped, f = F_W tan(theta / 2): the FFT's Nyquist stands for infinite
   frequency, so the physical roll-off is seen to its end instead of being cut at some
   sampling rate. Minimum phase is invariant under that map, so the phase found on a bin is
   the analog minimum phase at the bin's frequency. Above the grid the magnitude goes on
   with the slope of its last octave, and everything is floored at -120 dB under the peak;
3. real cepstrum, folded onto positive quefrencies, exponentiated: the minimum-phase
   response of that magnitude. Any bulk delay or excess phase of the source is gone;
4. the complex target at any frequency: log-magnitude from the log grid, phase interpolated
   from the FFT bins (0.3 Hz apart at low frequencies).
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

POINTS_PER_OCTAVE = 96
GRID_LOW_HZ = 5.0
GRID_HIGH_HZ = 192000.0
WARP_HZ = 50000.0
FFT_SIZE = 2 ** 19
FLOOR_DB = -120.0


def log_grid(low: float = GRID_LOW_HZ, high: float = GRID_HIGH_HZ,
             per_octave: int = POINTS_PER_OCTAVE) -> np.ndarray:
    octaves = np.log2(high / low)
    count = int(round(octaves * per_octave)) + 1
    return low * 2.0 ** (np.arange(count) / per_octave)


def smooth_power(freqs: np.ndarray, magnitude: np.ndarray, fraction: float) -> np.ndarray:
    """Fractional-octave smoothing of the power |H|^2 in log frequency with a Hann window whose
    width at half height is `fraction` octaves (1/6, 1/3); its full width is twice that.
    freqs must be a log grid of constant ratio. Near the grid ends the window is cut and
    renormalised.

    A Hann window rather than a rectangle: its side lobes are 31 dB down instead of 13, so the
    combs of reflections and neighbouring drivers leave far less ripple behind."""
    x = np.log2(np.asarray(freqs, dtype=float))
    steps = np.diff(x)
    step = float(np.mean(steps))
    if np.max(np.abs(steps - step)) > 1e-6 * step:
        raise ValueError("smoothing needs a log grid of constant ratio")
    half = int(round(fraction / step))          # half of the full width, in grid steps
    if half < 1:
        return np.asarray(magnitude, dtype=float).copy()
    kernel = 0.5 * (1.0 + np.cos(np.pi * np.arange(-half, half + 1) / (half + 1)))
    power = np.asarray(magnitude, dtype=float) ** 2
    summed = np.convolve(power, kernel, mode="same")
    weight = np.convolve(np.ones_like(power), kernel, mode="same")
    return np.sqrt(summed / weight)


@dataclass
class MinimumPhase:
    """A minimum-phase response built from a magnitude on a log grid."""

    freqs: np.ndarray        # log grid
    log_mag: np.ndarray      # natural log of the magnitude on it
    fft_freqs: np.ndarray
    fft_phase: np.ndarray    # unwrapped phase on the (warped) FFT bins

    def __call__(self, freqs_hz) -> np.ndarray:
        f = np.asarray(freqs_hz, dtype=float)
        lf = np.log(np.clip(f, self.freqs[0], self.freqs[-1]))
        mag = np.interp(lf, np.log(self.freqs), self.log_mag)
        phase = np.interp(f, self.fft_freqs, self.fft_phase)
        return np.exp(mag + 1j * phase)

    def magnitude_db(self, freqs_hz) -> np.ndarray:
        f = np.asarray(freqs_hz, dtype=float)
        lf = np.log(np.clip(f, self.freqs[0], self.freqs[-1]))
        return np.interp(lf, np.log(self.freqs), self.log_mag) * (20.0 / np.log(10.0))


def cepstral_phase(freqs: np.ndarray, log_mag: np.ndarray, size: int = FFT_SIZE,
                   floor_db: float = FLOOR_DB, warp_hz: float = WARP_HZ):
    """(bin frequencies, unwrapped minimum phase) of a log-magnitude given on a log grid.

    Outside the grid the log-magnitude goes on with the slope of its first and last octave
    (the physical roll-offs continued); the floor keeps the logarithm finite and the
    cepstrum short. The last bin (infinite frequency) is left out of the result.
    """
    theta = np.arange(size // 2 + 1) * (2.0 * np.pi / size)
    bins = warp_hz * np.tan(0.5 * theta[:-1])
    lf = np.log(freqs)
    octave = POINTS_PER_OCTAVE
    low_slope = (log_mag[octave] - log_mag[0]) / (lf[octave] - lf[0])
    high_slope = min((log_mag[-1] - log_mag[-1 - octave]) / (lf[-1] - lf[-1 - octave]), 0.0)
    lb = np.log(np.maximum(bins, 1e-6))
    mag = np.interp(lb, lf, log_mag)
    below = bins < freqs[0]
    mag[below] = log_mag[0] + low_slope * (lb[below] - lf[0])
    above = bins > freqs[-1]
    mag[above] = log_mag[-1] + high_slope * (lb[above] - lf[-1])
    floor = np.max(mag) + floor_db * np.log(10.0) / 20.0
    mag = np.maximum(np.append(mag, floor), floor)
    full = np.concatenate([mag, mag[-2:0:-1]])
    cep = np.fft.ifft(full).real
    folded = np.zeros_like(cep)
    folded[0] = cep[0]
    folded[1:size // 2] = 2.0 * cep[1:size // 2]
    folded[size // 2] = cep[size // 2]
    spectrum = np.fft.fft(folded)[:size // 2]
    return bins, np.unwrap(spectrum.imag)


def minimum_phase(freqs: np.ndarray, magnitude: np.ndarray, floor_db: float = FLOOR_DB) -> MinimumPhase:
    """Minimum-phase response of a magnitude on a log grid (see the module notes)."""
    magnitude = np.asarray(magnitude, dtype=float)
    peak = np.max(magnitude)
    log_mag = np.log(np.maximum(magnitude, peak * 10.0 ** (floor_db / 20.0)))
    bins, phase = cepstral_phase(freqs, log_mag, floor_db=floor_db)
    return MinimumPhase(np.asarray(freqs, dtype=float), log_mag, bins, phase)


def smoothed_minimum_phase(freqs: np.ndarray, response: np.ndarray, fraction: float) -> MinimumPhase:
    return minimum_phase(freqs, smooth_power(freqs, np.abs(response), fraction))


def error_figures(model_db: np.ndarray, target_db: np.ndarray) -> tuple[float, float]:
    """(RMS, max) of a dB difference."""
    e = np.asarray(model_db) - np.asarray(target_db)
    return float(np.sqrt(np.mean(e * e))), float(np.max(np.abs(e)))
