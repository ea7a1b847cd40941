"""The virtual measurement rig: what a microphone gives back from a guitar or bass loudspeaker
in its cabinet, from the physics of the parts.

Chain of the model, per frequency (exp(+j w t), voltage drive of 1 V on every driver):

* driver: Thiele-Small electro-mechanics. Ze = Re + j w Le; mechanical impedance
  Zm = Rms + j w Mms m(f) + 1 / (j w Cms) + the enclosure's load; cone velocity
  u = Bl / (Ze Zm + Bl^2). Cms, Mms, Rms and Bl follow from Fs, Qts, Qms, Vas, Sd and Re.
* cone break-up: above the decoupling frequency f_e only the middle of the cone still
  radiates: a_eff = a / sqrt(1 + (f / f_e)^2), and the mass that the voice coil moves shrinks
  with it, m(f) = mu + (1 - mu) (a_eff / a)^2. A few damped modes of the cone (the dip near
  1.5 kHz, the presence resonance, the top where the cone stops following) shape the
  velocity of that radiating middle.
* enclosure: closed box (air spring of Vb per driver: fc = Fs sqrt(1 + Vas / Vb)), open back
  (no air spring; the rear wave comes round the cabinet with its path delay and inverted
  sign) or ported (box and port as a Helmholtz resonator that drives the cone's back and
  radiates from the port mouth). Standing waves inside the box: a notch or two in the cone
  velocity; for the 2x12 and 4x12 they are the cabinet's fixed sections.
* radiation: each cone a baffled disc of radius a_eff moving as one. On its axis the near
  field is closed form, p = rho c u (exp(-jkz) - exp(-jk sqrt(z^2 + a^2))); everywhere else a
  numerical Rayleigh integral over the disc. Each driver, the port and the rear wave are
  summed at the microphone point with their own delay and distance.
* microphones: output A p + B rho c u_n (u_n the particle velocity along the microphone
  axis, which gives the proximity effect from the field itself) times the capsule's own
  response. Dynamic cardioid A = B = 0.5; ribbon figure-8 A = 0, B = 1.
* positions: 0 close on the axis of one driver at the dust cap, 1 close at the cone edge,
  2 distant with all drivers, the port or the rear wave, and the floor reflection as an
  image source.

Every number lives in PARAMETERS below with its source: the design brief's starting values,
a standard value, or "chosen". Some are then tuned so that the 4x12 meets its calibration
curve (TUNED); the same physics with each cabinet's own parameters makes the others.
"""

from __future__ import annotations

import math
from dataclasses import dataclass, field

import numpy as np

from . import acoustics as ac
from . import catalogue as cat

# ---------------------------------------------------------------------------------------
# the parameter table


@dataclass(frozen=True)
class Parameter:
    group: str
    name: str
    value: float
    unit: str
    source: str
    meaning: str


def _p(group, name, value, unit, source, meaning):
    return Parameter(group, name, float(value), unit, source, meaning)


CHOSEN = "chosen"

