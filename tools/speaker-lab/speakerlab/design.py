"""`lab design`: rig -> smoothed minimum-phase targets -> poles and taps -> design records
(designs/<speaker>.json)."""

from __future__ import annotations

import json
import math
import re
import time
from pathlib import Path

import numpy as np

from . import calibration
from . import catalogue as cat
from . import fit
from . import records as rec
from . import response as rs
from . import rig
from .presections import band_pre_records, digital_pre_response

TARGET_RULE = (
    "Each setting is the virtual rig's response (driver, cone break-up, enclosure, radiation, "
    "several drivers, microphone, position; rig.py and the parameter table), smoothed in "
    "power over a Hann window in log frequency, 1/6 octave wide at half height at the close "
    "positions and 1/3 octave at the distant one, then made minimum phase by the folded real "
    "cepstrum on a 2^19-point FFT over a bilinearly warped frequency axis with a -120 dB "
    "floor. The 4x12 rig is tuned so that this target meets the calibration curve. The chain "
    "of a band is fitted to the target divided by the band's pre-sections.")
GAIN_RULE = (
    "Each setting's chain is first scaled so that, with the pre-sections, it carries the same "
    "power for pink noise from 40 Hz to 12 kHz (the range the cabinets reproduce; power mean "
    "over log frequency) as every other chain. The gains then make the six settings equally "
    "loud for pink noise from 100 Hz to 6 kHz, scaled as a set so that the largest is "
    "0.89125097 (-1 dB). The level of the whole is the one that gives the 4x12, type 0, "
    "position 0 the absolute calibration curve, and every model has that loudness. So a "
    "change of chain keeps the power, and the gains carry what remains in the musical band. "
    "Computed from the continuous-time targets, so the gains are the same in all bands of a "
    "speaker.")
THROUGH_RULE = ("Through gain 1.0 in every stage: each through is an exact all-pass in "
                "double precision, so the main signal keeps its level along the chain.")
POLE_RULE = (
    "One continuous-time pole set per chain, shared by the six bands: log-spaced starts "
    "(three frequency spans), variable projection over all six bands jointly; of the three "
    "results the lowest error among those whose six bands agree within 0.15 dB up to 6 kHz "
    "is kept. Taps per band by weighted least squares (weight 1/|target|; 1 from 40 Hz to "
    "10 kHz, 0.3 outside it up to 20 kHz, 0.03 from 20 kHz to 0.45 R), SVD on scaled "
    "columns, each band's plan (and so its reduced taps) imposed.")

LOUDNESS_BAND = (100.0, 6000.0)
POWER_BAND = (40.0, 12000.0)
FIT_ERROR_BAND = (60.0, 8000.0)
FLOAT32_CHECK_TOP = 10000.0
BAND_AGREEMENT_TOP = 6000.0
BAND_SPREAD_GOAL = 0.15   # dB, a margin under the 0.2 dB bound
SMOOTHING = {0: 1.0 / 6.0, 1: 1.0 / 6.0, 2: 1.0 / 3.0}
SMOOTHING_TEXT = {0: "1/6 octave", 1: "1/6 octave", 2: "1/3 octave"}
# Figures are judged on this grid; the records keep the targets on it.
FIGURE_GRID = {"lowHz": 20.0, "highHz": 20000.0, "perOctave": 48}

DESIGN_DIR = Path(__file__).resolve().parent.parent / "designs"


def figure_grid() -> np.ndarray:
    return rs.log_grid(FIGURE_GRID["lowHz"], FIGURE_GRID["highHz"], FIGURE_GRID["perOctave"])


def key_text(key) -> str:
    return f"{key[0]},{key[1]}"


# ---------------------------------------------------------------------------------------
# targets and levels


def setting_targets(values: dict, speaker: str) -> dict:
    """{key: MinimumPhase} of the six settings at the rig's absolute level."""
    freqs = rs.log_grid()
    targets = {}
    for position in range(3):
        fields = rig.source_fields(values, speaker, position, freqs)
        for mic_type in (0, 1):
            h = rig.response(values, speaker, mic_type, position, freqs, fields)
            targets[(mic_type, position)] = rs.smoothed_minimum_phase(freqs, h, SMOOTHING[position])
    return targets


def loudness(response_fn, band=LOUDNESS_BAND) -> float:
    """RMS level for pink noise over the band: power mean over log frequency."""
    freqs = np.geomspace(*band, 400)
    power = np.abs(response_fn(freqs)) ** 2
    return math.sqrt(float(np.mean(power)))


