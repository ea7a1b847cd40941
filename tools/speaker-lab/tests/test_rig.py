"""The virtual measurement rig: radiation, electro-mechanics, microphones, positions, the
parameter table, and its agreement with the committed targets."""

import math

import numpy as np
import pytest

from speakerlab import acoustics as ac
from speakerlab import design
from speakerlab import response as rs
from speakerlab import rig

C = 343.2


def _db(x):
    return 20.0 * np.log10(np.abs(x))


def _k(freqs):
    return 2 * np.pi * np.asarray(freqs) / C


def test_rayleigh_integral_matches_the_closed_form_on_axis_and_the_piston_directivity_far_off_it():
    k = _k(np.geomspace(20.0, 20000.0, 120))
    radius = 0.1275 / np.sqrt(1.0 + (k * C / (2 * np.pi) / 1300.0) ** 2)
    for z in (0.01, 0.025):
        (p, u), (p_exact, u_exact) = ac.rayleigh_disc(k, radius, (0.0, 0.0), z), ac.piston_on_axis(k, radius, z)
        assert np.max(np.abs(_db(p / p_exact))) < 0.01 and np.max(np.abs(np.angle(p / p_exact))) < 0.002
        assert np.max(np.abs(_db(u / u_exact))) < 0.05
    k = _k(np.geomspace(100.0, 10000.0, 80))
    a, r, theta = 0.1, 5.0, math.radians(40.0)
    p, u = ac.rayleigh_disc(k, np.full_like(k, a), (r * math.sin(theta), 0.0), r * math.cos(theta))
    directivity = ac.far_field_directivity(k * a * math.sin(theta))
    lobe = np.abs(directivity) > 0.2
    expected = 1j * k * a * a / (2 * r) * np.exp(-1j * k * r) * directivity
    assert np.max(np.abs(_db(p[lobe] / expected[lobe]))) < 0.05
    # far away the particle velocity along z is the pressure times cos(theta)
    high = lobe & (k * r > 50)
    assert np.allclose(u[high] / p[high], math.cos(theta), atol=0.02)


def test_closed_box_resonance_and_q_follow_the_small_signal_rules():
    """With no inductance, no decoupling and no box losses the cone velocity of a closed box
    resonates at Fs sqrt(1 + Vas/Vb) with Q = Qts sqrt(1 + Vas/Vb)."""
    values = rig.default_values()
    drv, cab = rig.driver(values, "g12"), rig.cabinet(values, "4x12")
    drv.le = drv.l2 = 0.0
    drv.r2 = drv.mu = 1.0
    drv.modes, drv.tops = [], []
    cab.qb, cab.fixed_wave = 0.0, False
    ratio = math.sqrt(1.0 + drv.vas / cab.vb)
    fc = drv.fs * ratio
    freqs = np.geomspace(fc / 4, fc * 4, 4001)
    # velocity is a band-pass: real at resonance, 3 dB down where |phase| is 45 degrees
    phase = np.angle(rig.motion(drv, cab, freqs, 1.204, C).velocity)
    assert freqs[np.argmin(np.abs(phase))] == pytest.approx(fc, rel=1e-3)
    half = freqs[np.abs(phase) <= math.pi / 4]
    assert fc / (half[-1] - half[0]) == pytest.approx(drv.qts * ratio, rel=0.01)


def test_port_takes_over_from_the_cone_at_the_box_tuning():
    values = rig.default_values()
    drv, cab = rig.driver(values, "b10"), rig.cabinet(values, "4x10Bass")
    freqs = np.geomspace(2.0, 200.0, 2000)
    move = rig.motion(drv, cab, freqs, 1.204, C)
    near = (freqs > 0.7 * cab.fb) & (freqs < 1.4 * cab.fb)
    assert freqs[near][np.argmin(np.abs(move.velocity)[near])] == pytest.approx(cab.fb, rel=0.03)
    # far below the tuning the port's air moves against the cones: the sum vanishes as f^2
    total = 4 * drv.sd * move.velocity[0] / drv.break_up(freqs[:1])[0] + move.port[0]
    assert abs(total) < 0.01 * abs(move.port[0])


