"""Fit of one 22-pole tapped all-pass chain to a complex target, jointly over bands.

Poles are one continuous-time set per chain (pairs: f, sigma; real poles: sigma and sign, or
a fixed z). For given poles the taps of each band follow by weighted linear least squares
(weight 1/|target|, so the error is close to a dB error), solved by SVD on scaled columns.
The poles are refined by variable projection: the residual left after the linear solve is
minimised over the pole parameters of all bands at once, within bounds that keep every pole
radius at or below the largest allowed one in every band.
"""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np
from scipy.optimize import least_squares

from . import catalogue as cat
from . import records as rec

MIN_PAIR_HZ = 18.0
MAX_PAIR_HZ = 17600.0
MIN_Q = 0.3
MAX_Q = 12.0
# Pole radius <= MAX_POLE_RADIUS at the highest rate holds for every lower rate as well.
MIN_PAIR_SIGMA = -max(cat.SAMPLE_RATES.values()) * math.log(cat.MAX_POLE_RADIUS) * 1.0005
MIN_REAL_SIGMA = -max(cat.SAMPLE_RATES.values()) * math.log(cat.FIRST_ORDER_POLE_RANGE[1]) * 1.0005
MAX_REAL_SIGMA = 2.0 * math.pi * 6000.0

HIGH_WEIGHT = 0.03   # 20 kHz to 0.45 R: keeps the high bands rolling off


@dataclass
class Grid:
    freqs: np.ndarray
    weights: np.ndarray


def band_grid(band: int, points: int = 200) -> Grid:
    rate = cat.SAMPLE_RATES[band]
    top = min(20000.0, 0.45 * rate)
    freqs = [np.geomspace(15.0, top, points)]
    weights = [np.ones(points)]
    if 0.45 * rate > 21000.0:
        n_high = 30
        freqs.append(np.geomspace(21000.0, 0.45 * rate, n_high))
        weights.append(np.full(n_high, HIGH_WEIGHT))
    return Grid(np.concatenate(freqs), np.concatenate(weights))


def pole_letters(plan: str) -> list[str]:
    return cat.expand_plan(plan)


def initial_poles(plan: str, fixed_f_stage: bool, low_hz: float = 45.0,
                  high_hz: float = 15000.0) -> list[dict]:
    """Log-spaced start: pairs from high to low frequency along the chain, each pair's sigma
    about half the distance to its neighbours; real poles spread over the low range."""
    letters = pole_letters(plan)
    n_pairs = sum(1 for s in letters if s in "SZTU")
    n_reals = sum(1 for s in letters if s == "F")
    pair_f = np.geomspace(high_hz, low_hz, n_pairs)
    ratio = (high_hz / low_hz) ** (1.0 / max(n_pairs - 1, 1))
    real_sigma = 2.0 * math.pi * np.geomspace(600.0, 25.0, max(n_reals, 1))
    poles = []
    pair_i = real_i = 0
    for letter in letters:
        if letter == "f" and fixed_f_stage:
            poles.append({"z": cat.FIXED_F_STAGE_POLE})
        elif letter in "Ff":
            poles.append({"sigma": float(real_sigma[real_i]), "sign": 1})
            real_i += 1
        else:
            f0 = float(pair_f[pair_i])
            spread = f0 * (ratio - 1.0 / ratio)
            poles.append({"f": f0, "sigma": max(0.5 * math.pi * spread, MIN_PAIR_SIGMA * 1.01)})
            pair_i += 1
    return poles


# ---------------------------------------------------------------------------------------
# basis of a chain in one band


def chain_basis(plan: str, poles: list[dict], rate: float, d: np.ndarray) -> np.ndarray:
    """Columns: each tap's contribution per unit coefficient (through gains 1)."""
    letters = pole_letters(plan)
    if len(letters) != len(poles):
        raise ValueError("plan and poles disagree")
    columns = []
    prefix = np.ones_like(d)
    for letter, pole in zip(letters, poles):
        if letter in "Ff":
            c2 = rec.first_order_c2(pole, rate)
            den = d + c2
            columns.append(prefix * (d + 1.0) / den)
            if letter == "F":
                prefix = prefix * ((c2 - 1.0) * d + c2) / den
            continue
        c3, c4 = rec.pair_denominator(pole["f"], pole["sigma"], rate)
        den = d * d + c3 * d + c4
        if letter in "ST":
            columns.append(prefix * (d * d - 1.0) / den)
            columns.append(prefix * (d + 1.0) / den)
        else:  # reduced tap: c0 = c1, no contribution at DC
            columns.append(prefix * (d * d + d) / den)
        if letter in "SZ":
            a2 = 1.0 - c3 + c4
            prefix = prefix * (a2 * d * d + (2.0 * c4 - c3) * d + c4) / den
    return np.stack(columns, axis=1)