PARAMETERS: tuple[Parameter, ...] = (
    _p("air", "rho", 1.204, "kg/m^3", "standard air at 20 C", "density"),
    _p("air", "c", 343.2, "m/s", "standard air at 20 C", "speed of sound"),

    # 12-inch guitar driver (1x12, 2x12, 4x12)
    _p("g12", "fs", 80.0, "Hz", "design brief: 75-85 Hz (12-inch guitar driver data sheets)",
       "free-air resonance"),
    _p("g12", "qts", 0.76, "", "design brief: about 0.76", "total Q"),
    _p("g12", "qms", 6.0, "", "chosen (guitar drivers 5-8)", "mechanical Q"),
    _p("g12", "vas", 40.0, "L", "design brief: about 40 L", "equivalent air volume"),
    _p("g12", "sd", 511.0, "cm^2", "design brief: 511 cm^2", "cone area"),
    _p("g12", "radius", 12.75, "cm", "design brief: 12.75 cm", "piston radius"),
    _p("g12", "re", 6.4, "ohm", "chosen (8-ohm driver)", "voice-coil resistance"),
    _p("g12", "le", 0.25, "mH", "chosen: le + l2 = the design brief's 0.65 mH",
       "voice-coil inductance (series part)"),
    _p("g12", "l2", 0.40, "mH", "chosen: le + l2 = the design brief's 0.65 mH",
       "semi-inductance L2 (eddy currents)"),
    _p("g12", "r2", 4.0, "ohm", CHOSEN, "semi-inductance R2"),
    _p("g12", "mu", 0.3, "", "chosen", "share of the moving mass in coil and dust cap"),
    _p("g12", "fe", 1300.0, "Hz", "chosen", "decoupling frequency of the cone"),
    _p("g12", "dip_f", 1500.0, "Hz", "design brief: a dip near 1.5 kHz", "cone dip mode"),
    _p("g12", "dip_db", -3.0, "dB", CHOSEN, "depth of the dip"),
    _p("g12", "dip_q", 2.5, "", CHOSEN, "Q of the dip"),
    _p("g12", "lift_f", 3000.0, "Hz", "design brief: 2-4 kHz", "presence resonance of the cone"),
    _p("g12", "lift_db", 6.0, "dB", "design brief: +4 to +8 dB", "height of the presence resonance"),
    _p("g12", "lift_q", 1.5, "", CHOSEN, "Q of the presence resonance"),
    _p("g12", "top_f", 5200.0, "Hz", "design brief: rated to 5 kHz, little output by 7 kHz",
       "where the cone stops following (second-order roll-off)"),
    _p("g12", "top_q", 1.0, "", CHOSEN, "Q of the top roll-off"),
    _p("g12", "top2_f", 7000.0, "Hz", "design brief: little output by 7 kHz",
       "the last damped mode: a second roll-off"),
    _p("g12", "top2_q", 0.7, "", CHOSEN, "Q of the second roll-off"),

    # 10-inch guitar driver (4x10)
    _p("g10", "fs", 96.0, "Hz", "design brief: about 96 Hz", "free-air resonance"),
    _p("g10", "qts", 1.3, "", "design brief: about 1.3", "total Q"),
    _p("g10", "qms", 5.0, "", "chosen (guitar drivers 5-8)", "mechanical Q"),
    _p("g10", "vas", 23.0, "L", "design brief: about 23 L", "equivalent air volume"),
    _p("g10", "sd", 330.0, "cm^2", "design brief: 330 cm^2", "cone area"),
    _p("g10", "radius", 10.25, "cm", "design brief: 10.25 cm", "piston radius"),
    _p("g10", "re", 6.4, "ohm", "chosen (8-ohm driver)", "voice-coil resistance"),
    _p("g10", "le", 0.18, "mH", CHOSEN, "voice-coil inductance (series part)"),
    _p("g10", "l2", 0.30, "mH", CHOSEN, "semi-inductance L2 (eddy currents)"),
    _p("g10", "r2", 4.0, "ohm", CHOSEN, "semi-inductance R2"),
    _p("g10", "mu", 0.3, "", "chosen (as the 12-inch)", "share of the moving mass in coil and dust cap"),
    _p("g10", "mode_scale", 1.1, "", "design brief: rated to 5.5 kHz against 5 kHz for the 12-inch",
       "cone modes and decoupling at this multiple of the 12-inch ones"),
    _p("g10", "lift_add_db", 1.0, "dB", CHOSEN, "presence resonance this much above the 12-inch"),

    # 10-inch bass driver (4x10Bass)
    _p("b10", "fs", 45.0, "Hz", "design brief: 40-55 Hz", "free-air resonance"),
    _p("b10", "qts", 0.38, "", "design brief: 0.3-0.45", "total Q"),
    _p("b10", "qms", 6.0, "", CHOSEN, "mechanical Q"),
    _p("b10", "vas", 40.0, "L", CHOSEN, "equivalent air volume"),
    _p("b10", "sd", 330.0, "cm^2", "design brief: 10-inch cone (as the guitar 10-inch)", "cone area"),
    _p("b10", "radius", 10.25, "cm", "design brief: 10.25 cm", "piston radius"),
    _p("b10", "re", 5.6, "ohm", "chosen (8-ohm driver)", "voice-coil resistance"),
    _p("b10", "le", 0.4, "mH", "chosen (long bass coil)", "voice-coil inductance (series part)"),
    _p("b10", "l2", 0.8, "mH", "chosen (long bass coil)", "semi-inductance L2 (eddy currents)"),
    _p("b10", "r2", 3.0, "ohm", CHOSEN, "semi-inductance R2"),
    _p("b10", "mu", 0.35, "", "chosen (heavier coil)", "share of the moving mass in coil and dust cap"),
    _p("b10", "fe", 1100.0, "Hz", "chosen (stiff, heavy cone)", "decoupling frequency of the cone"),
    _p("b10", "dip_f", 1200.0, "Hz", CHOSEN, "cone dip mode"),
    _p("b10", "dip_db", -2.0, "dB", CHOSEN, "depth of the dip"),
    _p("b10", "dip_q", 2.0, "", CHOSEN, "Q of the dip"),
    _p("b10", "lift_f", 2400.0, "Hz", "chosen (softer top than a guitar driver)", "presence resonance"),
    _p("b10", "lift_db", 3.0, "dB", "chosen (softer top than a guitar driver)",
       "height of the presence resonance"),
    _p("b10", "lift_q", 1.2, "", CHOSEN, "Q of the presence resonance"),
    _p("b10", "top_f", 4000.0, "Hz", "chosen (bass drivers rated to about 4 kHz)", "top roll-off"),
    _p("b10", "top_q", 0.8, "", CHOSEN, "Q of the top roll-off"),
    _p("b10", "top2_f", 7000.0, "Hz", CHOSEN, "second roll-off"),
    _p("b10", "top2_q", 0.7, "", CHOSEN, "Q of the second roll-off"),

    # cabinets: geometry in metres, x across, y up from the floor, z out of the baffle
    _p("1x12", "centre_y", 0.40, "m", CHOSEN, "height of the driver centre"),
    _p("1x12", "rear_depth", 0.24, "m", "chosen (design brief: the 1x12 has an open back)",
       "depth of the cabinet (rear wave path)"),
    _p("1x12", "rear_edge", 0.22, "m", CHOSEN, "driver centre to the nearest cabinet edge"),
    _p("1x12", "rear_gain", 1.0, "", "chosen (at low frequencies nothing shades the rear wave)",
       "level of the rear wave"),
    _p("1x12", "rear_lp", 600.0, "Hz", "chosen (the cabinet shades the treble)", "rear wave low-pass corner"),
    _p("1x12", "notch_f", 420.0, "Hz", "chosen (0.41 m inner width)", "standing-wave notch"),
    _p("1x12", "notch_db", -2.0, "dB", CHOSEN, "depth of the notch"),
    _p("1x12", "notch_q", 4.0, "", CHOSEN, "Q of the notch"),

    _p("2x12", "fixed_wave", 1, "", "the cabinet's fixed dip section (352 Hz poles)",
       "standing-wave notch: the fixed dip section without its flat level"),
    _p("2x12", "qb", 8.0, "", "as the 4x12 (the same construction)",
       "loss Q of the box at the closed-box resonance"),
    _p("2x12", "vb", 27.0, "L", "design brief: 25-30 L per driver", "closed box volume per driver"),
    _p("2x12", "spacing", 0.35, "m", "design brief: 0.33-0.36 m", "driver centre spacing (side by side)"),
    _p("2x12", "centre_y", 0.33, "m", CHOSEN, "height of the driver row"),

    _p("4x12", "fixed_wave", 1, "", "the cabinet's fixed dip section (352 Hz poles)",
       "standing-wave notch: the fixed dip section without its flat level"),
    _p("4x12", "qb", 8.0, "", "chosen (leaks, panel and absorption losses)",
       "loss Q of the box at the closed-box resonance"),
    _p("4x12", "vb", 28.0, "L", "design brief: 25-30 L per driver", "closed box volume per driver"),
    _p("4x12", "spacing", 0.35, "m", "design brief: 0.33-0.36 m", "driver centre spacing (2 by 2)"),
    _p("4x12", "centre_y", 0.43, "m", CHOSEN, "height of the cabinet centre"),

    _p("4x10", "qb", 8.0, "", "as the 4x12 (the same construction)",
       "loss Q of the box at the closed-box resonance"),
    _p("4x10", "vb", 25.0, "L", "design brief: 25-30 L per driver", "closed box volume per driver"),
    _p("4x10", "spacing", 0.29, "m", "chosen (10-inch drivers sit closer)", "driver centre spacing (2 by 2)"),
    _p("4x10", "centre_y", 0.36, "m", CHOSEN, "height of the cabinet centre"),
    _p("4x10", "notch_f", 310.0, "Hz", "chosen (0.55 m inner height)", "standing-wave notch"),
    _p("4x10", "notch_db", -3.0, "dB", CHOSEN, "depth of the notch"),
    _p("4x10", "notch_q", 4.0, "", CHOSEN, "Q of the notch"),

    _p("4x10Bass", "vb", 35.0, "L", "chosen (ported, extended low end)", "box volume per driver"),
    _p("4x10Bass", "fb", 42.0, "Hz", "chosen (ported, extended low end)", "port tuning"),
    _p("4x10Bass", "port_q", 8.0, "", CHOSEN, "Q of the port (its losses)"),
    _p("4x10Bass", "port_y", -0.33, "m", CHOSEN, "port mouth below the cabinet centre"),
    _p("4x10Bass", "spacing", 0.29, "m", "chosen (10-inch drivers sit closer)",
       "driver centre spacing (2 by 2)"),
    _p("4x10Bass", "centre_y", 0.45, "m", CHOSEN, "height of the driver block centre"),
    _p("4x10Bass", "notch_f", 280.0, "Hz", "chosen (0.61 m inner height)", "standing-wave notch"),
    _p("4x10Bass", "notch_db", -2.5, "dB", CHOSEN, "depth of the notch"),
    _p("4x10Bass", "notch_q", 4.0, "", CHOSEN, "Q of the notch"),

    # microphones
    _p("mic0", "a", 0.5, "", "design brief: dynamic cardioid", "pressure share A"),
    _p("mic0", "b", 0.5, "", "design brief: B = 0.5", "velocity share B"),
    _p("mic0", "hp_f", 120.0, "Hz",
       "design brief: 100-150 Hz as a start; the calibration's 40 Hz level leaves no room for it",
       "capsule high-pass"),
    _p("mic0", "hp_order", 2, "", CHOSEN, "order of the high-pass"),
    _p("mic0", "hp_q", 0.7, "", CHOSEN, "Q of the high-pass (second order only)"),
    _p("mic0", "pres_f", 4500.0, "Hz", "design brief: 4-5 kHz", "presence peak"),
    _p("mic0", "pres_db", 5.0, "dB", "design brief: +4 to +6 dB", "height of the presence peak"),
    _p("mic0", "pres_q", 1.5, "", CHOSEN, "Q of the presence peak"),
    _p("mic0", "lp_f", 15000.0, "Hz", CHOSEN, "capsule top roll-off"),
    _p("mic0", "lp_q", 0.7, "", CHOSEN, "Q of the top roll-off"),

    _p("mic1", "a", 0.0, "", "design brief: ribbon figure-8", "pressure share A"),
    _p("mic1", "b", 1.0, "", "design brief: B = 1", "velocity share B"),
    _p("mic1", "hp_f", 25.0, "Hz", "chosen (ribbon resonance)", "ribbon high-pass"),
    _p("mic1", "hp_order", 2, "", CHOSEN, "order of the high-pass"),
    _p("mic1", "hp_q", 0.7, "", CHOSEN, "Q of the high-pass (second order only)"),
    _p("mic1", "lp_f", 10000.0, "Hz", "design brief: gentle roll-off from about 8 kHz", "treble roll-off"),
    _p("mic1", "lp_q", 0.5, "", "design brief: gentle", "Q of the treble roll-off"),

    # positions
    _p("pos", "cap_z", 0.02, "m", "design brief: 1-3 cm", "cap position: distance from the cone"),
    _p("pos", "edge_z", 0.025, "m", "design brief: 2.5 cm", "edge position: distance from the cone"),
    _p("pos", "edge_r", 0.7, "a", "design brief: 0.6-0.75 a", "edge position: radial offset"),
    _p("pos", "far_z", 0.75, "m", "design brief: 0.5-1 m", "distant position: distance from the baffle"),
    _p("pos", "floor", 0.7, "", "chosen (wooden stage floor)", "floor reflection factor"),

    _p("level", "db", 0.0, "dB", "tuned", "level of the 4x12 calibration response"),
)

