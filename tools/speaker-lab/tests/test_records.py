"""Design records: the invariant checks (which emission runs on every record) catch broken
records, poles are shared between bands, the pre-sections carry over to every band."""

import copy
import math

import numpy as np
import pytest

from speakerlab import catalogue as cat
from speakerlab import invariants as inv
from speakerlab import presections
from speakerlab import records as rec


def _stage(chains, key, kind):
    return next(s for s in chains[cat.CHAIN_KEYS.index(key)]["stages"] if s["kind"] == kind)


@pytest.mark.parametrize("mutation,expected", [
    (lambda c: _stage(c, (0, 0), "S")["tap"].__setitem__(2, 0.0), "reduced record"),
    (lambda c: _stage(c, (0, 0), "S")["tap"].__setitem__(2, 0.5), "z^-2 term"),
    (lambda c: _stage(c, (0, 0), "F")["tap"].__setitem__(1, 0.25), "c0 == c1"),
    (lambda c: _stage(c, (0, 0), "S")["through"].__setitem__(3, 1.5), "differ in c3/c4"),
    (lambda c: _stage(c, (0, 0), "S")["through"].__setitem__(0, 0.9), "all-pass"),
    (lambda c: _stage(c, (0, 1), "F")["through"].__setitem__(2, 0.5), "differ in c2"),
    (lambda c: _stage(c, (1, 1), "f")["tap"].__setitem__(2, 1.98), "-0.99"),
    (lambda c: c[0].__setitem__("plan", "S10 T"), "catalogue says"),
])
def test_invariant_checks_catch_broken_records(designs, mutation, expected):
    design_copy = copy.deepcopy(designs["4x12"])
    mutation(design_copy["bands"]["96"]["chains"])
    faults = inv.check_design(design_copy)
    assert any(expected in f for f in faults), faults


def test_through_gain_and_radius_limits_are_enforced():
    c3, c4 = rec.pair_denominator(1000.0, 300.0, 96000.0)
    tap = [0, 0, 0, rec.f32(c3), rec.f32(c4)]
    assert inv.check_through("second", rec.round_record(rec.through_second(c3, c4, 1.2)), tap, "x")
    assert not inv.check_through("second", rec.round_record(rec.through_second(c3, c4, 0.5)), tap, "x")
    # sigma 40/s is a radius of 0.99979 at 192 kHz: too close to the unit circle
    assert inv.check_poles_of_record("second", [0, 0, 0, *rec.pair_denominator(100.0, 40.0, 192000.0)], "x")
    assert not inv.check_poles_of_record("second", [0, 0, 0, *rec.pair_denominator(100.0, 90.0, 192000.0)], "x")


def test_poles_are_shared_in_continuous_time(designs):
    """The records' denominators are the chain's continuous-time poles in every band; a
    record taken from another band breaks that."""
    d = copy.deepcopy(designs["1x12"])
    d["bands"]["48"]["chains"][1]["stages"][3] = copy.deepcopy(d["bands"]["44"]["chains"][1]["stages"][3])
    assert any("pole pair" in f for f in inv.check_design(d))


def test_pre_sections_keep_their_frequencies_and_levels_in_every_band():
    assert abs(presections.continuous_roots(cat.PRE_RECORDS_96[0])["pole"].imag / (2 * math.pi) - 352.3) < 0.05
    assert abs(presections.continuous_roots(cat.PRE_RECORDS_96[1])["pole"].imag / (2 * math.pi) - 89.0) < 0.05
    freqs = np.geomspace(20.0, 15000.0, 300)
    for band in cat.BANDS:
        rate = cat.SAMPLE_RATES[band]
        for record_96, derived in zip(cat.PRE_RECORDS_96, presections.band_pre_records("4x12", band)):
            poles = rec.second_order_poles(derived[3], derived[4])
            s = rate * np.log(poles[np.argmax(poles.imag)])
            assert abs(s.imag - presections.continuous_roots(record_96)["pole"].imag) / (2 * math.pi) < 0.02
            a = rec.to_db(rec.record_response("second", derived, rec.delta_of(freqs, rate)))
            b = rec.to_db(rec.record_response("second", record_96, rec.delta_of(freqs, 96000)))
            assert np.max(np.abs(a - b)) < 0.05, band
