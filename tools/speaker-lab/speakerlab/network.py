"""Reference model in single precision: the signal flow and control update of a speaker model,
run on its flat constant and state tables, operation by operation.

Every arithmetic result is rounded to float32 on its own (no fused or wider intermediate),
in the grouping of the model's documented recursions, with flush-to-zero: a result that is
tiny (below the smallest normal float after rounding to 24 bits with unbounded exponent)
becomes a zero of its own sign. Inputs are never treated as zero (no denormals-are-zero).

Python floats carry the values. Each operation of two float32 values is exact or correctly
rounded in double, and rounding that double to float32 once more gives the correctly
rounded float32 result (53 >= 2 * 24 + 2), so the emulation is exact.
"""

from __future__ import annotations

import math
from array import array

import numpy as np

from . import catalogue as cat

_ROUNDER = array("f", [0.0])
MIN_NORMAL = 2.0 ** -126
# Results in [MIN_NORMAL - 2^-151, MIN_NORMAL) round up to MIN_NORMAL at 24 bits and are
# not tiny; anything below is tiny and flushed, even where gradual underflow would give
# MIN_NORMAL.
TINY_EDGE = MIN_NORMAL - 2.0 ** -151
STATE_FLOOR = float(np.float32(1e-30))
THIRD = float(np.float32(1.0 / 3.0))
TWO_THIRDS = float(np.float32(2.0 / 3.0))
DIFFUSER = float(np.float32(cat.DIFFUSER_GAIN))


def r32(value: float) -> float:
    """float32 result of an operation whose exact (or double) value is `value`, with FTZ."""
    _ROUNDER[0] = value
    result = _ROUNDER[0]
    if -MIN_NORMAL <= result <= MIN_NORMAL and result != 0.0:
        if abs(result) < MIN_NORMAL or abs(value) < TINY_EDGE:
            return math.copysign(0.0, value)
    return result


def f32(value: float) -> float:
    _ROUNDER[0] = value
    return _ROUNDER[0]


def _floor(word: float) -> float:
    return 0.0 if abs(word) < STATE_FLOOR else word


# ---------------------------------------------------------------------------------------
# sections over one block; state words live in the flat state list


def run_second(block: list, out: list, c, state: list, at: int) -> None:
    c0, c1, c2, c3, c4 = c
    s0 = state[at]
    s1 = state[at + 1]
    r = r32
    for i, x in enumerate(block):
        y = r(r(c0 * x) + s0)
        out[i] = y
        n0 = r(r(r(s0 + s1) + r(c1 * x)) - r(c3 * y))
        s1 = r(r(s1 + r(c2 * x)) - r(c4 * y))
        s0 = n0
    state[at] = _floor(s0)
    state[at + 1] = _floor(s1)


def run_reduced(block: list, out: list, c, state: list, at: int) -> None:
    c0, c1, c3, c4 = c
    s0 = state[at]
    s1 = state[at + 1]
    r = r32
    for i, x in enumerate(block):
        y = r(r(c0 * x) + s0)
        out[i] = y
        n0 = r(r(r(s0 + s1) + r(c1 * x)) - r(c3 * y))
        s1 = r(s1 - r(c4 * y))
        s0 = n0
    state[at] = _floor(s0)
    state[at + 1] = _floor(s1)


def run_first(block: list, out: list, c, state: list, at: int) -> None:
    c0, c1, c2 = c
    s = state[at]
    r = r32
    for i, x in enumerate(block):
        y = r(r(c0 * x) + s)
        out[i] = y
        s = r(r(s + r(c1 * x)) - r(c2 * y))
    state[at] = _floor(s)


RUNNERS = {"second": run_second, "reduced": run_reduced, "first": run_first}