# Tuned to the calibration curve: (group, name) -> (low, high) bounds, from the design brief's ranges
# where it gives one.
TUNED = {
    ("g12", "fs"): (75.0, 85.0),
    ("g12", "qts"): (0.70, 0.82),
    ("4x12", "vb"): (25.0, 30.0),
    ("4x12", "qb"): (1.5, 20.0),
    ("g12", "fe"): (600.0, 2000.0),
    ("g12", "mu"): (0.15, 0.5),
    ("g12", "dip_f"): (1300.0, 1700.0),
    ("g12", "dip_db"): (-6.0, -1.0),
    ("g12", "lift_f"): (2000.0, 4000.0),
    ("g12", "lift_db"): (4.0, 8.0),
    ("g12", "lift_q"): (0.7, 3.0),
    ("g12", "top_f"): (4000.0, 7000.0),
    ("g12", "top_q"): (0.5, 2.5),
    ("g12", "top2_f"): (5000.0, 9000.0),
    ("g12", "top2_q"): (0.5, 2.5),
    ("mic0", "hp_f"): (20.0, 150.0),
    ("mic0", "pres_f"): (4000.0, 5000.0),
    ("mic0", "pres_db"): (4.0, 6.0),
    ("pos", "cap_z"): (0.01, 0.03),
    ("level", "db"): (-120.0, 120.0),
}


