"""Design records: every invariant of every model, the fixed numbers, shared poles."""

import copy
import math

import numpy as np
import pytest

from speakerlab import catalogue as cat
from speakerlab import invariants as inv
from speakerlab import presections
from speakerlab import records as rec


def bits(values):
    return [rec.f32_bits(v) for v in values]


@pytest.mark.parametrize("speaker", cat.SPEAKERS)
def test_every_record_keeps_every_invariant(designs, speaker):
    assert inv.check_design(designs[speaker]) == []


def test_pole_bounds_across_all_models(designs):
    worst_radius = max(inv.max_pair_radius(d) for d in designs.values())
    assert worst_radius <= cat.MAX_POLE_RADIUS
    lo, hi = cat.FIRST_ORDER_POLE_RANGE
    for d in designs.values():
        for band_record in d["bands"].values():
            for chain in band_record["chains"]:
                for stage in chain["stages"]:
                    if stage["kind"] in "Ff":
                        assert lo - 1e-6 <= inv.first_order_pole(stage["tap"]) <= hi


def _mutated(designs, mutate):
    design_copy = copy.deepcopy(designs["4x12"])
    mutate(design_copy["bands"]["96"]["chains"])
    return inv.check_design(design_copy)


def _stage(chains, key, kind):
    return next(s for s in chains[cat.CHAIN_KEYS.index(key)]["stages"] if s["kind"] == kind)


@pytest.mark.parametrize("mutation,expected", [
    (lambda c: _stage(c, (0, 0), "S")["tap"].__setitem__(2, 0.0), "reduced record"),
    (lambda c: _stage(c, (0, 0), "S")["tap"].__setitem__(2, 0.5), "z^-2 term"),
    (lambda c: _stage(c, (0, 0), "F")["tap"].__setitem__(1, 0.25), "c0 == c1"),
    (lambda c: _stage(c, (1, 0), "Z")["tap"].__setitem__(1, 0.125), "c0 == c1"),
    (lambda c: _stage(c, (0, 0), "S")["through"].__setitem__(3, 1.5), "differ in c3/c4"),
    (lambda c: _stage(c, (0, 0), "S")["through"].__setitem__(0, 0.9), "all-pass"),
    (lambda c: _stage(c, (0, 1), "F")["through"].__setitem__(2, 0.5), "differ in c2"),
    (lambda c: _stage(c, (1, 1), "f")["tap"].__setitem__(2, 1.98), "-0.99"),
    (lambda c: c[0].__setitem__("plan", "S10 T"), "catalogue says"),
])
def test_invariant_checks_catch_broken_records(designs, mutation, expected):
    faults = _mutated(designs, mutation)
    assert any(expected in f for f in faults), faults


def test_through_gain_and_radius_limits_are_enforced():
    c3, c4 = rec.pair_denominator(1000.0, 300.0, 96000.0)
    assert inv.check_through("second", rec.round_record(rec.through_second(c3, c4, 1.2)),
                             [0, 0, 0, rec.f32(c3), rec.f32(c4)], "x")
    assert not inv.check_through("second", rec.round_record(rec.through_second(c3, c4, 0.5)),
                                 [0, 0, 0, rec.f32(c3), rec.f32(c4)], "x")
    # sigma 40/s is a radius of 0.99979 at 192 kHz: too close to the unit circle
    c3, c4 = rec.pair_denominator(100.0, 40.0, 192000.0)
    assert inv.check_poles_of_record("second", [0, 0, 0, c3, c4], "x")
    c3, c4 = rec.pair_denominator(100.0, 90.0, 192000.0)
    assert not inv.check_poles_of_record("second", [0, 0, 0, c3, c4], "x")


def test_fixed_numbers_appear_exactly(designs):
    for speaker, d in designs.items():
        for band in cat.BANDS:
            band_record = d["bands"][str(band)]
            h0, h2, ambience = cat.AMBIENCE[band]
            assert bits(band_record["ambienceRecord"]) == bits(ambience)
            assert bits(band_record["ambienceGainTable"]) == bits((h0, h0, h2, h2))
            pre = band_record["preRecords"]
            assert len(pre) == cat.PRE_SECTION_COUNT[speaker]
            if band == 96:
                for i, r in enumerate(pre):
                    assert bits(r) == bits(cat.PRE_RECORDS_96[i])
            if speaker == "2x12":
                assert bits(pre[0]) == bits(designs["4x12"]["bands"][str(band)]["preRecords"][0])
            gains = [rec.f32(v) for g in band_record["gainTables"] for v in g]
            assert max(gains) == rec.f32(0.89125097)
            for g in band_record["gainTables"]:
                assert rec.f32_bits(g[3]) == rec.f32_bits(g[2])
        f_stage = _stage(d["bands"]["96"]["chains"], (1, 1), "f") if speaker == "4x12" else None
        if f_stage is not None:
            assert rec.f32(f_stage["tap"][2]) == rec.f32(1.99)


def test_published_pre_sections_read_as_described():
    dip = presections.continuous_roots(cat.PRE_RECORDS_96[0])
    bump = presections.continuous_roots(cat.PRE_RECORDS_96[1])
    assert abs(dip["pole"].imag / (2 * math.pi) - 352.3) < 0.05
    assert abs(bump["pole"].imag / (2 * math.pi) - 89.0) < 0.05


@pytest.mark.parametrize("band", [b for b in cat.BANDS if b != 96])
def test_derived_pre_sections_keep_frequencies_and_levels(band):
    freqs = np.geomspace(20.0, 15000.0, 300)
    for index, record_96 in enumerate(cat.PRE_RECORDS_96):
        derived = presections.band_pre_records("4x12", band)[index]
        roots_96 = presections.continuous_roots(record_96)
        rate = cat.SAMPLE_RATES[band]
        poles = rec.second_order_poles(derived[3], derived[4])
        s = rate * np.log(poles[np.argmax(poles.imag)])
        assert abs(s.imag - roots_96["pole"].imag) / (2 * math.pi) < 0.02
        a = rec.to_db(rec.record_response("second", derived, rec.delta_of(freqs, rate)))
        b = rec.to_db(rec.record_response("second", record_96, rec.delta_of(freqs, 96000)))
        assert np.max(np.abs(a - b)) < 0.05


def test_poles_are_shared_in_continuous_time(designs):
    """The records' denominators are the chain's continuous-time poles in every band; a
    record taken from another band breaks that."""
    d = copy.deepcopy(designs["1x12"])
    chains_48 = d["bands"]["48"]["chains"]
    chains_44 = d["bands"]["44"]["chains"]
    chains_48[1]["stages"][3] = copy.deepcopy(chains_44[1]["stages"][3])
    assert any("pole pair" in f for f in inv.check_design(d))