def gain_rule(targets: dict, reference) -> tuple[dict, dict]:
    """(scale of each setting's model target, gain of each setting): see GAIN_RULE."""
    reference_power = loudness(reference, POWER_BAND)
    norm, relative = {}, {}
    for key, target in targets.items():
        norm[key] = reference_power / loudness(target, POWER_BAND)
        relative[key] = loudness(target) * norm[key]
    quietest = min(relative.values())
    gains = {k: cat.GAIN_TABLE_PEAK * quietest / v for k, v in relative.items()}
    alpha = loudness(reference) / (cat.GAIN_TABLE_PEAK * quietest)
    return {k: norm[k] * alpha for k in targets}, gains


# ---------------------------------------------------------------------------------------
# records and figures


def _json_stage(stage: dict) -> dict:
    out = {"kind": stage["kind"], "tap": [rec.json_float(v) for v in stage["tap"]]}
    if "through" in stage:
        out["through"] = [rec.json_float(v) for v in stage["through"]]
        out["gain"] = stage["gain"]
    return out


def _json_pole(pole: dict) -> dict:
    if "z" in pole:
        return {"z": pole["z"]}
    if "f" in pole:
        return {"f": pole["f"], "sigma": pole["sigma"]}
    return {"sigma": pole["sigma"], "sign": pole["sign"]}


def error_grid() -> np.ndarray:
    """60 Hz to 8 kHz, both ends included, 48 points per octave."""
    octaves = math.log2(FIT_ERROR_BAND[1] / FIT_ERROR_BAND[0])
    return np.geomspace(*FIT_ERROR_BAND, int(math.ceil(octaves * FIGURE_GRID["perOctave"])) + 1)


def curve_at(curve_db, freqs: np.ndarray) -> np.ndarray:
    """A stored target curve (on the figure grid) at other frequencies, linear in log f."""
    return np.interp(np.log(freqs), np.log(figure_grid()), np.asarray(curve_db, dtype=float))


def fit_figures(band_record: dict, key, band: int, curve_db) -> dict:
    """RMS and max dB error of pre-sections x chain against its stored target, 60 Hz-8 kHz."""
    freqs = error_grid()
    model = chain_model_db(band_record, key, freqs, band)
    rms, peak = rs.error_figures(model, curve_at(curve_db, freqs))
    return {"rmsDb": round(rms, 4), "maxDb": round(peak, 4)}


def refresh_fit_figures(record: dict) -> None:
    """Write the fit figures of every chain of a design record from the record itself."""
    for band in cat.BANDS:
        band_record = record["bands"][str(band)]
        for key, chain in zip(cat.CHAIN_KEYS, band_record["chains"]):
            curve = record["targets"]["chains"][key_text(key)]["db"]
            chain["fit"].update(fit_figures(band_record, key, band, curve))


def float32_error(stages32, stages64, rate: float) -> float:
    freqs = np.geomspace(20.0, FLOAT32_CHECK_TOP, 400)
    d = rec.delta_of(freqs, rate)
    diff = rec.to_db(rec.chain_response(stages32, d)) - rec.to_db(rec.chain_response(stages64, d))
    return float(f"{np.max(np.abs(diff)):.3g}")


def model_response(speaker: str, band_record: dict, key: tuple[int, int], freqs: np.ndarray,
                   band: int) -> np.ndarray:
    """pre-sections x gain entry x chain, from the float32 records, in double."""
    d = rec.delta_of(freqs, cat.SAMPLE_RATES[band])
    h = np.ones_like(d)
    for r in band_record["preRecords"]:
        h = h * rec.record_response("second", r, d)
    chain = band_record["chains"][cat.CHAIN_KEYS.index(key)]
    gain = band_record["gainTables"][key[0]][key[1]]
    return h * gain * rec.chain_response(chain["stages"], d)


def chain_model_db(band_record: dict, key, freqs: np.ndarray, band: int) -> np.ndarray:
    """pre-sections x chain (no gain entry): what the chain target is compared with."""
    d = rec.delta_of(freqs, cat.SAMPLE_RATES[band])
    h = np.ones_like(d)
    for r in band_record["preRecords"]:
        h = h * rec.record_response("second", r, d)
    chain = band_record["chains"][cat.CHAIN_KEYS.index(key)]
    return rec.to_db(h * rec.chain_response(chain["stages"], d))