class ReferenceModel:
    """One model with its own copy of the initial state."""

    def __init__(self, speaker: str, band: int, constants, initial_state):
        self.speaker = speaker
        self.band = band
        self.layout = cat.layout(speaker, band)
        self.k = [float(v) for v in np.asarray(constants, dtype=np.float32)]
        words = [float(v) for v in np.asarray(initial_state, dtype=np.float32)]
        # diffuserIndex words hold integers in float slots; the initial ones are 0 bits.
        for at in self.layout.diffuser_indices:
            words[at] = 0
        self.state = words
        self.plans = [cat.chain_plan(speaker, band, key) for key in cat.CHAIN_KEYS]
        self.chains = [self._chain_sections(i) for i in range(6)]
        sign = -1.0 if speaker == "4x12" else 1.0
        self.direct_gain = f32(cat.DIRECT_GAIN[band])
        self.output_gain = f32(sign * cat.OUTPUT_GAIN[band])
        self.smoothing = f32(cat.SMOOTHING_FACTOR[band])

    def _chain_sections(self, index: int):
        """[(tap (kind, coefficients, state index), through or None)] plus the final tap."""
        c_at = self.layout.chains[index]
        s_at = self.layout.chain_states[index]
        stages = []
        for letter in cat.expand_plan(self.plans[index]):
            tap_kind, through_kind, _ = cat.STAGE_SHAPES[letter]
            sections = []
            for kind in (tap_kind, through_kind):
                if kind is None:
                    sections.append(None)
                    continue
                n = cat.RECORD_FLOATS[kind]
                sections.append((kind, tuple(self.k[c_at:c_at + n]), s_at))
                c_at += n
                s_at += cat.RECORD_STATE_WORDS[kind]
            stages.append(tuple(sections))
        return stages

    # -----------------------------------------------------------------------------------

    def update(self, immediate: int, microphone_type: float, microphone_position: float) -> None:
        r = r32
        st = self.state
        lay = self.layout
        t = min(max(f32(microphone_type), -1.0), 1.0)
        p = min(max(f32(microphone_position), -1.0), 1.0)
        st[lay.type_value] = t
        f = r(2.0 * p)
        i = int(f)
        if f < 0.0:
            i -= 1
        frac = r(f - float(i))
        a = r(float(1 - immediate) * self.smoothing)
        branch = 0 if t < 0.5 else 1
        words = lay.branch_words[branch]
        table = lay.gain_tables[branch]
        st[words + 2] = p
        e0, e1 = self.k[table + i], self.k[table + i + 1]
        target = r(r(frac * r(e1 - e0)) + e0)
        st[words + 1] = target
        st[words] = r(target + r(r(st[words] - target) * a))
        e0, e1 = self.k[lay.ambience_gain_table + i], self.k[lay.ambience_gain_table + i + 1]
        target = r(r(frac * r(e1 - e0)) + e0)
        st[lay.ambience_gain + 1] = target
        st[lay.ambience_gain] = r(target + r(r(st[lay.ambience_gain] - target) * a))

    def process(self, block: list) -> list:
        r = r32
        st = self.state
        lay = self.layout
        n = len(block)
        x = [f32(v) for v in block]
        for j in range(cat.PRE_SECTION_COUNT[self.speaker]):
            at = lay.pre_records + 5 * j
            run_second(x, x, tuple(self.k[at:at + 5]), st, lay.pre_states + 2 * j)

        branch = 0 if st[lay.type_value] < 0.5 else 1
        words = lay.branch_words[branch]
        gain = st[words]
        x = [r(v * gain) for v in x]
        position = st[words + 2]
        chain = 0 if position < THIRD else (2 if position >= TWO_THIRDS else 1)
        x = self._run_chain(self.chains[3 * branch + chain], x)

        ambience = [0.0] * n
        source = x
        for at, length in zip(lay.diffuser_indices, cat.DIFFUSER_LENGTHS[self.band]):
            pos = int(st[at])
            for i in range(n):
                d = st[at + 1 + pos]
                v = r(r(-DIFFUSER * d) + source[i])
                st[at + 1 + pos] = v
                pos += 1
                if pos == length:
                    pos = 0
                ambience[i] = r(d + r(DIFFUSER * v))
            st[at] = pos
            source = ambience
        run_second(ambience, ambience, tuple(self.k[lay.ambience_record:lay.ambience_record + 5]),
                   st, lay.ambience_state)

        ambience_gain = st[lay.ambience_gain]
        direct, output = self.direct_gain, self.output_gain
        return [r(r(r(xv * direct) + r(av * ambience_gain)) * output)
                for xv, av in zip(x, ambience)]

    def _run_chain(self, stages, x: list) -> list:
        n = len(x)
        taps = []
        for tap, through in stages[:-1]:
            kind, c, at = tap
            out = [0.0] * n
            RUNNERS[kind](x, out, c, self.state, at)
            taps.append(out)
            if through is not None:
                kind, c, at = through
                RUNNERS[kind](x, x, c, self.state, at)
        kind, c, at = stages[-1][0]
        RUNNERS[kind](x, x, c, self.state, at)
        r = r32
        for tap in reversed(taps):
            x = [r(a + b) for a, b in zip(x, tap)]
        return x


