"""The fixed facts of the thirty models: speakers, bands, chain plans, band constants,
published numbers and the table layouts with their lengths.

Everything here is data of the product itself; the lab designs only what is not listed here
(chain poles and taps, gain tables, pre-sections of the bands other than 96).
"""

from __future__ import annotations

import re
from dataclasses import dataclass

SPEAKERS = ("1x12", "2x12", "4x12", "4x10", "4x10Bass")
BANDS = (44, 48, 88, 96, 176, 192)
SAMPLE_RATES = {44: 44100, 48: 48000, 88: 88200, 96: 96000, 176: 176400, 192: 192000}

# (branch, position) of the six chains in table order.
CHAIN_KEYS = ((0, 0), (0, 1), (0, 2), (1, 0), (1, 1), (1, 2))

CONTROL_PERIOD = 16

# All-pass line lengths: 4.0, 4.9, 5.7 and 7.8 ms at the band's nominal rate.
DIFFUSER_LENGTHS = {
    44: (176, 216, 251, 344),
    48: (192, 235, 274, 374),
    88: (353, 432, 503, 688),
    96: (384, 470, 547, 749),
    176: (706, 864, 1005, 1376),
    192: (768, 941, 1094, 1498),
}
DIFFUSER_GAIN = 0.7

DIRECT_GAIN = {44: 0.6137448, 48: 0.6139337, 88: 0.61413807, 96: 0.61416644,
               176: 0.61424387, 192: 0.61424065}
# Magnitude; the 4x12 models invert the polarity of their output.
OUTPUT_GAIN = {44: 0.51524305, 48: 0.51508456, 88: 0.51491314, 96: 0.51488936,
               176: 0.51482445, 192: 0.51482713}
SMOOTHING_FACTOR = {44: 0.9886668, 48: 0.9895828, 88: 0.9943172, 96: 0.9947777,
                    176: 0.99715453, 192: 0.99738544}

PRE_SECTION_COUNT = {"1x12": 0, "2x12": 1, "4x12": 2, "4x10": 0, "4x10Bass": 0}

# The two fixed sections of the 4x12 in band 96 (the 2x12 uses the first one).
PRE_RECORDS_96 = (
    (0.54411602, 0.0037068091, 0.00030953941, 0.012986255, 0.00056712289),
    (0.64737588, 0.0022246134, 2.2424267e-05, 0.0018009233, 3.4667086e-05),
)

# band: (h0, h2, ambience record c0..c4)
AMBIENCE = {
    44: (1.6461275e-16, 0.31136698, (0.013900747, 0.05532497, 0.055048347, 0.40159842, 0.067163535)),
    48: (1.6450072e-16, 0.31115508, (0.011915664, 0.047424342, 0.04718722, 0.3695676, 0.057515427)),
    88: (1.6437948e-16, 0.31092572, (0.003815854, 0.015187099, 0.015111163, 0.20256865, 0.01839895)),
    96: (1.6436267e-16, 0.31089395, (0.0032464403, 0.012920832, 0.012856228, 0.18621489, 0.015651081)),
    176: (1.6431674e-16, 0.31080705, (0.0010017077, 0.0039867968, 0.0039668633, 0.10159015, 0.0048272722)),
    192: (1.6431865e-16, 0.31081066, (0.00084891671, 0.0033786886, 0.0033617951, 0.093354017, 0.0040910346)),
}

GAIN_TABLE_PEAK = 0.89125097  # -1 dB

# The 4x12 f stage of chain 1,1 sits at z = -0.99 in every band.
FIXED_F_STAGE_POLE = -0.99

FIRST_ORDER_POLE_RANGE = (-0.99, 0.999)
MAX_POLE_RADIUS = 0.99956
THROUGH_GAIN_RANGE = (0.29, 1.13)