def test_distant_position_of_the_open_back():
    """The rear wave cancels the lows; with it silenced, the floor reflection's first notch sits
    where the image path is half a wavelength longer."""
    values = rig.default_values()
    ends = rig.response(values, "1x12", 0, 2, np.array([40.0, 1000.0]))
    values[("1x12", "rear_gain")] = 0.0
    lows = _db(ends / rig.response(values, "1x12", 0, 2, np.array([40.0, 1000.0])))
    assert lows[0] < -3.0 and abs(lows[1]) < 1.0
    freqs = np.geomspace(150.0, 1500.0, 800)
    with_floor = rig.response(values, "1x12", 0, 2, freqs)
    values[("pos", "floor")] = 0.0
    z = values[("pos", "far_z")]
    extra = math.hypot(z, 2 * values[("1x12", "centre_y")]) - z
    notch = freqs[np.argmin(np.abs(with_floor / rig.response(values, "1x12", 0, 2, freqs)))]
    assert notch == pytest.approx(C / (2 * extra), rel=0.05)


def test_close_positions_hear_mostly_one_driver_the_distant_one_all_and_the_ribbon_more_proximity():
    values = rig.default_values()
    freqs, k = np.array([200.0]), _k([200.0])
    close = rig.source_fields(values, "4x12", 0, freqs)["cones"][0]
    far = rig.source_fields(values, "4x12", 2, freqs)["cones"][0]
    radius = rig.driver(values, "g12").effective_radius(freqs)
    assert len(rig.cabinet(values, "4x12").drivers) == 4
    own, _ = ac.piston_on_axis(k, radius, values[("pos", "cap_z")])
    assert abs(close[0] - own[0]) < 0.7 * abs(own[0])
    single = ac.rayleigh_disc(k, radius, (0.175, 0.175), values[("pos", "far_z")], rings=16, spokes=48)[0]
    # four drivers and their floor images add up to several times one driver
    assert abs(far[0]) > 3.0 * abs(single[0])
    tilt = np.array([60.0, 2000.0])
    for position in (0, 1):
        cardioid, ribbon = (_db(rig.response(values, "4x12", mic, position, tilt) / rig.capsule(values, mic, tilt))
                            for mic in (0, 1))
        assert (ribbon[0] - ribbon[1]) > (cardioid[0] - cardioid[1]) + 3.0


def test_every_parameter_has_a_source_and_tuned_values_stay_in_range(designs):
    names = [(p.group, p.name) for p in rig.PARAMETERS]
    assert len(names) == len(set(names)) and set(rig.TUNED) <= set(names)
    assert all(p.source.strip() and p.meaning.strip() for p in rig.PARAMETERS)
    tables = [rig.values_from_table(d["rig"]) for d in designs.values()]
    assert all(t == tables[0] for t in tables)
    for rows in (d["rig"] for d in designs.values()):
        assert [(r["group"], r["name"]) for r in rows] == names
        for key, (low, high) in rig.TUNED.items():
            assert low <= tables[0][key] <= high, key
            assert "tuned" in next(r["source"] for r in rows if (r["group"], r["name"]) == key)
    assert all(tables[0][key] == tables[0][other] for key, other in rig.SAME_AS.items())


def test_rig_reproduces_the_committed_targets(designs):
    """The stored target curves are the rig's, for the stored parameters: recompute two
    settings and compare their shape (the level is the gain rule's)."""
    d = designs["4x10"]
    values, freqs = rig.values_from_table(d["rig"]), rs.log_grid()
    for mic, position in ((0, 1), (1, 2)):
        mp = rs.smoothed_minimum_phase(freqs, rig.response(values, "4x10", mic, position, freqs),
                                       design.SMOOTHING[position])
        difference = (mp.magnitude_db(design.figure_grid())
                      - np.array(d["targets"]["chains"][design.key_text((mic, position))]["db"]))
        assert np.max(np.abs(difference - np.mean(difference))) < 0.002