# Values that follow another entry (the same construction or the same part).
SAME_AS = {
    ("2x12", "qb"): ("4x12", "qb"),
    ("4x10", "qb"): ("4x12", "qb"),
}


def default_values() -> dict:
    return resolve({(p.group, p.name): p.value for p in PARAMETERS})


def resolve(values: dict) -> dict:
    out = dict(values)
    for key, other in SAME_AS.items():
        out[key] = out[other]
    return out


def parameter_table(values: dict) -> list[dict]:
    """The table as written into a design record and the report."""
    rows = []
    for p in PARAMETERS:
        key = (p.group, p.name)
        source = p.source
        if key in TUNED:
            lo, hi = TUNED[key]
            source = f"{p.source}; tuned within {lo:g}-{hi:g}" if p.source != "tuned" else \
                "tuned to the calibration curve"
        rows.append({"group": p.group, "name": p.name, "value": float(values[key]),
                     "unit": p.unit, "source": source, "meaning": p.meaning})
    return rows


def values_from_table(rows: list[dict]) -> dict:
    return {(r["group"], r["name"]): float(r["value"]) for r in rows}


# ---------------------------------------------------------------------------------------
# parts


def _s(freqs):
    return 2j * np.pi * np.asarray(freqs, dtype=float)


def peak_section(s, f0, gain_db, q):
    """A damped mode: resonance (gain > 0) or antiresonance (gain < 0), unity far away."""
    a = 10.0 ** (gain_db / 40.0)
    w = 2.0 * math.pi * f0
    return (s * s + s * (a / q) * w + w * w) / (s * s + s * w / (a * q) + w * w)


