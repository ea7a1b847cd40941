"""Table layouts: plans, region sums against the catalogue lengths, first indices."""

import pytest

from speakerlab import catalogue as cat

MODELS = [(s, b) for s in cat.SPEAKERS for b in cat.BANDS]


@pytest.mark.parametrize("speaker,band", MODELS)
def test_region_sums_match_catalogue_lengths(speaker, band):
    plans = [cat.chain_plan(speaker, band, key) for key in cat.CHAIN_KEYS]
    pre = cat.PRE_SECTION_COUNT[speaker]
    constant_sum = 5 * pre + 2 * 4 + sum(cat.plan_constant_floats(p) for p in plans) + 5 + 4
    state_sum = (2 * pre + 1 + 2 * 3 + sum(cat.plan_state_words(p) for p in plans)
                 + sum(1 + n for n in cat.DIFFUSER_LENGTHS[band]) + 2 + 2)
    assert (constant_sum, state_sum) == cat.catalogue_lengths(speaker, band)
    layout = cat.layout(speaker, band)
    assert (layout.constant_length, layout.state_length) == (constant_sum, state_sum)
    assert all(cat.plan_poles(p) == 22 for p in plans)


def test_plan_sizes_of_the_catalogue():
    assert cat.plan_constant_floats("F2 S9 T") == 107
    assert cat.plan_constant_floats("S10 T") == 105
    assert cat.plan_constant_floats("F4 S8 T") == 109
    assert cat.plan_state_words("F f S9 T") == 41
    assert cat.plan_state_words("F2 S9 T") == 42
    assert cat.plan_state_words("F2 S6 Z S2 U") == 42


def test_plan_exceptions_are_band_dependent():
    assert cat.chain_plan("2x12", 44, (1, 0)) == "F4 S8 T"
    assert cat.chain_plan("2x12", 88, (1, 0)) == "F4 S8 U"
    assert cat.chain_plan("4x12", 48, (1, 1)) == "F f S5 Z S3 T"
    assert cat.chain_plan("4x12", 96, (1, 1)) == "F f S9 T"
    assert cat.chain_plan("4x10Bass", 96, (1, 1)) == "F2 S6 Z S2 U"
    assert cat.chain_plan("4x10Bass", 88, (1, 1)) == "F2 S9 U"
    exceptional = {(s, b) for (s, b, _) in cat.PLAN_EXCEPTIONS}
    # the lengths that change between bands are exactly those of the exceptions
    for speaker in cat.SPEAKERS:
        lengths = {b: cat.catalogue_lengths(speaker, b)[0] for b in cat.BANDS}
        plain = [lengths[b] for b in cat.BANDS if (speaker, b) not in exceptional]
        assert len(set(plain)) == 1


def test_first_indices_of_4x12n96a():
    layout = cat.layout("4x12", 96)
    assert layout.pre_records == 0
    assert layout.gain_tables == (10, 335)
    assert layout.chains == (14, 121, 228, 339, 443, 547)
    assert layout.ambience_record == 654
    assert layout.ambience_gain_table == 659
    assert layout.pre_states == 0
    assert layout.type_value == 4
    assert layout.branch_words == (5, 134)
    assert layout.chain_states == (8, 50, 92, 137, 179, 220)
    assert layout.diffuser_indices == (262, 647, 1118, 1666)
    assert layout.ambience_state == 2416
    assert layout.ambience_gain == 2418


@pytest.mark.parametrize("plan", ["F2 S9 T", "F f S5 Z S3 T", "F2 S6 Z S2 U", "S9 Z T"])
def test_plan_text_round_trip(plan):
    assert cat.compress_plan(cat.expand_plan(plan)) == plan


@pytest.mark.parametrize("bad", ["F2 S9", "T S9", "F2 T S9 T", "X3 T", ""])
def test_malformed_plans_are_refused(bad):
    with pytest.raises(ValueError):
        cat.expand_plan(bad)