def solve_taps(basis: np.ndarray, target: np.ndarray, weights: np.ndarray):
    """Weighted least squares on scaled columns; returns (coefficients, weighted residual)."""
    w = weights / np.abs(target)
    a = basis * w[:, None]
    b = target * w
    a_real = np.concatenate([a.real, a.imag])
    b_real = np.concatenate([b.real, b.imag])
    scale = np.linalg.norm(a_real, axis=0)
    scale[scale == 0.0] = 1.0
    solution, *_ = np.linalg.lstsq(a_real / scale, b_real, rcond=None)
    coefficients = solution / scale
    residual = a_real @ coefficients - b_real
    return coefficients, residual


# ---------------------------------------------------------------------------------------
# variable projection over the poles


def _pack(poles: list[dict]) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    x, lower, upper = [], [], []
    for pole in poles:
        if "z" in pole:
            continue
        if "f" in pole:
            q = math.pi * pole["f"] / pole["sigma"]
            x += [math.log(pole["f"]), math.log(min(max(q, MIN_Q * 1.001), MAX_Q * 0.999))]
            lower += [math.log(MIN_PAIR_HZ), math.log(MIN_Q)]
            upper += [math.log(MAX_PAIR_HZ), math.log(MAX_Q)]
        else:
            sigma = min(max(pole["sigma"], MIN_REAL_SIGMA * 1.001), MAX_REAL_SIGMA * 0.999)
            x.append(math.log(sigma))
            lower.append(math.log(MIN_REAL_SIGMA))
            upper.append(math.log(MAX_REAL_SIGMA))
    x = np.array(x)
    lower = np.array(lower)
    upper = np.array(upper)
    return np.clip(x, lower + 1e-9, upper - 1e-9), lower, upper


def _unpack(x: np.ndarray, template: list[dict]) -> list[dict]:
    poles = []
    i = 0
    for pole in template:
        if "z" in pole:
            poles.append(dict(pole))
        elif "f" in pole:
            f0 = math.exp(x[i])
            q = math.exp(x[i + 1])
            poles.append({"f": f0, "sigma": max(math.pi * f0 / q, MIN_PAIR_SIGMA)})
            i += 2
        else:
            poles.append({"sigma": math.exp(x[i]), "sign": pole["sign"]})
            i += 1
    return poles


@dataclass
class BandProblem:
    band: int
    plan: str
    grid: Grid
    target: np.ndarray    # complex target of the chain on grid.freqs
    d: np.ndarray


def make_problem(band: int, plan: str, target_fn) -> BandProblem:
    grid = band_grid(band)
    rate = cat.SAMPLE_RATES[band]
    return BandProblem(band, plan, grid, target_fn(grid.freqs), rec.delta_of(grid.freqs, rate))


def projected_residual(poles: list[dict], problems: list[BandProblem]) -> np.ndarray:
    parts = []
    for problem in problems:
        basis = chain_basis(problem.plan, poles, cat.SAMPLE_RATES[problem.band], problem.d)
        _, residual = solve_taps(basis, problem.target, problem.grid.weights)
        parts.append(residual)
    return np.concatenate(parts)


def optimise_poles(poles: list[dict], problems: list[BandProblem], max_nfev: int = 60) -> list[dict]:
    x0, lower, upper = _pack(poles)

    def residual(x):
        return projected_residual(_unpack(x, poles), problems)

    result = least_squares(residual, x0, bounds=(lower, upper), method="trf", diff_step=1e-4,
                           max_nfev=max_nfev, x_scale=1.0)
    return _unpack(result.x, poles)


# ---------------------------------------------------------------------------------------
# records of one band


def band_records(plan: str, poles: list[dict], band: int, coefficients: np.ndarray,
                 through_gain: float = 1.0) -> tuple[list[dict], list[dict]]:
    """(double stages, float32 stages) of a chain: [{"kind", "tap", "through"?, "gain"?}]."""
    rate = cat.SAMPLE_RATES[band]
    letters = pole_letters(plan)
    exact, rounded = [], []
    cumulative = 1.0   # product of the through gains before the stage
    i = 0
    for letter, pole in zip(letters, poles):
        stage = {"kind": letter}
        if letter in "Ff":
            c2 = rec.first_order_c2(pole, rate)
            c0 = coefficients[i] / cumulative
            i += 1
            stage["tap"] = [c0, c0, c2]
            if letter == "F":
                stage["through"] = rec.through_first(c2, through_gain)
                stage["gain"] = through_gain
        else:
            c3, c4 = rec.pair_denominator(pole["f"], pole["sigma"], rate)
            if letter in "ST":
                c0 = coefficients[i] / cumulative
                c1 = coefficients[i + 1] / cumulative
                i += 2
                stage["tap"] = rec.tap_second(c0, c1, c3, c4)
            else:
                c0 = coefficients[i] / cumulative
                i += 1
                stage["tap"] = [c0, c0, c3, c4]
            if letter in "SZ":
                stage["through"] = rec.through_second(c3, c4, through_gain)
                stage["gain"] = through_gain
        if "through" in stage:
            cumulative *= through_gain
        exact.append(stage)
        rounded_stage = {"kind": letter, "tap": rec.round_record(stage["tap"])}
        if "through" in stage:
            rounded_stage["through"] = rec.round_record(stage["through"])
            rounded_stage["gain"] = through_gain
        rounded.append(rounded_stage)
    return exact, rounded