def low_pass2(s, f0, q):
    w = 2.0 * math.pi * f0
    return w * w / (s * s + s * w / q + w * w)


def high_pass2(s, f0, q):
    w = 2.0 * math.pi * f0
    return s * s / (s * s + s * w / q + w * w)


def low_pass1(s, f0):
    w = 2.0 * math.pi * f0
    return w / (s + w)


@dataclass
class Driver:
    fs: float
    qts: float
    qms: float
    vas: float       # m^3
    sd: float        # m^2
    radius: float    # m
    re: float
    le: float        # H, series part
    l2: float        # H, semi-inductance (eddy currents) parallel to r2
    r2: float
    mu: float
    fe: float
    modes: list = field(default_factory=list)   # (f, dB, Q) resonances and antiresonances
    tops: list = field(default_factory=list)    # (f, Q) second-order roll-offs

    def mechanics(self, rho: float, c: float):
        """(Cms, Mms, Rms, Bl^2) from the Thiele-Small set."""
        ws = 2.0 * math.pi * self.fs
        cms = self.vas / (rho * c * c * self.sd * self.sd)
        mms = 1.0 / (ws * ws * cms)
        rms = ws * mms / self.qms
        qes = 1.0 / (1.0 / self.qts - 1.0 / self.qms)
        bl2 = ws * mms * self.re / qes
        return cms, mms, rms, bl2

    def effective_radius(self, freqs):
        return self.radius / np.sqrt(1.0 + (np.asarray(freqs, dtype=float) / self.fe) ** 2)

    def break_up(self, freqs):
        s = _s(freqs)
        h = np.ones_like(s)
        for f0, gain_db, q in self.modes:
            h = h * peak_section(s, f0, gain_db, q)
        for f0, q in self.tops:
            h = h * low_pass2(s, f0, q)
        return h


