"""Fixed pre-sections of the 2x12 and 4x12 in every band.

Band 96 holds the given records. Other bands take their zeros and poles back to continuous
time (s = R96 log z) and forward again (z = exp(s / R)), with the gain set so that the level
at DC stays that of band 96. Pole and zero frequencies stay put; the flat level towards
Nyquist moves by hundredths of a dB.
"""

from __future__ import annotations

import cmath
import math

import numpy as np

from . import catalogue as cat
from .records import f32


def _delta_roots(a: float, b: float, c: float) -> tuple[complex, complex]:
    """Roots of a d^2 + b d + c (a complex pair for these sections)."""
    disc = complex(b * b - 4.0 * a * c)
    root = cmath.sqrt(disc)
    return (-b + root) / (2.0 * a), (-b - root) / (2.0 * a)


def _to_s(d: complex, rate: float) -> complex:
    # log(1 + d) with log1p on the radius so that roots near z = 1 keep their digits
    real = 0.5 * math.log1p(2.0 * d.real + abs(d) ** 2)
    imag = math.atan2(d.imag, 1.0 + d.real)
    return complex(real, imag) * rate


def _to_delta(s: complex, rate: float) -> complex:
    x = s / rate
    return complex(math.expm1(x.real) * math.cos(x.imag) - 2.0 * math.sin(0.5 * x.imag) ** 2,
                   math.exp(x.real) * math.sin(x.imag))


def continuous_roots(record) -> dict:
    """Zeros, poles (s-plane, one of each conjugate pair) and DC gain of a band-96 record."""
    c0, c1, c2, c3, c4 = (float(v) for v in record)
    rate = cat.SAMPLE_RATES[96]
    zero = _delta_roots(c0, c1, c2)[0]
    pole = _delta_roots(1.0, c3, c4)[0]
    return {"zero": _to_s(zero, rate), "pole": _to_s(pole, rate), "dc_gain": c2 / c4}


def derive_record(record_96, band: int) -> list[float]:
    """The band's record in double precision (not yet rounded)."""
    if band == 96:
        return [float(v) for v in record_96]
    roots = continuous_roots(record_96)
    rate = cat.SAMPLE_RATES[band]
    dz = _to_delta(roots["zero"], rate)
    dp = _to_delta(roots["pole"], rate)
    num_c1, num_c2 = -2.0 * dz.real, abs(dz) ** 2
    c3, c4 = -2.0 * dp.real, abs(dp) ** 2
    c0 = roots["dc_gain"] * c4 / num_c2
    return [c0, c0 * num_c1, c0 * num_c2, c3, c4]


def band_pre_records(speaker: str, band: int) -> list[list[float]]:
    """float32 pre-records of a speaker in a band; the 2x12 takes the first 4x12 record."""
    count = cat.PRE_SECTION_COUNT[speaker]
    return [[f32(v) for v in derive_record(cat.PRE_RECORDS_96[i], band)] for i in range(count)]


def analog_section_response(index: int, freqs_hz, unit_dc: bool = False) -> np.ndarray:
    """Continuous-time response of fixed section `index` (0: the dip, 1: the peak)."""
    s = 2j * np.pi * np.asarray(freqs_hz, dtype=float)
    roots = continuous_roots(cat.PRE_RECORDS_96[index])
    zero, pole = roots["zero"], roots["pole"]
    num = (s - zero) * (s - np.conj(zero)) / abs(zero) ** 2
    den = (s - pole) * (s - np.conj(pole)) / abs(pole) ** 2
    return (1.0 if unit_dc else roots["dc_gain"]) * num / den


def analog_pre_response(speaker: str, freqs_hz: np.ndarray) -> np.ndarray:
    """Continuous-time pre-section response (the cabinet features they stand for)."""
    h = np.ones(np.shape(freqs_hz), dtype=complex)
    for i in range(cat.PRE_SECTION_COUNT[speaker]):
        h = h * analog_section_response(i, freqs_hz)
    return h


def digital_pre_response(pre_records, freqs_hz, rate: float) -> np.ndarray:
    """Response of a band's float32 pre-records, the factor the chain is divided by."""
    from .records import delta_of, record_response

    d = delta_of(freqs_hz, rate)
    h = np.ones_like(d)
    for record in pre_records:
        h = h * record_response("second", record, d)
    return h
