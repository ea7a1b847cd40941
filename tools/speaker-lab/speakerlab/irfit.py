"""`lab fit`: a measured impulse response (WAV, any rate) and a chain plan in, a 22-pole chain
at that rate and its error figures out.

The same machinery as the design, for one rate: the bulk delay is cut off, the response is
smoothed to 1/6 octave (power, rectangular window in log frequency), made minimum phase by
the folded real cepstrum (on the FFT of the response itself, at its own rate, with a -120 dB
floor), and a chain of the given plan is fitted to it by variable projection. The error
figures compare the float32 chain with the 1/6-octave-smoothed response from 60 Hz to 8 kHz
(or to 0.45 R at low rates).
"""

from __future__ import annotations

import json
import math
import wave
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from . import catalogue as cat
from . import fit
from . import records as rec
from . import response as rs

SMOOTHING = 1.0 / 6.0
ERROR_BAND = (60.0, 8000.0)
ONSET_DB = -40.0          # the response starts where it first comes within 40 dB of its peak
ONSET_MARGIN_S = 0.0002   # kept before the onset
FADE_SHARE = 0.1          # half-Hann fade over the last tenth of the response
LOW_HZ = 5.0


class FitError(Exception):
    """A problem with the input, told to the user in one line."""


@dataclass
class Measured:
    rate: int
    samples: np.ndarray      # mono, float64, as read (first channel)
    delay: int               # samples cut off in front


def read_wav(path: str) -> tuple[int, np.ndarray]:
    """(rate, first channel as float64 in [-1, 1] for integer formats)."""
    p = Path(path)
    if not p.exists():
        raise FitError(f"cannot read '{path}': no such file")
    if p.is_dir():
        raise FitError(f"cannot read '{path}': it is a directory")
    try:
        from scipy.io import wavfile
        import warnings

        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            rate, data = wavfile.read(str(p))
    except Exception as scipy_error:  # noqa: BLE001 - fall back to the standard reader
        try:
            rate, data = _read_with_wave(p)
        except Exception:  # noqa: BLE001
            raise FitError(f"'{path}' is not a readable WAV file ({scipy_error})") from None
    data = np.asarray(data)
    if data.ndim == 2:
        data = data[:, 0]
    if data.dtype.kind == "u":
        bits = 8 * data.dtype.itemsize
        data = (data.astype(np.float64) - 2.0 ** (bits - 1)) / 2.0 ** (bits - 1)
    elif data.dtype.kind == "i":
        data = data.astype(np.float64) / 2.0 ** (8 * data.dtype.itemsize - 1)
    else:
        data = data.astype(np.float64)
    return int(rate), data


def _read_with_wave(p: Path) -> tuple[int, np.ndarray]:
    with wave.open(str(p), "rb") as w:
        rate, width, channels = w.getframerate(), w.getsampwidth(), w.getnchannels()
        raw = w.readframes(w.getnframes())
    if width == 3:
        b = np.frombuffer(raw, dtype=np.uint8).reshape(-1, 3)
        ints = (b[:, 0].astype(np.int32) | (b[:, 1].astype(np.int32) << 8)
                | (b[:, 2].astype(np.int32) << 16))
        ints = np.where(ints >= 1 << 23, ints - (1 << 24), ints) << 8
        data = ints.astype(np.int32)
    else:
        data = np.frombuffer(raw, dtype={1: np.uint8, 2: "<i2", 4: "<i4"}[width])
    return rate, data.reshape(-1, channels)


def trim(samples: np.ndarray, rate: int) -> tuple[np.ndarray, int]:
    """Cut the bulk delay (silence before the onset) and fade out the tail."""
    if samples.size == 0:
        raise FitError("the file holds no samples")
    if not np.all(np.isfinite(samples)):
        raise FitError("the response holds non-finite samples")
    magnitude = np.abs(samples)
    peak = float(np.max(magnitude))
    if peak == 0.0:
        raise FitError("the response is silent (all samples are zero)")
    onset = int(np.argmax(magnitude >= peak * 10.0 ** (ONSET_DB / 20.0)))
    start = max(0, onset - int(round(ONSET_MARGIN_S * rate)))
    ir = samples[start:].astype(np.float64).copy()
    fade = max(int(len(ir) * FADE_SHARE), 1)
    if len(ir) > 8:
        ir[-fade:] *= 0.5 * (1.0 + np.cos(np.pi * np.arange(1, fade + 1) / fade))
    return ir, start


