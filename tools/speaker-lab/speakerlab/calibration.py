"""Tuning of the 4x12 rig to the calibration curve.

The model of the 4x12 with microphone type 0 at position 0, band 96, pre-sections and gain
entry included, is the 1/6-octave-smoothed response of the rig (the chain is fitted to it),
so the rig's smoothed response is what is tuned. The parameters in rig.TUNED move within
their ranges; residuals are the eight points (1 dB each), a ceiling of -19 dB from 8.5 kHz
to 0.45 x 96 kHz (2 dB of margin under the -17 dB bound) and a weak pull towards the
starting values, so that the free parameters stay where a cabinet would have them.
"""

from __future__ import annotations

import math

import numpy as np
from scipy.optimize import least_squares

from . import catalogue as cat
from . import response as rs
from . import rig

SPEAKER, BAND, KEY = cat.CALIBRATION_MODEL
CEILING_DB = cat.CALIBRATION_CEILING_DB - 2.0
CEILING_FROM_HZ = 8500.0
PRIOR_WEIGHT = 0.05
LINEAR = {"db", "dip_db", "lift_db", "pres_db"}


def smoothed_db(values: dict, freqs: np.ndarray, fields: dict | None = None) -> np.ndarray:
    h = rig.response(values, SPEAKER, KEY[0], KEY[1], freqs, fields)
    return 20.0 * np.log10(np.maximum(rs.smooth_power(freqs, np.abs(h), 1.0 / 6.0), 1e-30))


def figures(values: dict, freqs: np.ndarray | None = None, fields: dict | None = None) -> dict:
    freqs = rs.log_grid() if freqs is None else freqs
    db = smoothed_db(values, freqs, fields)
    points = np.array([f for f, _ in cat.CALIBRATION_POINTS])
    got = np.interp(np.log(points), np.log(freqs), db)
    wanted = np.array([v for _, v in cat.CALIBRATION_POINTS])
    above = (freqs > 8000.0) & (freqs <= 0.45 * cat.SAMPLE_RATES[BAND])
    return {"points_db": [round(float(v), 3) for v in got],
            "max_error_db": round(float(np.max(np.abs(got - wanted))), 3),
            "max_above_8k_db": round(float(np.max(db[above])), 2)}


def tune(values: dict, passes: int = 2, log=print) -> tuple[dict, dict]:
    """Values with the TUNED entries fitted; the report of the last pass."""
    freqs = rs.log_grid()
    points = np.array([f for f, _ in cat.CALIBRATION_POINTS])
    wanted = np.array([v for _, v in cat.CALIBRATION_POINTS])
    ceiling = (freqs > CEILING_FROM_HZ) & (freqs <= 0.45 * cat.SAMPLE_RATES[BAND])
    keys = list(rig.TUNED)
    is_log = [k[1] not in LINEAR for k in keys]
    lower = np.array([math.log(rig.TUNED[k][0]) if lg else rig.TUNED[k][0] for k, lg in zip(keys, is_log)])
    upper = np.array([math.log(rig.TUNED[k][1]) if lg else rig.TUNED[k][1] for k, lg in zip(keys, is_log)])
    start = np.array([math.log(values[k]) if lg else values[k] for k, lg in zip(keys, is_log)])
    start = np.clip(start, lower + 1e-9, upper - 1e-9)
    prior = start.copy()
    scale = np.where(is_log, 1.0, 10.0)

    def unpack(x):
        out = dict(values)
        for key, lg, value in zip(keys, is_log, x):
            out[key] = math.exp(value) if lg else float(value)
        return rig.resolve(out)

    x = start
    for _ in range(passes):
        # the field per unit velocity follows the geometry and the decoupling; it is taken
        # at the current values and refreshed between passes
        fields = rig.source_fields(unpack(x), SPEAKER, KEY[1], freqs, live_close=True)

        def residuals(x_):
            db = smoothed_db(unpack(x_), freqs, fields)
            got = np.interp(np.log(points), np.log(freqs), db)
            over = np.maximum(db[ceiling] - CEILING_DB, 0.0)
            return np.concatenate([got - wanted, over, PRIOR_WEIGHT * (x_ - prior) / scale])

        result = least_squares(residuals, x, bounds=(lower, upper), method="trf",
                               x_scale="jac", max_nfev=600, ftol=1e-12, xtol=1e-12, gtol=1e-12)
        x = result.x
        report = figures(unpack(x), freqs)
        log(f"  calibration pass: {report}")
    return unpack(x), report
