"""Fit of one 22-pole tapped all-pass chain to a complex target, jointly over sample rates.

Poles are one continuous-time set per chain (pairs: f, sigma; real poles: sigma and sign, or
a fixed z). For given poles the taps of each rate follow by weighted linear least squares
(weight 1/|target|, so the error is close to a dB error), solved by SVD on scaled columns,
never through the normal equations. The plan fixes which poles are real and which taps are
reduced (no contribution at DC), rate by rate, so plan exceptions of some bands are imposed
on exactly those bands.

The poles are refined by variable projection: the residual left after the linear solve is a
function of the poles alone, and it is minimised over the pole parameters of all rates at
once (trust-region least squares with bounds). The bounds keep every pole radius at or
below 0.99956 at every rate, real poles within [-0.99, 0.999], every pair's Q at or below
MAX_Q and its frequency below 17.6 kHz (and below 0.45 R).
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
MAX_REAL_SIGMA = 2.0 * math.pi * 6000.0

# Grid of the fit: weight 1 where the sound is judged, less at the edges of hearing, little
# from 20 kHz to 0.45 R (there only so that the high bands keep rolling off).
GRID_LOW_HZ = 15.0
CORE_BAND = (40.0, 10000.0)
EDGE_WEIGHT = 0.3
HIGH_WEIGHT = 0.03
GRID_POINTS_PER_OCTAVE = 20

# Starts of the pole search: log-spaced pairs between these frequencies.
STARTS = ((45.0, 15000.0), (30.0, 11000.0), (70.0, 17000.0))


@dataclass
class Grid:
    freqs: np.ndarray
    weights: np.ndarray


def rate_grid(rate: float, low_hz: float = GRID_LOW_HZ) -> Grid:
    top = min(20000.0, 0.45 * rate)
    n = max(int(round(math.log2(top / low_hz) * GRID_POINTS_PER_OCTAVE)), 8)
    freqs = [np.geomspace(low_hz, top, n)]
    inside = (freqs[0] >= CORE_BAND[0]) & (freqs[0] <= CORE_BAND[1])
    weights = [np.where(inside, 1.0, EDGE_WEIGHT)]
    if 0.45 * rate > 21000.0:
        n_high = max(int(round(math.log2(0.45 * rate / 21000.0) * GRID_POINTS_PER_OCTAVE)), 4)
        freqs.append(np.geomspace(21000.0, 0.45 * rate, n_high))
        weights.append(np.full(n_high, HIGH_WEIGHT))
    return Grid(np.concatenate(freqs), np.concatenate(weights))


@dataclass
class Bounds:
    """Pole bounds valid at every rate of a fit."""

    min_pair_sigma: float
    min_real_sigma: float
    max_pair_hz: float

    @staticmethod
    def for_rates(rates) -> "Bounds":
        high, low = max(rates), min(rates)
        # the radius bound at the highest rate holds at every lower rate as well
        return Bounds(-high * math.log(cat.MAX_POLE_RADIUS) * 1.0005,
                      -high * math.log(cat.FIRST_ORDER_POLE_RANGE[1]) * 1.0005,
                      min(MAX_PAIR_HZ, 0.45 * low))


def pole_letters(plan: str) -> list[str]:
    return cat.expand_plan(plan)


def initial_poles(plan: str, fixed_f_stage: bool, bounds: Bounds, low_hz: float = 45.0,
                  high_hz: float = 15000.0) -> list[dict]:
    """Log-spaced start: pairs from high to low frequency along the chain, each pair's sigma
    about half the distance to its neighbours; real poles spread over the low range."""
    letters = pole_letters(plan)
    high_hz = min(high_hz, 0.95 * bounds.max_pair_hz)
    low_hz = min(low_hz, 0.5 * high_hz)
    n_pairs = sum(1 for s in letters if s in "SZTU")
    n_reals = sum(1 for s in letters if s in ("F" if fixed_f_stage else "Ff"))
    pair_f = np.geomspace(high_hz, low_hz, n_pairs)
    ratio = (high_hz / low_hz) ** (1.0 / max(n_pairs - 1, 1))
    real_sigma = 2.0 * math.pi * np.geomspace(600.0, 25.0, max(n_reals, 1))
    poles = []
    pair_i = real_i = 0
    for letter in letters:
        if letter == "f" and fixed_f_stage:
            poles.append({"z": cat.FIXED_F_STAGE_POLE})
        elif letter in "Ff":
            sigma = max(float(real_sigma[real_i]), bounds.min_real_sigma * 1.01)
            poles.append({"sigma": sigma, "sign": 1})
            real_i += 1
        else:
            f0 = float(pair_f[pair_i])
            spread = f0 * (ratio - 1.0 / ratio)
            poles.append({"f": f0, "sigma": max(0.5 * math.pi * spread, bounds.min_pair_sigma * 1.01)})
            pair_i += 1
    return poles


# ---------------------------------------------------------------------------------------
# basis of a chain at one rate


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


def _pack(poles: list[dict], bounds: Bounds) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    x, lower, upper = [], [], []
    for pole in poles:
        if "z" in pole:
            continue
        if "f" in pole:
            f0 = min(max(pole["f"], MIN_PAIR_HZ * 1.001), bounds.max_pair_hz * 0.999)
            q = math.pi * f0 / pole["sigma"]
            x += [math.log(f0), math.log(min(max(q, MIN_Q * 1.001), MAX_Q * 0.999))]
            lower += [math.log(MIN_PAIR_HZ), math.log(MIN_Q)]
            upper += [math.log(bounds.max_pair_hz), math.log(MAX_Q)]
        else:
            sigma = min(max(pole["sigma"], bounds.min_real_sigma * 1.001), MAX_REAL_SIGMA * 0.999)
            x.append(math.log(sigma))
            lower.append(math.log(bounds.min_real_sigma))
            upper.append(math.log(MAX_REAL_SIGMA))
    x = np.array(x)
    lower = np.array(lower)
    upper = np.array(upper)
    return np.clip(x, lower + 1e-9, upper - 1e-9), lower, upper


def _unpack(x: np.ndarray, template: list[dict], bounds: Bounds) -> list[dict]:
    poles = []
    i = 0
    for pole in template:
        if "z" in pole:
            poles.append(dict(pole))
        elif "f" in pole:
            f0 = math.exp(x[i])
            q = math.exp(x[i + 1])
            # a low pair whose Q would put it beyond the radius bound sits on the bound
            poles.append({"f": f0, "sigma": max(math.pi * f0 / q, bounds.min_pair_sigma)})
            i += 2
        else:
            poles.append({"sigma": math.exp(x[i]), "sign": pole["sign"]})
            i += 1
    return poles


@dataclass
class Problem:
    """The target of one chain at one rate, on that rate's grid."""

    rate: float
    plan: str
    grid: Grid
    target: np.ndarray    # complex target of the chain on grid.freqs
    d: np.ndarray