def impulse_response(speaker: str, band: int, constants, initial_state, microphone_type: int,
                     position: int, samples: int) -> np.ndarray:
    """Impulse response with the schedule of the golden files: an immediate update, then
    blocks of 16 with a regular update after each."""
    model = ReferenceModel(speaker, band, constants, initial_state)
    t, p = float(microphone_type), position * 0.5
    model.update(1, t, p)
    out = []
    period = cat.CONTROL_PERIOD
    for start in range(0, samples, period):
        block = [0.0] * min(period, samples - start)
        if start == 0:
            block[0] = 1.0
        out += model.process(block)
        model.update(0, t, p)
    return np.array(out, dtype=np.float32)


# ---------------------------------------------------------------------------------------
# the same model as a transfer function, in double


def model_transfer(speaker: str, band: int, constants, key, freqs_hz: np.ndarray) -> np.ndarray:
    """H(f) of the whole model at a fixed setting, from the same tables, in double."""
    from . import records as rec

    lay = cat.layout(speaker, band)
    k = [float(v) for v in np.asarray(constants, dtype=np.float32)]
    rate = cat.SAMPLE_RATES[band]
    d = rec.delta_of(freqs_hz, rate)
    z_inv = 1.0 / (1.0 + d)
    h = np.ones_like(d)
    for j in range(cat.PRE_SECTION_COUNT[speaker]):
        h = h * rec.record_response("second", k[lay.pre_records + 5 * j:lay.pre_records + 5 * j + 5], d)
    branch, position = key
    h = h * k[lay.gain_tables[branch] + position]
    index = cat.CHAIN_KEYS.index(key)
    at = lay.chains[index]
    stages = []
    for letter in cat.expand_plan(cat.chain_plan(speaker, band, key)):
        tap_kind, through_kind, _ = cat.STAGE_SHAPES[letter]
        stage = {"kind": letter, "tap": k[at:at + cat.RECORD_FLOATS[tap_kind]]}
        at += cat.RECORD_FLOATS[tap_kind]
        if through_kind is not None:
            stage["through"] = k[at:at + cat.RECORD_FLOATS[through_kind]]
            at += cat.RECORD_FLOATS[through_kind]
        stages.append(stage)
    chain = h * rec.chain_response(stages, d)
    lines = np.ones_like(d)
    g = cat.DIFFUSER_GAIN
    for length in cat.DIFFUSER_LENGTHS[band]:
        zl = z_inv ** length
        lines = lines * (g + zl) / (1.0 + g * zl)
    ambience = rec.record_response("second", k[lay.ambience_record:lay.ambience_record + 5], d)
    ambience_gain = k[lay.ambience_gain_table + position]
    sign = -1.0 if speaker == "4x12" else 1.0
    return sign * cat.OUTPUT_GAIN[band] * chain * (cat.DIRECT_GAIN[band] + ambience_gain * lines * ambience)
