"""Table layouts: region sums of every plan against the catalogue lengths (which pins the plan
sizes and the band-dependent plans), the plan text."""

import pytest

from speakerlab import catalogue as cat


def test_region_sums_match_catalogue_lengths_and_only_plan_exceptions_change_them():
    exceptional = {(s, b) for (s, b, _) in cat.PLAN_EXCEPTIONS}
    for speaker in cat.SPEAKERS:
        plain_lengths = set()
        for band in cat.BANDS:
            plans = [cat.chain_plan(speaker, band, key) for key in cat.CHAIN_KEYS]
            pre = cat.PRE_SECTION_COUNT[speaker]
            constant_sum = 5 * pre + 2 * 4 + sum(cat.plan_constant_floats(p) for p in plans) + 5 + 4
            state_sum = (2 * pre + 1 + 2 * 3 + sum(cat.plan_state_words(p) for p in plans)
                         + sum(1 + n for n in cat.DIFFUSER_LENGTHS[band]) + 2 + 2)
            assert (constant_sum, state_sum) == cat.catalogue_lengths(speaker, band)
            layout = cat.layout(speaker, band)
            assert (layout.constant_length, layout.state_length) == (constant_sum, state_sum)
            assert all(cat.plan_poles(p) == 22 for p in plans)
            if (speaker, band) not in exceptional:
                plain_lengths.add(constant_sum)
        assert len(plain_lengths) == 1, speaker


@pytest.mark.parametrize("plan", ["F f S5 Z S3 T", "F2 S6 Z S2 U"])
def test_plan_text_round_trip(plan):
    assert cat.compress_plan(cat.expand_plan(plan)) == plan


@pytest.mark.parametrize("bad", ["F2 S9", "T S9", "F2 T S9 T", "X3 T", ""])
def test_malformed_plans_are_refused(bad):
    with pytest.raises(ValueError):
        cat.expand_plan(bad)