def driver(values: dict, group: str) -> Driver:
    v = lambda name: values[(group, name)]  # noqa: E731
    if group == "g10":
        scale = v("mode_scale")
        g = lambda name: values[("g12", name)]  # noqa: E731
        modes = [(g("dip_f") * scale, g("dip_db"), g("dip_q")),
                 (g("lift_f") * scale, g("lift_db") + v("lift_add_db"), g("lift_q"))]
        tops = [(g("top_f") * scale, g("top_q")), (g("top2_f") * scale, g("top2_q"))]
        fe = g("fe") * scale * values[("g12", "radius")] / v("radius")
    else:
        modes = [(v("dip_f"), v("dip_db"), v("dip_q")), (v("lift_f"), v("lift_db"), v("lift_q"))]
        tops = [(v("top_f"), v("top_q")), (v("top2_f"), v("top2_q"))]
        fe = v("fe")
    return Driver(fs=v("fs"), qts=v("qts"), qms=v("qms"), vas=v("vas") * 1e-3,
                  sd=v("sd") * 1e-4, radius=v("radius") * 1e-2, re=v("re"), le=v("le") * 1e-3,
                  l2=v("l2") * 1e-3, r2=v("r2"),
                  mu=v("mu"), fe=fe, modes=modes, tops=tops)


DRIVER_OF = {"1x12": "g12", "2x12": "g12", "4x12": "g12", "4x10": "g10", "4x10Bass": "b10"}


@dataclass
class Cabinet:
    speaker: str
    kind: str                          # "closed", "open", "ported"
    drivers: list                      # (x, y) of each driver centre
    close_driver: int                  # the driver the close microphone sits on
    centre: tuple                      # (x, y) of the cabinet centre (distant microphone)
    vb: float = 0.0                    # m^3 per driver
    qb: float = 0.0                    # loss Q of a closed box (0: lossless)
    fb: float = 0.0
    port_q: float = 0.0
    port: tuple | None = None
    rear_depth: float = 0.0
    rear_edge: float = 0.0
    rear_gain: float = 0.0
    rear_lp: float = 0.0
    notches: list = field(default_factory=list)   # (f, dB, Q)
    fixed_wave: bool = False                      # the fixed dip section is the notch


def cabinet(values: dict, speaker: str) -> Cabinet:
    v = lambda name: values[(speaker, name)]  # noqa: E731
    notches = [(v("notch_f"), v("notch_db"), v("notch_q"))] if (speaker, "notch_f") in values else []
    if speaker == "1x12":
        y = v("centre_y")
        return Cabinet(speaker, "open", [(0.0, y)], 0, (0.0, y), rear_depth=v("rear_depth"),
                       rear_edge=v("rear_edge"), rear_gain=v("rear_gain"), rear_lp=v("rear_lp"),
                       notches=notches)
    d = 0.5 * v("spacing")
    y = v("centre_y")
    fixed_wave = bool(values.get((speaker, "fixed_wave"), 0))
    if speaker == "2x12":
        return Cabinet(speaker, "closed", [(-d, y), (d, y)], 0, (0.0, y), vb=v("vb") * 1e-3,
                       notches=notches, fixed_wave=fixed_wave, qb=v("qb"))
    block = [(-d, y + d), (d, y + d), (-d, y - d), (d, y - d)]
    if speaker == "4x10Bass":
        return Cabinet(speaker, "ported", block, 0, (0.0, y), vb=v("vb") * 1e-3, fb=v("fb"),
                       port_q=v("port_q"), port=(0.0, y + v("port_y")), notches=notches)
    return Cabinet(speaker, "closed", block, 0, (0.0, y), vb=v("vb") * 1e-3, notches=notches,
                   fixed_wave=fixed_wave, qb=v("qb"))


def standing_wave_of_fixed_section(freqs) -> np.ndarray:
    """The 2x12/4x12 standing wave: the fixed dip section in continuous time, 0 dB at DC."""
    from .presections import analog_section_response

    return analog_section_response(0, freqs, unit_dc=True)


# ---------------------------------------------------------------------------------------
# electro-mechanics


