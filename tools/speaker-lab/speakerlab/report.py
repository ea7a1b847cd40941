"""`lab report`: docs/speakers/README.md and its plots, from the committed design records.

Everything shown is measured here from the records (float32 values, evaluated in double),
except the rig's raw curves, which are recomputed from the parameter table stored in the
records, and the design time, which the design run wrote into them.
"""

from __future__ import annotations

import time
from pathlib import Path

import numpy as np

from . import catalogue as cat
from . import design
from . import emit
from . import records as rec
from . import response as rs
from . import rig
from .invariants import check_design

DOCS_DIR = emit.REPO_DIR / "docs" / "speakers"

POSITION_NAMES = {0: "cap (close, on the dust cap)", 1: "edge (close, at the cone edge)",
                  2: "room (distant, with the floor reflection)"}
POSITION_SHORT = {0: "cap", 1: "edge", 2: "room"}
TYPE_NAMES = {0: "dynamic cardioid", 1: "ribbon figure-8"}
CHARACTER = {
    "1x12": "Open back, one 12-inch guitar driver. The driver's resonance sits free in the "
            "air, lower and broader than in a closed box, so the low end is loose rather than "
            "tight; at a distance the rear wave coming round the cabinet takes away part of the "
            "deepest lows.",
    "2x12": "Closed back, two 12-inch guitar drivers side by side. The same driver and box "
            "construction as the 4x12 with half the cones: a little less low-mid weight, the "
            "same bright presence.",
    "4x12": "Closed back, four 12-inch guitar drivers. Thick low-mids from the closed box and "
            "the neighbouring cones, a strong upper presence from the cone's break-up, and a "
            "steep fall above 5 kHz. This is the cabinet the rig was tuned on.",
    "4x10": "Closed back, four 10-inch guitar drivers. A higher, tighter box resonance, less "
            "deep bass, and a presence that reaches higher: tighter and brighter than the 4x12.",
    "4x10Bass": "Ported, four 10-inch bass drivers. The port extends the low end down to "
                "about 40 Hz, and the heavier cones give a softer, earlier top. Close to a cone "
                "the port's tuning shows as a notch (the cones hardly move there); in the room "
                "the port fills it, so only there the deepest lows are fuller than close up.",
}
GROUP_NAMES = {"air": "air", "g12": "12-inch guitar driver", "g10": "10-inch guitar driver",
               "b10": "10-inch bass driver", "mic0": "microphone type 0 (dynamic cardioid)",
               "mic1": "microphone type 1 (ribbon figure-8)", "pos": "positions",
               "level": "level"}
SHARED_GROUPS = ("air", "mic0", "mic1", "pos", "level")


def _fmt(value: float) -> str:
    if value == int(value) and abs(value) < 1e6:
        return str(int(value))
    return f"{value:.4g}"


def _plot_setup():
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    plt.rcParams.update({"font.size": 8, "axes.titlesize": 9})
    return plt


# ---------------------------------------------------------------------------------------
# figures measured from the records


def model_figures(d: dict) -> dict:
    """Per band: fit figures per chain (re-measured), float32 error, invariants, lengths."""
    speaker = d["speaker"]
    out = {}
    faults = check_design(d)
    for band in cat.BANDS:
        band_record = d["bands"][str(band)]
        chains = []
        for key, chain in zip(cat.CHAIN_KEYS, band_record["chains"]):
            target = d["targets"]["chains"][design.key_text(key)]["db"]
            figures = design.fit_figures(band_record, key, band, target)
            chains.append({"key": key, "rms": figures["rmsDb"], "max": figures["maxDb"],
                           "float32": chain["fit"]["float32VsDoubleDb"]})
        tables = emit.build_tables(d, band)
        lengths = (len(tables.constants), len(tables.initial_state))
        name = cat.model_name(speaker, band)
        out[band] = {"chains": chains, "lengths": lengths,
                     "lengthsOk": lengths == cat.catalogue_lengths(speaker, band),
                     "faults": [f for f in faults if name in f or f.startswith(speaker + " ")]}
    return out


