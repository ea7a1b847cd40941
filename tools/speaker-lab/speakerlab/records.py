"""Records in delta form (d = z - 1): construction from continuous-time poles, exact float32
text forms, and double-precision evaluation of records and chains.

Record layouts:
  second  (c0, c1, c2, c3, c4): (c0 d^2 + c1 d + c2) / (d^2 + c3 d + c4)
  reduced (c0, c1, c3, c4):      the same with c2 = 0
  first   (c0, c1, c2):          (c0 d + c1) / (d + c2)
"""

from __future__ import annotations

import math
from fractions import Fraction

import numpy as np

from . import catalogue as cat

# ---------------------------------------------------------------------------------------
# float32 values and their text


def f32(value: float) -> float:
    """Round once to float32 and hand back the Python float holding that value exactly."""
    return float(np.float32(value))


def f32_bits(value: float) -> int:
    return int(np.array([value], dtype=np.float32).view(np.uint32)[0])


def shortest_f32_text(value: float) -> str:
    """Shortest decimal that reads back as the same float32 (positional or exponent form)."""
    text = repr(np.float32(value))
    # numpy writes e.g. '1e-05' or 'inf'; only finite values occur in tables.
    if not np.isfinite(np.float32(value)):
        raise ValueError(f"non-finite table value {value}")
    return text


def json_float(value: float) -> float:
    """The Python float whose repr is the shortest float32 text of value.

    json writes floats through repr, so a record stored this way reads back as text that
    parses to the same float32. The round trip is verified, not assumed.
    """
    text = shortest_f32_text(value)
    result = float(text)
    if f32_bits(decimal_to_f32(text)) != f32_bits(value):
        raise AssertionError(f"float32 text {text} does not read back as {value!r}")
    return result


def cpp_float_text(value: float) -> str:
    """C++ literal of a float32: shortest digits, exponent form, 'f' suffix, sign of -0.0 kept."""
    value32 = np.float32(value)
    if value32 == 0:
        return "-0.0f" if math.copysign(1.0, float(value32)) < 0 else "0.0f"
    text = np.format_float_scientific(value32, unique=True, exp_digits=2, trim="0")
    return text + "f"


def decimal_to_f32(text: str) -> float:
    """Correctly rounded decimal -> float32 (ties to even), without a detour through double
    rounding: what a C++ compiler does with a float literal."""
    text = text.strip().rstrip("fF")
    exact = Fraction(text)
    if exact == 0:
        return -0.0 if text.lstrip().startswith("-") else 0.0
    guess = np.float32(float(exact))
    with np.errstate(over="ignore"):
        neighbours = (guess, np.nextafter(guess, np.float32(np.inf)),
                      np.nextafter(guess, np.float32(-np.inf)))
    candidates = {float(v) for v in neighbours if np.isfinite(v)}
    if not candidates:
        raise ValueError(f"{text} is beyond the float32 range")
    best = None
    for candidate in sorted(candidates):
        distance = abs(Fraction(candidate) - exact)
        key = (distance, f32_bits(candidate) & 1)
        if best is None or key < best[0]:
            best = (key, candidate)
    return best[1]


# ---------------------------------------------------------------------------------------
# poles


def pair_denominator(f_hz: float, sigma: float, rate: float) -> tuple[float, float]:
    """(c3, c4) of the pole pair exp((-sigma +- j 2 pi f) / rate), in double.

    d_p = z_p - 1 is formed with expm1 so that poles close to z = 1 keep their digits.
    """
    theta = 2.0 * math.pi * f_hz / rate
    radius = math.exp(-sigma / rate)
    u = math.expm1(-sigma / rate) * math.cos(theta) - 2.0 * math.sin(0.5 * theta) ** 2
    v = radius * math.sin(theta)
    return -2.0 * u, u * u + v * v


def real_pole(pole: dict, rate: float) -> float:
    """z of a real pole record {"sigma", "sign"} or the fixed {"z"}."""
    if "z" in pole:
        return float(pole["z"])
    return pole["sign"] * math.exp(-pole["sigma"] / rate)