def spectrum(ir: np.ndarray, rate: int) -> tuple[np.ndarray, np.ndarray]:
    """(bin frequencies, complex spectrum) on a zero-padded FFT, at least 8 times the length
    and fine enough for 5 Hz."""
    n = 1 << max(int(math.ceil(math.log2(8 * len(ir)))), int(math.ceil(math.log2(rate / 0.5))), 12)
    h = np.fft.rfft(ir, n)
    return np.arange(len(h)) * (rate / n), h


@dataclass
class Target:
    rate: int
    bins: np.ndarray
    raw: np.ndarray          # |H| on the bins, unsmoothed
    grid: np.ndarray         # log grid, LOW_HZ to Nyquist
    smoothed: np.ndarray     # smoothed |H| on the log grid
    phase: np.ndarray        # minimum phase on the bins

    def __call__(self, freqs) -> np.ndarray:
        f = np.asarray(freqs, dtype=float)
        mag = np.interp(np.log(np.clip(f, self.grid[0], self.grid[-1])), np.log(self.grid),
                        np.log(self.smoothed))
        return np.exp(mag + 1j * np.interp(f, self.bins, self.phase))

    def smoothed_db(self, freqs) -> np.ndarray:
        return rec.to_db(self(freqs))


def minimum_phase_target(ir: np.ndarray, rate: int, fraction: float = SMOOTHING) -> Target:
    bins, h = spectrum(ir, rate)
    raw = np.abs(h)
    nyquist = 0.5 * rate
    grid = rs.log_grid(LOW_HZ, nyquist, rs.POINTS_PER_OCTAVE)
    on_grid = np.exp(np.interp(np.log(grid), np.log(np.maximum(bins[1:], 1e-9)),
                               np.log(np.maximum(raw[1:], 1e-300))))
    smoothed = rs.smooth_power(grid, on_grid, fraction)
    floor = np.max(smoothed) * 10.0 ** (rs.FLOOR_DB / 20.0)
    smoothed = np.maximum(smoothed, floor)
    # back onto the bins for the cepstrum (digital: the chain runs at this very rate)
    lm = np.interp(np.log(np.maximum(bins, grid[0])), np.log(grid), np.log(smoothed))
    n = 2 * (len(bins) - 1)
    full = np.concatenate([lm, lm[-2:0:-1]])
    cep = np.fft.ifft(full).real
    folded = np.zeros_like(cep)
    folded[0] = cep[0]
    folded[1:n // 2] = 2.0 * cep[1:n // 2]
    folded[n // 2] = cep[n // 2]
    phase = np.unwrap(np.fft.fft(folded)[:n // 2 + 1].imag)
    return Target(rate, bins, raw, grid, smoothed, phase)


def check_plan(plan: str) -> str:
    try:
        stages = cat.expand_plan(plan)
    except ValueError as error:
        reason = str(error).replace(f" in {plan!r}", "").replace(f"plan {plan!r} ", "")
        raise FitError(f"bad plan '{plan}': {reason}") from None
    poles = sum(cat.STAGE_SHAPES[s][2] for s in stages)
    if poles != 22:
        raise FitError(f"bad plan '{plan}': it has {poles} poles, a chain has 22")
    return cat.compress_plan(stages)


@dataclass
class Result:
    plan: str
    rate: int
    delay: int
    length: int
    poles: list
    stages32: list
    stages64: list
    target: Target
    error_band: tuple
    rms_db: float
    max_db: float
    float32_db: float


def error_band(rate: int) -> tuple[float, float]:
    top = min(ERROR_BAND[1], 0.45 * rate)
    if top <= ERROR_BAND[0] * 1.5:
        raise FitError(f"sample rate {rate} Hz is too low: the error band starts at 60 Hz")
    return ERROR_BAND[0], top


def fit_response(samples: np.ndarray, rate: int, plan: str, max_nfev: int = 100) -> Result:
    plan = check_plan(plan)
    band = error_band(rate)
    ir, delay = trim(samples, rate)
    target = minimum_phase_target(ir, rate)
    problem = fit.make_problem(rate, plan, target)
    poles, _ = fit.fit_poles(plan, [problem], fixed_f_stage=False, max_nfev=max_nfev)
    coefficients = fit.solve_rate(plan, poles, problem)
    exact, rounded = fit.band_records(plan, poles, rate, coefficients)
    freqs = rs.log_grid(band[0], band[1], 48)
    d = rec.delta_of(freqs, rate)
    model_db = rec.to_db(rec.chain_response(rounded, d))
    rms, peak = rs.error_figures(model_db, target.smoothed_db(freqs))
    f10 = np.geomspace(20.0, min(10000.0, 0.45 * rate), 300)
    d10 = rec.delta_of(f10, rate)
    f32_db = float(np.max(np.abs(rec.to_db(rec.chain_response(rounded, d10))
                                 - rec.to_db(rec.chain_response(exact, d10)))))
    return Result(plan, rate, delay, len(ir), poles, rounded, exact, target, band, rms, peak, f32_db)


def describe(result: Result, path: str) -> list[str]:
    lines = [f"impulse response: {path}, {result.rate} Hz, {result.length} samples after a "
             f"bulk delay of {result.delay} samples ({1000.0 * result.delay / result.rate:.2f} ms)",
             f"plan: {result.plan} (22 poles), fitted at {result.rate} Hz against the "
             f"1/6-octave-smoothed minimum-phase response",
             "poles (continuous time):"]
    for i, (letter, pole) in enumerate(zip(cat.expand_plan(result.plan), result.poles)):
        if "f" in pole:
            q = math.pi * pole["f"] / pole["sigma"]
            radius = math.exp(-pole["sigma"] / result.rate)
            lines.append(f"  {i:2d} {letter}  pair f = {pole['f']:9.2f} Hz  sigma = {pole['sigma']:9.2f} /s"
                         f"  Q = {q:6.3f}  radius = {radius:.6f}")
        else:
            z = rec.real_pole(pole, result.rate)
            lines.append(f"  {i:2d} {letter}  real sigma = {pole['sigma']:9.2f} /s  z = {z:.6f}")
    lines.append(f"float32 records against the double design up to 10 kHz: {result.float32_db:.2g} dB")
    lines.append(f"fit error {result.error_band[0]:.0f} Hz to {result.error_band[1]:.0f} Hz: "
                 f"{result.rms_db:.3f} dB RMS, {result.max_db:.3f} dB max")
    return lines


def records_json(result: Result) -> dict:
    return {"plan": result.plan, "rate": result.rate,
            "poles": result.poles,
            "stages": [{k: v for k, v in s.items()} for s in result.stages32],
            "fit": {"rmsDb": round(result.rms_db, 4), "maxDb": round(result.max_db, 4),
                    "errorBandHz": list(result.error_band),
                    "float32VsDoubleDb": float(f"{result.float32_db:.3g}")}}


def plot(result: Result, out: str, title: str) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    top = 0.5 * result.rate
    freqs = rs.log_grid(20.0, top * 0.999, 48)
    d = rec.delta_of(freqs, result.rate)
    model = rec.to_db(rec.chain_response(result.stages32, d))
    target = result.target.smoothed_db(freqs)
    raw_sel = (result.target.bins >= 20.0)
    fig, (ax, ax_err) = plt.subplots(2, 1, figsize=(9, 7), sharex=True,
                                     gridspec_kw={"height_ratios": [3, 1]})
    ax.semilogx(result.target.bins[raw_sel], rec.to_db(result.target.raw[raw_sel]),
                color="0.75", lw=0.6, label="measured")
    ax.semilogx(freqs, target, color="C0", lw=1.6, label="1/6-octave smoothed")
    ax.semilogx(freqs, model, color="C3", lw=1.0, ls="--", label=f"chain {result.plan}")
    peak = float(np.max(target))
    ax.set_ylim(peak - 60.0, peak + 6.0)
    ax.set_ylabel("dB")
    ax.set_title(title)
    ax.grid(True, which="both", alpha=0.3)
    ax.legend(loc="lower left")
    ax_err.semilogx(freqs, model - target, color="C3", lw=1.0)
    for f_edge in result.error_band:
        ax_err.axvline(f_edge, color="0.5", lw=0.8, ls=":")
    ax_err.set_ylim(-3.0, 3.0)
    ax_err.set_ylabel("error dB")
    ax_err.set_xlabel("Hz")
    ax_err.grid(True, which="both", alpha=0.3)
    fig.tight_layout()
    fig.savefig(out, dpi=90)
    plt.close(fig)


def run(path: str, plan: str, plot_path: str | None = None, json_path: str | None = None,
        log=print) -> Result:
    rate, samples = read_wav(path)
    if rate <= 0:
        raise FitError(f"'{path}' has a sample rate of {rate} Hz")
    result = fit_response(samples, rate, plan)
    for line in describe(result, path):
        log(line)
    if json_path:
        Path(json_path).write_text(json.dumps(records_json(result), indent=1) + "\n")
        log(f"chain records written to {json_path}")
    if plot_path:
        plot(result, plot_path, f"{Path(path).name}: {result.plan} at {rate} Hz, "
                                f"{result.rms_db:.2f} dB RMS, {result.max_db:.2f} dB max")
        log(f"plot written to {plot_path}")
    log(f"rms_db={result.rms_db:.3f} max_db={result.max_db:.3f}")
    return result