def band_agreement(speaker: str, bands: dict) -> float:
    """Largest spread in dB between the six bands of a setting, positions 0 and 1, 20 Hz to
    6 kHz, pre-sections and gains included."""
    freqs = np.geomspace(20.0, BAND_AGREEMENT_TOP, 300)
    worst = 0.0
    for key in cat.CHAIN_KEYS:
        if key[1] == 2:
            continue
        curves = np.array([rec.to_db(model_response(speaker, bands[str(b)], key, freqs, b))
                           for b in cat.BANDS])
        worst = max(worst, float(np.max(curves.max(axis=0) - curves.min(axis=0))))
    return round(worst, 4)


def calibration_figures(bands: dict) -> dict:
    speaker, band, key = cat.CALIBRATION_MODEL
    freqs = np.array([f for f, _ in cat.CALIBRATION_POINTS])
    got = rec.to_db(model_response(speaker, bands[str(band)], key, freqs, band))
    above = np.geomspace(8000.0 * 1.001, 0.45 * cat.SAMPLE_RATES[band], 400)
    top = rec.to_db(model_response(speaker, bands[str(band)], key, above, band))
    return {"pointsHz": [f for f, _ in cat.CALIBRATION_POINTS],
            "measuredDb": [round(float(v), 3) for v in got],
            "wantedDb": [v for _, v in cat.CALIBRATION_POINTS],
            "maxAbove8kDb": round(float(np.max(top)), 2)}


def chain_band_spread(poles, problems, speaker: str) -> float:
    """Largest difference between the bands of pre-sections x chain, 20 Hz to 6 kHz."""
    freqs = np.geomspace(20.0, BAND_AGREEMENT_TOP, 200)
    curves = []
    for band, problem in zip(cat.BANDS, problems):
        coefficients = fit.solve_rate(problem.plan, poles, problem)
        _, rounded = fit.band_records(problem.plan, poles, problem.rate, coefficients)
        pre = digital_pre_response(band_pre_records(speaker, band), freqs, problem.rate)
        curves.append(rec.to_db(pre * rec.chain_response(rounded, rec.delta_of(freqs, problem.rate))))
    curves = np.array(curves)
    return float(np.max(curves.max(axis=0) - curves.min(axis=0)))


def pick_candidate(candidates, problems, speaker: str) -> tuple[list, float]:
    """The lowest cost among the pole sets whose bands agree within BAND_SPREAD_GOAL, else the
    one whose bands agree best: (poles, spread)."""
    spreads = [chain_band_spread(poles, problems, speaker) for poles, _ in candidates]
    for (poles, _), spread in zip(candidates, spreads):
        if spread <= BAND_SPREAD_GOAL:
            return poles, spread
    best = int(np.argmin(spreads))
    return candidates[best][0], spreads[best]