def make_problem(rate: float, plan: str, target_fn, low_hz: float = GRID_LOW_HZ) -> Problem:
    grid = rate_grid(rate, low_hz)
    return Problem(rate, plan, grid, target_fn(grid.freqs), rec.delta_of(grid.freqs, rate))


def projected_residual(poles: list[dict], problems: list[Problem]) -> np.ndarray:
    parts = []
    for problem in problems:
        basis = chain_basis(problem.plan, poles, problem.rate, problem.d)
        _, residual = solve_taps(basis, problem.target, problem.grid.weights)
        parts.append(residual)
    return np.concatenate(parts)


def optimise_poles(poles: list[dict], problems: list[Problem], bounds: Bounds,
                   max_nfev: int = 100) -> tuple[list[dict], float]:
    """(poles, cost) after variable projection from the given start."""
    x0, lower, upper = _pack(poles, bounds)

    def residual(x):
        return projected_residual(_unpack(x, poles, bounds), problems)

    result = least_squares(residual, x0, bounds=(lower, upper), method="trf", diff_step=1e-4,
                           max_nfev=max_nfev, x_scale=1.0)
    return _unpack(result.x, poles, bounds), float(result.cost)


def pole_candidates(plan: str, problems: list[Problem], fixed_f_stage: bool,
                    starts=STARTS, max_nfev: int = 100) -> list[tuple[list[dict], float]]:
    """(poles, cost) from each start, lowest cost first."""
    bounds = Bounds.for_rates([p.rate for p in problems])
    found = [optimise_poles(initial_poles(plan, fixed_f_stage, bounds, low_hz, high_hz),
                            problems, bounds, max_nfev) for low_hz, high_hz in starts]
    return sorted(found, key=lambda c: c[1])


def fit_poles(plan: str, problems: list[Problem], fixed_f_stage: bool,
              starts=STARTS, max_nfev: int = 100) -> tuple[list[dict], float]:
    """The best of several starts: (poles, cost)."""
    return pole_candidates(plan, problems, fixed_f_stage, starts, max_nfev)[0]


def solve_rate(plan: str, poles: list[dict], problem: Problem) -> np.ndarray:
    basis = chain_basis(plan, poles, problem.rate, problem.d)
    coefficients, _ = solve_taps(basis, problem.target, problem.grid.weights)
    return coefficients


# ---------------------------------------------------------------------------------------
# records of one rate


def band_records(plan: str, poles: list[dict], rate: float, coefficients: np.ndarray,
                 through_gain: float = 1.0) -> tuple[list[dict], list[dict]]:
    """(double stages, float32 stages) of a chain: [{"kind", "tap", "through"?, "gain"?}]."""
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