@dataclass
class Motion:
    velocity: np.ndarray       # velocity of the radiating middle of each cone, m/s per volt
    radius: np.ndarray         # its radius a_eff, m
    port: np.ndarray | None    # port volume velocity, m^3/s per volt (all drivers together)
    volume: np.ndarray         # volume velocity of one cone, pi a_eff^2 times the velocity


def motion(drv: Driver, cab: Cabinet, freqs, rho: float, c: float) -> Motion:
    f = np.asarray(freqs, dtype=float)
    s = _s(f)
    cms, mms, rms, bl2 = drv.mechanics(rho, c)
    a_eff = drv.effective_radius(f)
    mass = mms * (drv.mu + (1.0 - drv.mu) * (a_eff / drv.radius) ** 2)
    zm = rms + s * mass + 1.0 / (s * cms)
    n = len(cab.drivers)
    port_admittance = None
    if cab.kind in ("closed", "ported"):
        cab_total = n * cab.vb / (rho * c * c)          # acoustic compliance of the box
        box_admittance = s * cab_total
        if cab.kind == "ported":
            wb = 2.0 * math.pi * cab.fb
            map_ = 1.0 / (wb * wb * cab_total)           # acoustic mass of the port
            rap = wb * map_ / cab.port_q
            port_admittance = 1.0 / (s * map_ + rap)
            box_admittance = box_admittance + port_admittance
        box_impedance = 1.0 / box_admittance
        if cab.qb > 0.0:
            # absorption: a resistance in series with the air spring, Q_B at fc
            wc = 2.0 * math.pi * drv.fs * math.sqrt(1.0 + drv.vas / cab.vb)
            box_impedance = box_impedance + 1.0 / (cab.qb * wc * cab_total)
        # the box pressure of n cones pushing together acts on the back of each
        zm = zm + n * drv.sd * drv.sd * box_impedance
    ze = drv.re + s * drv.le + s * drv.l2 * drv.r2 / (s * drv.l2 + drv.r2)
    bl = math.sqrt(bl2)
    u = bl / (ze * zm + bl2)
    volume = drv.sd * u
    port = None
    if port_admittance is not None:
        box_pressure = -n * volume * box_impedance
        port = box_pressure * port_admittance
    shape = drv.break_up(f)
    for f0, gain_db, q in cab.notches:
        shape = shape * peak_section(s, f0, gain_db, q)
    if cab.fixed_wave:
        shape = shape * standing_wave_of_fixed_section(f)
    return Motion(u * shape, a_eff, port, math.pi * a_eff * a_eff * u * shape)


# ---------------------------------------------------------------------------------------
# the field at a microphone point


@dataclass(frozen=True)
class Placement:
    point: tuple              # (x, y, z) of the microphone
    distant: bool


def placement(values: dict, cab: Cabinet, drv: Driver, position: int) -> Placement:
    x0, y0 = cab.drivers[cab.close_driver]
    if position == 0:
        return Placement((x0, y0, values[("pos", "cap_z")]), False)
    if position == 1:
        # towards the outside of the cabinet, away from the other drivers
        offset = values[("pos", "edge_r")] * drv.radius
        return Placement((x0 - offset, y0, values[("pos", "edge_z")]), False)
    cx, cy = cab.centre
    return Placement((cx, cy, values[("pos", "far_z")]), True)


NEAR_GRID = (48, 128)   # rings, spokes of the Rayleigh integral close to a cone
FAR_GRID = (16, 48)


def _disc_field(k, a_eff, centre, point):
    dx, dy = point[0] - centre[0], point[1] - centre[1]
    z = point[2]
    if dx == 0.0 and dy == 0.0:
        return ac.piston_on_axis(k, a_eff, z)
    near = math.sqrt(dx * dx + dy * dy + z * z) < 0.25
    rings, spokes = NEAR_GRID if near else FAR_GRID
    return ac.rayleigh_disc(k, a_eff, (dx, dy), z, rings=rings, spokes=spokes)