def band_spread(d: dict, key, top: float = design.BAND_AGREEMENT_TOP) -> float:
    freqs = np.geomspace(20.0, top, 300)
    curves = np.array([rec.to_db(design.model_response(d["speaker"], d["bands"][str(b)], key, freqs, b))
                       for b in cat.BANDS])
    return float(np.max(curves.max(axis=0) - curves.min(axis=0)))


# ---------------------------------------------------------------------------------------
# plots


def plot_curves(d: dict, out: Path) -> None:
    """Per setting: the rig (raw), the smoothed target and the band-96 model."""
    plt = _plot_setup()
    speaker = d["speaker"]
    values = rig.values_from_table(d["rig"])
    freqs = rs.log_grid(20.0, 24000.0, 48)
    grid = design.figure_grid()
    fig, axes = plt.subplots(2, 3, figsize=(12, 6.4), sharex=True, sharey=True)
    for position in range(3):
        fields = rig.source_fields(values, speaker, position, freqs)
        for mic_type in (0, 1):
            key = (mic_type, position)
            ax = axes[mic_type, position]
            target = np.array(d["targets"]["chains"][design.key_text(key)]["db"])
            gain_db = 20.0 * np.log10(d["bands"]["96"]["gainTables"][mic_type][position])
            raw = rig.response(values, speaker, mic_type, position, freqs, fields)
            # the raw curve at the target's level: same smoothed level at 1 kHz
            smoothed = rs.smooth_power(freqs, np.abs(raw), design.SMOOTHING[position])
            offset = (np.interp(np.log(1000.0), np.log(grid), target)
                      - 20.0 * np.log10(np.interp(np.log(1000.0), np.log(freqs), smoothed)))
            ax.semilogx(freqs, rec.to_db(raw) + offset + gain_db, color="0.7", lw=0.6,
                        label="rig, unsmoothed")
            ax.semilogx(grid, target + gain_db, color="C0", lw=1.8,
                        label=f"target ({design.SMOOTHING_TEXT[position]})")
            model = rec.to_db(design.model_response(speaker, d["bands"]["96"], key, grid, 96))
            ax.semilogx(grid, model, color="C3", lw=1.0, ls="--", label="model, band 96")
            ax.set_title(f"{TYPE_NAMES[mic_type]}, {POSITION_SHORT[position]}")
            ax.grid(True, which="both", alpha=0.3)
            ax.set_xlim(20.0, 20000.0)
            ax.set_ylim(-40.0, 20.0)
            if position == 0:
                ax.set_ylabel("dB")
            if mic_type == 1:
                ax.set_xlabel("Hz")
    axes[0, 0].legend(loc="lower center")
    fig.suptitle(f"{speaker}: rig, target and model (gain entry included)")
    fig.tight_layout()
    fig.savefig(out, dpi=80)
    plt.close(fig)