def first_order_c2(pole: dict, rate: float) -> float:
    """c2 = 1 - p of a real pole, with expm1 for poles near z = 1."""
    if "z" in pole:
        return 1.0 - float(pole["z"])
    if pole["sign"] > 0:
        return -math.expm1(-pole["sigma"] / rate)
    return 1.0 + math.exp(-pole["sigma"] / rate)


def pair_radius(c3: float, c4: float) -> float:
    # a2 = 1 - c3 + c4 is the product of the pole pair (radius squared for a complex pair).
    disc = c3 * c3 - 4.0 * c4
    if disc < 0.0:
        return math.sqrt(1.0 - c3 + c4)
    root = math.sqrt(disc)
    return max(abs(1.0 + (-c3 + root) / 2.0), abs(1.0 + (-c3 - root) / 2.0))


def second_order_poles(c3: float, c4: float) -> np.ndarray:
    return 1.0 + np.roots([1.0, c3, c4])


# ---------------------------------------------------------------------------------------
# records from design quantities (double in, float32 out once)


def through_second(c3: float, c4: float, gain: float) -> list[float]:
    """g times the all-pass (a2 + a1 z^-1 + z^-2) / (1 + a1 z^-1 + a2 z^-2), delta form."""
    a2 = 1.0 - c3 + c4
    return [gain * a2, gain * (2.0 * c4 - c3), gain * c4, c3, c4]


def through_first(c2: float, gain: float) -> list[float]:
    """g times (a1 + z^-1) / (1 + a1 z^-1) with a1 = c2 - 1."""
    return [gain * (c2 - 1.0), gain * c2, c2]


def tap_second(c0: float, c1: float, c3: float, c4: float) -> list[float]:
    """Tap without a z^-2 term: c2 = c1 - c0."""
    return [c0, c1, c1 - c0, c3, c4]


def round_record(record: list[float]) -> list[float]:
    return [f32(v) for v in record]


# ---------------------------------------------------------------------------------------
# evaluation in double


def delta_of(freqs_hz: np.ndarray, rate: float) -> np.ndarray:
    """d = exp(j w / rate) - 1 without cancellation at low frequencies."""
    theta = 2.0 * np.pi * np.asarray(freqs_hz, dtype=float) / rate
    return -2.0 * np.sin(0.5 * theta) ** 2 + 1j * np.sin(theta)


def record_response(kind: str, record, d: np.ndarray) -> np.ndarray:
    c = [float(v) for v in record]
    if kind == "second":
        return (c[0] * d * d + c[1] * d + c[2]) / (d * d + c[3] * d + c[4])
    if kind == "reduced":
        return (c[0] * d * d + c[1] * d) / (d * d + c[2] * d + c[3])
    if kind == "first":
        return (c[0] * d + c[1]) / (d + c[2])
    raise ValueError(kind)


def chain_response(stages: list[dict], d: np.ndarray) -> np.ndarray:
    """Response of a chain given as design stages [{"kind", "tap", "through"?}, ...]."""
    total = np.zeros_like(d)
    main = np.ones_like(d)
    for stage in stages:
        tap_kind, through_kind, _ = cat.STAGE_SHAPES[stage["kind"]]
        total = total + record_response(tap_kind, stage["tap"], d) * main
        if through_kind is not None:
            main = main * record_response(through_kind, stage["through"], d)
    return total


def to_db(h: np.ndarray) -> np.ndarray:
    return 20.0 * np.log10(np.maximum(np.abs(h), 1e-300))


def section_from_z(b: tuple[float, float, float], a: tuple[float, float, float]) -> list[float]:
    """(b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2) -> second-order record (a[0] = 1)."""
    b0, b1, b2 = b
    _, a1, a2 = a
    return [b0, b1 + 2.0 * b0, b0 + b1 + b2, a1 + 2.0, 1.0 + a1 + a2]


def z_from_section(record) -> tuple[tuple[float, float, float], tuple[float, float, float]]:
    c0, c1, c2, c3, c4 = (float(v) for v in record)
    b0 = c0
    b1 = c1 - 2.0 * c0
    b2 = c2 - b0 - b1
    a1 = c3 - 2.0
    a2 = c4 - 1.0 - a1
    return (b0, b1, b2), (1.0, a1, a2)