CALIBRATION_MODEL = ("4x12", 96, (0, 0))
CALIBRATION_POINTS = ((40.0, 0.6), (100.0, 9.1), (200.0, 10.5), (1000.0, 5.3),
                      (4000.0, 9.7), (5000.0, 2.8), (6000.0, -7.4), (8000.0, -25.6))
CALIBRATION_CEILING_DB = -17.0  # above 8 kHz

BASE_PLANS = {
    "1x12": ("F4 S8 T", "S10 T", "F2 S9 T", "F2 S9 T", "S10 T", "S10 T"),
    "2x12": ("F2 S9 T", "F2 S9 T", "S10 T", "F4 S8 U", "F2 S9 T", "F2 S9 T"),
    "4x12": ("F2 S9 T", "F2 S9 T", "F2 S9 T", "S9 Z T", "F f S9 T", "F2 S9 T"),
    "4x10": ("F2 S9 T", "S10 T", "S10 T", "S10 T", "F2 S9 T", "F2 S9 T"),
    "4x10Bass": ("S10 T", "S10 T", "S10 T", "F2 S9 T", "F2 S9 U", "S10 T"),
}

# Plans that differ by band, only because a tap's c2 is zero in some bands and not in others.
PLAN_EXCEPTIONS = {
    ("2x12", 44, (1, 0)): "F4 S8 T",
    ("2x12", 48, (1, 0)): "F4 S8 T",
    ("4x12", 44, (1, 1)): "F f S5 Z S3 T",
    ("4x12", 48, (1, 1)): "F f S5 Z S3 T",
    ("4x10Bass", 96, (1, 1)): "F2 S6 Z S2 U",
}

CONSTANT_LENGTHS = {
    "1x12": (655, 655, 655, 655, 655, 655),
    "2x12": (664, 664, 663, 663, 663, 663),
    "4x12": (662, 662, 663, 663, 663, 663),
    "4x10": (653, 653, 653, 653, 653, 653),
    "4x10Bass": (650, 650, 650, 649, 650, 650),
}
_STATE_LENGTHS_PLAIN = (1254, 1342, 2243, 2417, 4218, 4568)
STATE_LENGTHS = {
    "1x12": _STATE_LENGTHS_PLAIN,
    "2x12": (1256, 1344, 2245, 2419, 4220, 4570),
    "4x12": (1257, 1345, 2246, 2420, 4221, 4571),
    "4x10": _STATE_LENGTHS_PLAIN,
    "4x10Bass": _STATE_LENGTHS_PLAIN,
}

# Floats per record, state words per record, poles per stage.
STAGE_SHAPES = {
    # kind: (tap kind, through kind or None, poles)
    "F": ("first", "first", 1),
    "S": ("second", "second", 2),
    "Z": ("reduced", "second", 2),
    "f": ("first", None, 1),
    "T": ("second", None, 2),
    "U": ("reduced", None, 2),
}
RECORD_FLOATS = {"first": 3, "second": 5, "reduced": 4}
RECORD_STATE_WORDS = {"first": 1, "second": 2, "reduced": 2}

GOLDEN_MODELS = ("1x12n44a", "2x12n44a", "4x12n44a", "4x12n96a", "4x10n88a",
                 "4x10Bassn96a", "4x10Bassn192a")
GOLDEN_SAMPLES = 4096


def model_name(speaker: str, band: int) -> str:
    return f"{speaker}n{band}a"


def parse_model_name(name: str) -> tuple[str, int]:
    match = re.fullmatch(r"(1x12|2x12|4x12|4x10|4x10Bass)n(44|48|88|96|176|192)a", name)
    if not match:
        raise ValueError(f"not a model name: {name}")
    return match.group(1), int(match.group(2))


def chain_plan(speaker: str, band: int, key: tuple[int, int]) -> str:
    exception = PLAN_EXCEPTIONS.get((speaker, band, key))
    if exception is not None:
        return exception
    return BASE_PLANS[speaker][CHAIN_KEYS.index(key)]