def plot_bands(d: dict, out: Path) -> None:
    """Per setting: the six bands overlaid, and their difference from band 96."""
    plt = _plot_setup()
    speaker = d["speaker"]
    freqs = np.geomspace(20.0, 20000.0, 500)
    fig, axes = plt.subplots(4, 3, figsize=(12, 9), sharex=True,
                             gridspec_kw={"height_ratios": [3, 1.2, 3, 1.2]})
    for key in cat.CHAIN_KEYS:
        mic_type, position = key
        ax = axes[2 * mic_type, position]
        ax_diff = axes[2 * mic_type + 1, position]
        ref = None
        for i, band in enumerate(cat.BANDS):
            top = freqs < 0.45 * cat.SAMPLE_RATES[band]
            h = rec.to_db(design.model_response(speaker, d["bands"][str(band)], key, freqs[top], band))
            ax.semilogx(freqs[top], h, lw=0.9, color=f"C{i}", label=f"band {band}")
            if band == 96:
                ref = h
        for i, band in enumerate(cat.BANDS):
            top = freqs < 0.45 * cat.SAMPLE_RATES[band]
            h = rec.to_db(design.model_response(speaker, d["bands"][str(band)], key, freqs[top], band))
            ax_diff.semilogx(freqs[top], h - ref[:top.sum()], lw=0.8, color=f"C{i}")
        ax.set_title(f"{TYPE_NAMES[mic_type]}, {POSITION_SHORT[position]}")
        ax.set_ylim(-40.0, 20.0)
        ax.grid(True, which="both", alpha=0.3)
        ax_diff.set_ylim(-0.25, 0.25)
        ax_diff.axvline(design.BAND_AGREEMENT_TOP, color="0.5", lw=0.8, ls=":")
        ax_diff.grid(True, which="both", alpha=0.3)
        if position == 0:
            ax.set_ylabel("dB")
            ax_diff.set_ylabel("vs band 96")
    axes[0, 0].legend(loc="lower center", ncol=2)
    for ax in axes[3]:
        ax.set_xlabel("Hz")
    fig.suptitle(f"{speaker}: the six bands of each setting")
    fig.tight_layout()
    fig.savefig(out, dpi=80)
    plt.close(fig)


def plot_calibration(d: dict, out: Path) -> None:
    plt = _plot_setup()
    speaker, band, key = cat.CALIBRATION_MODEL
    freqs = np.geomspace(20.0, 0.45 * cat.SAMPLE_RATES[band], 600)
    fig, ax = plt.subplots(figsize=(8, 4.2))
    for b in (44, 96, 192):
        h = rec.to_db(design.model_response(speaker, d["bands"][str(b)], key,
                                            freqs[freqs < 0.45 * cat.SAMPLE_RATES[b]], b))
        ax.semilogx(freqs[freqs < 0.45 * cat.SAMPLE_RATES[b]], h, lw=1.0, label=f"{speaker}n{b}a")
    points = np.array(cat.CALIBRATION_POINTS)
    ax.errorbar(points[:, 0], points[:, 1], yerr=1.0, fmt="o", color="k", ms=3, capsize=3,
                label="calibration points, +-1 dB")
    ax.axhline(cat.CALIBRATION_CEILING_DB, color="0.4", ls=":", lw=0.8)
    ax.set_xlim(20.0, 45000.0)
    ax.set_ylim(-60.0, 15.0)
    ax.grid(True, which="both", alpha=0.3)
    ax.legend(loc="lower left")
    ax.set_xlabel("Hz")
    ax.set_ylabel("dB")
    ax.set_title("4x12, microphone type 0, position 0, pre-sections and gain included")
    fig.tight_layout()
    fig.savefig(out, dpi=80)
    plt.close(fig)


# ---------------------------------------------------------------------------------------
# text


def _parameter_rows(rows: list[dict], groups) -> list[str]:
    lines = ["| part | parameter | value | unit | meaning | source |", "|---|---|---|---|---|---|"]
    for r in rows:
        if r["group"] in groups:
            lines.append(f"| {GROUP_NAMES.get(r['group'], r['group'])} | `{r['name']}` | "
                         f"{_fmt(r['value'])} | {r['unit']} | {r['meaning']} | {r['source']} |")
    return lines


def derived_lines(values: dict, speaker: str) -> list[str]:
    """What the parameters give: closed-box resonance, port, driver mechanics."""
    drv = rig.driver(values, rig.DRIVER_OF[speaker])
    cab = rig.cabinet(values, speaker)
    rho, c = values[("air", "rho")], values[("air", "c")]
    cms, mms, rms, bl2 = drv.mechanics(rho, c)
    lines = [f"Driver: Mms = {1000 * mms:.1f} g, Cms = {1e3 * cms:.3f} mm/N, "
             f"Bl = {bl2 ** 0.5:.2f} T m, Qes = {1 / (1 / drv.qts - 1 / drv.qms):.2f}, "
             f"decoupling at {drv.fe:.0f} Hz."]
    if cab.kind == "closed":
        ratio = (1.0 + drv.vas / cab.vb) ** 0.5
        lines.append(f"Closed box: fc = Fs sqrt(1 + Vas/Vb) = {drv.fs * ratio:.1f} Hz, "
                     f"Qtc = {drv.qts * ratio:.2f} before the box losses (Q_B = {cab.qb:.2g}).")
    elif cab.kind == "ported":
        lines.append(f"Ported box: {1000 * cab.vb * len(cab.drivers):.0f} L, tuned to {cab.fb:.0f} Hz.")
    else:
        lines.append(f"Open back: the driver resonates free at Fs = {drv.fs:.0f} Hz, Q = {drv.qts:.2f}.")
    return lines