def design_speaker(speaker: str, values: dict, reference, log=print,
                   tuning_seconds: float = 0.0) -> dict:
    started = time.time()
    targets = setting_targets(values, speaker)
    scales, gains = gain_rule(targets, reference)
    model_targets = {k: (lambda mp, g: (lambda f: g * mp(f)))(targets[k], scales[k])
                     for k in cat.CHAIN_KEYS}
    log(f"  {speaker}: targets ({time.time() - started:.1f} s)")

    def chain_target(key, band):
        pre = band_pre_records(speaker, band)
        rate = cat.SAMPLE_RATES[band]
        return lambda f: model_targets[key](f) / digital_pre_response(pre, f, rate)

    chain_poles = {}
    for key in cat.CHAIN_KEYS:
        base_plan = cat.BASE_PLANS[speaker][cat.CHAIN_KEYS.index(key)]
        problems = [fit.make_problem(cat.SAMPLE_RATES[b], cat.chain_plan(speaker, b, key),
                                     chain_target(key, b)) for b in cat.BANDS]
        candidates = fit.pole_candidates(base_plan, problems, fixed_f_stage=True)
        chain_poles[key], spread = pick_candidate(candidates, problems, speaker)
        log(f"  {speaker} chain {key_text(key)}: poles, band spread {spread:.3f} dB "
            f"({time.time() - started:.1f} s)")

    gain32 = {k: rec.f32(v) for k, v in gains.items()}
    if max(gain32.values()) != rec.f32(cat.GAIN_TABLE_PEAK):
        raise AssertionError("gain table peak is not -1 dB")

    grid = figure_grid()
    target_db = {k: rec.to_db(model_targets[k](grid)) for k in cat.CHAIN_KEYS}
    target_db = {k: np.round(v, 4) for k, v in target_db.items()}
    bands = {}
    for band in cat.BANDS:
        rate = cat.SAMPLE_RATES[band]
        h0, h2, ambience_record = cat.AMBIENCE[band]
        pre = band_pre_records(speaker, band)
        band_chains = []
        for key in cat.CHAIN_KEYS:
            plan = cat.chain_plan(speaker, band, key)
            problem = fit.make_problem(rate, plan, chain_target(key, band))
            coefficients = fit.solve_rate(plan, chain_poles[key], problem)
            exact, rounded = fit.band_records(plan, chain_poles[key], rate, coefficients)
            stages = [_json_stage(s) for s in rounded]
            figures = {"float32VsDoubleDb": float32_error(rounded, exact, rate)}
            band_chains.append({"branch": key[0], "position": key[1], "plan": plan,
                                "stages": stages, "fit": figures})
        gain_tables = []
        for branch in (0, 1):
            g = [gain32[(branch, position)] for position in range(3)]
            gain_tables.append([rec.json_float(v) for v in (g[0], g[1], g[2], g[2])])
        bands[str(band)] = {
            "preRecords": [[rec.json_float(v) for v in r] for r in pre],
            "gainTables": gain_tables,
            "chains": band_chains,
            "ambienceRecord": [rec.json_float(v) for v in ambience_record],
            "ambienceGainTable": [rec.json_float(v) for v in (h0, h0, h2, h2)],
        }

    summary = {"bandAgreementDb": band_agreement(speaker, bands),
               "designSeconds": round(time.time() - started, 1),
               "rigTuningSeconds": round(tuning_seconds, 1)}
    if speaker == cat.CALIBRATION_MODEL[0]:
        summary["calibration"] = calibration_figures(bands)

    record = {
        "speaker": speaker,
        "rules": {"target": TARGET_RULE, "poles": POLE_RULE, "gains": GAIN_RULE,
                  "throughGains": THROUGH_RULE},
        "rig": rig.parameter_table(values),
        "targets": {
            "grid": dict(FIGURE_GRID),
            "note": "target of pre-sections x chain in dB (the gain entry not included), as fitted",
            "chains": {key_text(k): {"smoothing": SMOOTHING_TEXT[k[1]],
                                     "db": [float(v) for v in target_db[k]]}
                       for k in cat.CHAIN_KEYS},
        },
        "chains": [{"branch": k[0], "position": k[1],
                    "poles": [_json_pole(p) for p in chain_poles[k]]} for k in cat.CHAIN_KEYS],
        "bands": bands,
        "fit": summary,
    }
    refresh_fit_figures(record)
    return record


_NUMBER_LIST = re.compile(r"\[\s*([-+0-9.eE]+(?:,\s*[-+0-9.eE]+)*)\s*\]")


def dumps_design(design: dict) -> str:
    """JSON with every list of numbers (a record, a gain table, a curve) on one line."""
    text = json.dumps(design, indent=1)
    return _NUMBER_LIST.sub(lambda m: "[" + ", ".join(v.strip() for v in m.group(1).split(",")) + "]",
                            text) + "\n"


def write_design(design: dict, directory: Path = DESIGN_DIR) -> Path:
    directory.mkdir(parents=True, exist_ok=True)
    path = directory / f"{design['speaker']}.json"
    path.write_text(dumps_design(design))
    return path


def tuned_values(log=print) -> dict:
    values, report = calibration.tune(rig.default_values(), log=log)
    return values


def run(speakers=cat.SPEAKERS, directory: Path = DESIGN_DIR, log=print) -> None:
    started = time.time()
    values = tuned_values(log)
    speaker, _, key = cat.CALIBRATION_MODEL
    reference = setting_targets(values, speaker)[key]
    tuning_seconds = time.time() - started
    log(f"rig tuned ({tuning_seconds:.1f} s)")
    for speaker in speakers:
        design = design_speaker(speaker, values, reference, log=log, tuning_seconds=tuning_seconds)
        path = write_design(design, directory)
        worst = max(max(c["fit"]["maxDb"] for c in b["chains"]) for b in design["bands"].values())
        log(f"wrote {path} (band agreement {design['fit']['bandAgreementDb']} dB, "
            f"worst fit error {worst} dB, {design['fit']['designSeconds']} s)")
        if "calibration" in design["fit"]:
            log(f"  calibration: {design['fit']['calibration']['measuredDb']}")
    log(f"design took {time.time() - started:.1f} s")