def source_fields(values: dict, speaker: str, position: int, freqs,
                  live_close: bool = False) -> dict:
    """Per-unit fields at the microphone of each kind of source, before the velocities:
    {"cones": (P, Uz) summed over the drivers per unit cone velocity,
     "port": (P, Uz) per unit port volume velocity or None,
     "rear": (P, Uz) per unit rear volume velocity or None}. Floor images are included at
    the distant position. With live_close the close driver's own field is left out and
    marked to be computed by `response` (for tuning, where the decoupling moves)."""
    rho, c = values[("air", "rho")], values[("air", "c")]
    drv = driver(values, DRIVER_OF[speaker])
    cab = cabinet(values, speaker)
    place = placement(values, cab, drv, position)
    f = np.asarray(freqs, dtype=float)
    k = 2.0 * np.pi * f / c
    a_eff = drv.effective_radius(f)
    points = [(place.point, 1.0)]
    if place.distant:
        x, y, z = place.point
        points.append(((x, -y, z), values[("pos", "floor")]))
    cones_p = np.zeros(f.shape, dtype=complex)
    cones_u = np.zeros(f.shape, dtype=complex)
    port = rear = None
    for point, weight in points:
        for index, centre in enumerate(cab.drivers):
            if live_close and index == cab.close_driver and not place.distant:
                continue
            p, u = _disc_field(k, a_eff, centre, point)
            cones_p += weight * p
            cones_u += weight * u
        if cab.port is not None:
            p, u = ac.baffled_point(k, (point[0] - cab.port[0], point[1] - cab.port[1]), point[2])
            port = (np.zeros_like(cones_p), np.zeros_like(cones_p)) if port is None else port
            port = (port[0] + weight * p, port[1] + weight * u)
        if cab.kind == "open":
            # round the nearest edge: from the back of the cone to the edge, then to the point
            x0, y0 = cab.drivers[0]
            edge = (x0 - cab.rear_edge, y0, 0.0)
            back = (x0, y0, -cab.rear_depth)
            leg1 = math.dist(back, edge)
            leg2 = math.dist(edge, point)
            cos_axis = (point[2] - edge[2]) / leg2
            p, u = ac.free_point(k, leg1 + leg2, cos_axis)
            shade = cab.rear_gain * low_pass1(_s(f), cab.rear_lp)
            rear = (np.zeros_like(cones_p), np.zeros_like(cones_p)) if rear is None else rear
            rear = (rear[0] + weight * p * shade, rear[1] + weight * u * shade)
    live = live_close and not place.distant
    return {"cones": (cones_p, cones_u), "port": port, "rear": rear, "live_close": live}


def capsule(values: dict, mic_type: int, freqs) -> np.ndarray:
    s = _s(freqs)
    g = f"mic{mic_type}"
    v = lambda name: values[(g, name)]  # noqa: E731
    if v("hp_order") == 1:
        h = s / (s + 2.0 * math.pi * v("hp_f"))
    else:
        h = high_pass2(s, v("hp_f"), v("hp_q"))
    h = h * low_pass2(s, v("lp_f"), v("lp_q"))
    if mic_type == 0:
        h = h * peak_section(s, v("pres_f"), v("pres_db"), v("pres_q"))
    return h


def response(values: dict, speaker: str, mic_type: int, position: int, freqs,
             fields: dict | None = None) -> np.ndarray:
    """Complex response of the rig (the cabinet's fixed sections not included), in
    pressure units of rho c per volt, with the calibration level applied."""
    rho, c = values[("air", "rho")], values[("air", "c")]
    drv = driver(values, DRIVER_OF[speaker])
    cab = cabinet(values, speaker)
    f = np.asarray(freqs, dtype=float)
    if fields is None:
        fields = source_fields(values, speaker, position, f)
    move = motion(drv, cab, f, rho, c)
    cones_p, cones_u = fields["cones"]
    if fields.get("live_close"):
        place = placement(values, cab, drv, position)
        near_p, near_u = _disc_field(2.0 * np.pi * f / c, move.radius,
                                     cab.drivers[cab.close_driver], place.point)
        cones_p, cones_u = cones_p + near_p, cones_u + near_u
    p = cones_p * move.velocity
    u = cones_u * move.velocity
    if fields["port"] is not None:
        p = p + fields["port"][0] * move.port
        u = u + fields["port"][1] * move.port
    if fields["rear"] is not None:
        # the back of the cone pushes the opposite volume
        p = p - fields["rear"][0] * move.volume
        u = u - fields["rear"][1] * move.volume
    g = f"mic{mic_type}"
    out = values[(g, "a")] * p + values[(g, "b")] * u
    level = 10.0 ** (values[("level", "db")] / 20.0)
    return level * out * capsule(values, mic_type, f)