def write_report(directory: Path = DOCS_DIR, design_dir: Path = emit.DESIGN_DIR, log=print) -> Path:
    directory.mkdir(parents=True, exist_ok=True)
    designs = {s: emit.load_design(s, design_dir) for s in cat.SPEAKERS}

    started = time.time()
    import tempfile

    with tempfile.TemporaryDirectory() as scratch:
        emit.emit_all(design_dir=design_dir, table_dir=Path(scratch), log=lambda *_: None)
    emission_seconds = time.time() - started

    figures = {s: model_figures(d) for s, d in designs.items()}
    spreads = {s: {k: band_spread(d, k) for k in cat.CHAIN_KEYS if k[1] < 2} for s, d in designs.items()}
    calibration = design.calibration_figures(designs["4x12"]["bands"])
    design_seconds = (max(d["fit"].get("rigTuningSeconds", 0.0) for d in designs.values())
                      + sum(d["fit"].get("designSeconds", 0.0) for d in designs.values()))

    plot_calibration(designs["4x12"], directory / "calibration.png")
    for speaker, d in designs.items():
        plot_curves(d, directory / f"{speaker}-curves.png")
        plot_bands(d, directory / f"{speaker}-bands.png")
        log(f"plots of {speaker} written")

    lines = [
        "# Speaker models: what they sound like and how they were made",
        "",
        "<!-- Generated by tools/speaker-lab/lab report from the design records; do not edit. -->",
        "",
        "Thirty models: five cabinets, each at six sample-rate bands (44.1 to 192 kHz). Every",
        "model holds six filter chains, one per microphone setting: two microphone types",
        f"(type 0, {TYPE_NAMES[0]}; type 1, {TYPE_NAMES[1]}) at three positions (0, {POSITION_NAMES[0]};",
        f"1, {POSITION_NAMES[1]}; 2, {POSITION_NAMES[2]}).",
        "",
        "## For the player",
        "",
        "- The **cap** position is the brightest: the microphone sees the middle of the cone, "
        "where the treble comes from.",
        "- The **edge** position is darker and fuller: the breaking-up cone radiates its treble "
        "from the middle only, and the microphone sits over the moving cone, where the "
        "proximity effect is strongest.",
        "- The **room** position is thinner in the lows and smoother: no proximity effect, all "
        "drivers together, and the floor reflection; only there the model's ambience is heard "
        "(the bass cabinet's port is the exception, see below).",
        "- The **ribbon** is darker and fuller than the dynamic: it hears only the air's motion "
        "(all proximity effect, no pressure part) and rolls its treble off from about 8 kHz.",
        "- All settings of a model are equally loud for pink noise (100 Hz to 6 kHz), so "
        "switching compares sound, not level.",
        "",
    ]
    for speaker in cat.SPEAKERS:
        lines.append(f"- **{speaker}**: {CHARACTER[speaker]}")
    lines += [
        "",
        "## How the data were made",
        "",
        "No measured impulse responses come with the project. The lab builds each response "
        "with a virtual measurement rig, the physics of a loudspeaker in its cabinet and of a "
        "microphone in its sound field, and fits the chains to it:",
        "",
        "1. **Driver**: Thiele-Small electro-mechanics at a constant drive voltage, with the "
        "voice coil's inductance as Le plus the L2/R2 semi-inductance.",
        "2. **Cone break-up**: above its decoupling frequency only the middle of the cone "
        "radiates (the radiating radius shrinks as a / sqrt(1 + (f/f_e)^2), and so does the mass "
        "the coil moves); a few damped modes give the dip near 1.5 kHz, the presence "
        "resonance and the fall above 5 kHz.",
        "3. **Enclosure**: closed boxes as an air spring with losses, the open back as a rear "
        "wave with its path delay and inverted sign, the ported box as a Helmholtz resonator "
        "radiating from the port; standing waves as notches (for the 2x12 and 4x12 the fixed "
        "dip section is that notch).",
        "4. **Radiation**: each cone a baffled piston; on its axis the closed-form near field, "
        "everywhere else a numerical Rayleigh integral (48 rings x 128 spokes near a cone); "
        "every driver, the port and the rear wave are summed at the microphone with their own "
        "delay and distance.",
        "5. **Microphones**: output A p + B rho c u_n, so the proximity effect comes from the "
        "field itself; type 0 A = B = 0.5, type 1 A = 0, B = 1; each with its capsule response.",
        "6. **Positions**: the distant one hears all drivers and the floor reflection as an "
        "image source.",
        "",
        "The 4x12 rig was tuned (parameters marked *tuned* below, within the stated ranges) so "
        "that the model meets the calibration curve; the same physics with each cabinet's own "
        "parameters made the other four.",
        "",
        "Rules of this design, as stored in the records:",
        "",
    ]
    for name, text in designs["4x12"]["rules"].items():
        lines.append(f"- *{name}*: {text}")
    lines += [
        "- *pre-sections*: band 96 holds the fixed records; the other bands take their zeros "
        "and poles to continuous time and back at their own rate, with the level at DC kept.",
        "",
        "`tools/speaker-lab/lab fit IR.wav --plan \"F2 S9 T\"` runs the same fit on a measured "
        "impulse response (any rate) and prints its error figures.",
        "",
        "## Calibration",
        "",
        "![calibration](calibration.png)",
        "",
        "4x12n96a, microphone type 0, position 0, pre-sections and gain entry included:",
        "",
        "| Hz | " + " | ".join(f"{f:g}" for f in calibration["pointsHz"]) + " | above 8 kHz |",
        "|---|" + "---|" * (len(calibration["pointsHz"]) + 1),
        "| wanted dB | " + " | ".join(f"{v:+.1f}" for v in calibration["wantedDb"])
        + f" | below {cat.CALIBRATION_CEILING_DB:g} |",
        "| measured dB | " + " | ".join(f"{v:+.2f}" for v in calibration["measuredDb"])
        + f" | max {calibration['maxAbove8kDb']:+.2f} |",
        "| error dB | " + " | ".join(f"{m - w:+.2f}" for m, w in
                                      zip(calibration["measuredDb"], calibration["wantedDb"]))
        + " | |",
        "",
        "Bound: within +-1 dB at every point, below -17 dB above 8 kHz (to 0.45 x 96 kHz).",
        "",
        "## Figures of all thirty models",
        "",
        "Fit error from 60 Hz to 8 kHz of pre-sections x chain against the smoothed target "
        "(1/6 octave at positions 0 and 1, bound 0.5 dB RMS and 1.5 dB max; 1/3 octave at "
        "position 2, bound 1.0 dB RMS and 3.0 dB max), worst chain of the model; band spread: "
        "the largest difference between the six bands of a setting, positions 0 and 1, 20 Hz "
        "to 6 kHz, pre-sections and gains included (bound 0.2 dB, per speaker); float32: "
        "float32 records against the double design up to 10 kHz (bound 0.05 dB); structure: "
        "every invariant of the records and both table lengths (exact).",
        "",
        "| model | close RMS | close max | distant RMS | distant max | band spread | float32 "
        "| lengths | structure |",
        "|---|---|---|---|---|---|---|---|---|",
    ]
    for speaker in cat.SPEAKERS:
        spread = max(spreads[speaker].values())
        for band in cat.BANDS:
            fb = figures[speaker][band]
            close = [c for c in fb["chains"] if c["key"][1] < 2]
            far = [c for c in fb["chains"] if c["key"][1] == 2]
            structure = "ok" if not fb["faults"] else f"{len(fb['faults'])} faults"
            lines.append(
                f"| {cat.model_name(speaker, band)} | {max(c['rms'] for c in close):.3f} | "
                f"{max(c['max'] for c in close):.3f} | {max(c['rms'] for c in far):.3f} | "
                f"{max(c['max'] for c in far):.3f} | {spread:.3f} | "
                f"{max(c['float32'] for c in fb['chains']):.2g} | "
                f"{fb['lengths'][0]} / {fb['lengths'][1]} {'ok' if fb['lengthsOk'] else 'WRONG'} | "
                f"{structure} |")
    lines += [
        "",
        f"Design run: {design_seconds:.0f} s for the rig tuning and the five speakers in one process "
        f"(bound 15 min on 2 cores); one emission of the thirty tables: {emission_seconds:.1f} s "
        "(bound 10 s), measured while writing this report.",
        "",
        "## Rig parameters shared by all cabinets",
        "",
    ]
    rows = designs["4x12"]["rig"]
    lines += _parameter_rows(rows, SHARED_GROUPS)
    lines.append("")
    for speaker in cat.SPEAKERS:
        d = designs[speaker]
        values = rig.values_from_table(d["rig"])
        group = rig.DRIVER_OF[speaker]
        lines += [
            f"## {speaker}",
            "",
            CHARACTER[speaker],
            "",
            f"![{speaker} curves]({speaker}-curves.png)",
            "",
            "Grey: the rig's raw response; blue: the smoothed target the chain was fitted to; "
            "red dashed: the model at band 96. Levels include the gain entry, so the six "
            "settings are shown as loud as they play.",
            "",
            f"![{speaker} bands]({speaker}-bands.png)",
            "",
            "The six bands of each setting overlaid, and their difference from band 96 "
            "(dotted line: 6 kHz, the end of the agreement bound).",
            "",
            "Gain tables (all bands): type 0 "
            + ", ".join(f"{v:.6g}" for v in d["bands"]["96"]["gainTables"][0][:3])
            + "; type 1 " + ", ".join(f"{v:.6g}" for v in d["bands"]["96"]["gainTables"][1][:3]) + ".",
            "",
            *derived_lines(values, speaker),
            "",
            "Parameters of this cabinet and its driver:",
            "",
            *_parameter_rows(d["rig"], (group, speaker)),
            "",
            "Fit error per band and setting, RMS / max in dB (60 Hz to 8 kHz):",
            "",
            "| band | " + " | ".join(f"{TYPE_NAMES[k[0]].split()[0]} {POSITION_SHORT[k[1]]}"
                                    for k in cat.CHAIN_KEYS) + " | float32 |",
            "|---|" + "---|" * 7,
        ]
        for band in cat.BANDS:
            fb = figures[speaker][band]
            cells = [f"{c['rms']:.3f} / {c['max']:.3f}" for c in fb["chains"]]
            lines.append(f"| {band} | " + " | ".join(cells)
                         + f" | {max(c['float32'] for c in fb['chains']):.2g} |")
        lines += [
            "",
            "Band spread (positions 0 and 1, to 6 kHz): "
            + ", ".join(f"{TYPE_NAMES[k[0]].split()[0]} {POSITION_SHORT[k[1]]} {v:.3f} dB"
                        for k, v in spreads[speaker].items()) + ".",
            "",
            "Plans: " + "; ".join(f"{design.key_text(k)} {cat.BASE_PLANS[speaker][i]}"
                                  for i, k in enumerate(cat.CHAIN_KEYS)) + ".",
            "",
        ]
    path = directory / "README.md"
    path.write_text("\n".join(lines))
    return path