def expand_plan(plan: str) -> list[str]:
    """'F2 S9 T' -> ['F', 'F', 'S', ..., 'T']; the last letter is the final tap."""
    stages: list[str] = []
    for token in plan.split():
        match = re.fullmatch(r"([FSZfTU])(\d*)", token)
        if not match:
            raise ValueError(f"bad plan token {token!r} in {plan!r}")
        stages.extend(match.group(1) * (int(match.group(2)) if match.group(2) else 1))
    if not stages or stages[-1] not in "TU" or any(s in "TU" for s in stages[:-1]):
        raise ValueError(f"plan {plan!r} must end in exactly one final tap")
    return stages


def compress_plan(stages: list[str]) -> str:
    tokens: list[str] = []
    i = 0
    while i < len(stages):
        j = i
        while j < len(stages) and stages[j] == stages[i]:
            j += 1
        count = j - i
        tokens.append(stages[i] + (str(count) if count > 1 else ""))
        i = j
    return " ".join(tokens)


def plan_poles(plan: str) -> int:
    return sum(STAGE_SHAPES[s][2] for s in expand_plan(plan))


def plan_records(plan: str) -> list[str]:
    """Record kinds of a chain in running order: tap before through, final tap last."""
    kinds: list[str] = []
    for stage in expand_plan(plan):
        tap, through, _ = STAGE_SHAPES[stage]
        kinds.append(tap)
        if through is not None:
            kinds.append(through)
    return kinds


def plan_constant_floats(plan: str) -> int:
    return sum(RECORD_FLOATS[k] for k in plan_records(plan))


def plan_state_words(plan: str) -> int:
    return sum(RECORD_STATE_WORDS[k] for k in plan_records(plan))


@dataclass(frozen=True)
class Layout:
    """First indices of the regions of one model's two tables."""

    pre_records: int
    gain_tables: tuple[int, int]
    chains: tuple[int, ...]          # constant-table start of each chain, table order
    ambience_record: int
    ambience_gain_table: int
    constant_length: int
    pre_states: int
    type_value: int
    branch_words: tuple[int, int]    # positionGain, then positionGainTarget, positionValue
    chain_states: tuple[int, ...]
    diffuser_indices: tuple[int, ...]
    ambience_state: int
    ambience_gain: int               # then ambienceGainTarget
    state_length: int


def layout(speaker: str, band: int) -> Layout:
    plans = [chain_plan(speaker, band, key) for key in CHAIN_KEYS]
    pre_count = PRE_SECTION_COUNT[speaker]

    index = 0
    pre_records = index
    index += 5 * pre_count
    gain_tables = []
    chains = []
    for branch in (0, 1):
        gain_tables.append(index)
        index += 4
        for position in range(3):
            chains.append(index)
            index += plan_constant_floats(plans[3 * branch + position])
    ambience_record = index
    index += 5
    ambience_gain_table = index
    index += 4
    constant_length = index

    index = 0
    pre_states = index
    index += 2 * pre_count
    type_value = index
    index += 1
    branch_words = []
    chain_states = []
    for branch in (0, 1):
        branch_words.append(index)
        index += 3
        for position in range(3):
            chain_states.append(index)
            index += plan_state_words(plans[3 * branch + position])
    diffuser_indices = []
    for length in DIFFUSER_LENGTHS[band]:
        diffuser_indices.append(index)
        index += 1 + length
    ambience_state = index
    index += 2
    ambience_gain = index
    index += 2
    return Layout(pre_records, tuple(gain_tables), tuple(chains), ambience_record,
                  ambience_gain_table, constant_length, pre_states, type_value,
                  tuple(branch_words), tuple(chain_states), tuple(diffuser_indices),
                  ambience_state, ambience_gain, index)


def catalogue_lengths(speaker: str, band: int) -> tuple[int, int]:
    column = BANDS.index(band)
    return CONSTANT_LENGTHS[speaker][column], STATE_LENGTHS[speaker][column]
