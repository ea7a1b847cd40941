"""`lab design`: targets -> poles and taps -> design records (designs/<speaker>.json)."""

from __future__ import annotations

import json
import math
import re
import time
from pathlib import Path

import numpy as np

from . import catalogue as cat
from . import fit
from . import records as rec
from . import targets
from .presections import band_pre_records

GAIN_RULE = (
    "Each setting's chain is first set so that, with the pre-sections, it gives the level "
    "of the calibration curve at 1 kHz. The gains then make the six settings equally loud "
    "for pink noise from 100 Hz to 6 kHz (power mean over log frequency), scaled as a set "
    "so that the largest is 0.89125097 (-1 dB). The scale of the chain levels is the one "
    "that gives the 4x12, type 0, position 0 the absolute calibration curve, and every "
    "model has that loudness. Computed from the continuous-time targets, so the gains "
    "are the same in all bands of a speaker."
)
THROUGH_RULE = ("Through gain 1.0 in every stage: each through is an exact all-pass in "
                "double precision, so the main signal keeps its level along the chain.")
TARGET_RULE = (
    "Parametric analog target per setting (box high-pass, low-mid bump, cone dip, presence "
    "peak, break-up low-passes); 4x12/type 0/position 0 tuned to the calibration curve, the "
    "others as stated changes of it (targets.py). Minimum phase by construction.")

LOUDNESS_BAND = (100.0, 6000.0)
FIT_ERROR_BAND = (60.0, 8000.0)
FLOAT32_CHECK_TOP = 10000.0
BAND_AGREEMENT_TOP = 6000.0

DESIGN_DIR = Path(__file__).resolve().parent.parent / "designs"


def loudness(response_fn) -> float:
    freqs = np.geomspace(*LOUDNESS_BAND, 400)
    power = np.abs(response_fn(freqs)) ** 2
    return math.sqrt(float(np.mean(power)))


def level_at(response_fn, f_hz: float) -> float:
    return float(np.abs(response_fn(np.array([f_hz])))[0])


def chain_targets(speaker: str, calibrated: dict) -> tuple[dict, dict, dict]:
    """(params per key, chain target function per key, gain per key)."""
    reference = lambda f: targets.full_response("4x12", calibrated, f)
    reference_loudness = loudness(reference)
    reference_1k = level_at(reference, 1000.0)

    params, shaped, relative_loudness = {}, {}, {}
    for key in cat.CHAIN_KEYS:
        p = targets.setting_params(calibrated, speaker, key)
        params[key] = p
        full = (lambda pp: (lambda f: targets.full_response(speaker, pp, f)))(p)
        # chain level: the calibration curve's level at 1 kHz, pre-sections included
        norm = reference_1k / level_at(full, 1000.0)
        shaped[key] = (p, norm)
        relative_loudness[key] = loudness(full) * norm

    # gains: equal loudness, the set scaled so that the peak is -1 dB
    quietest = min(relative_loudness.values())
    gains = {k: cat.GAIN_TABLE_PEAK * quietest / v for k, v in relative_loudness.items()}
    # level of the chains: the final loudness is that of the calibration curve
    alpha = reference_loudness / (cat.GAIN_TABLE_PEAK * quietest)

    functions = {}
    for key, (p, norm) in shaped.items():
        functions[key] = (lambda pp, scale: (lambda f: scale * targets.shape_response(pp, f)))(
            p, norm * alpha)
    return params, functions, gains


def design_chain(speaker: str, key: tuple[int, int], target_fn) -> list[dict]:
    base_plan = cat.BASE_PLANS[speaker][cat.CHAIN_KEYS.index(key)]
    problems = [fit.make_problem(b, cat.chain_plan(speaker, b, key), target_fn) for b in cat.BANDS]
    poles = fit.initial_poles(base_plan, fixed_f_stage=True)
    return fit.optimise_poles(poles, problems)


def _error_figures(stages32, stages64, target_fn, band: int) -> dict:
    rate = cat.SAMPLE_RATES[band]
    freqs = np.geomspace(*FIT_ERROR_BAND, 400)
    d = rec.delta_of(freqs, rate)
    got = rec.to_db(rec.chain_response(stages32, d))
    error = got - rec.to_db(target_fn(freqs))
    freqs_10k = np.geomspace(20.0, FLOAT32_CHECK_TOP, 400)
    d10 = rec.delta_of(freqs_10k, rate)
    rounding = rec.to_db(rec.chain_response(stages32, d10)) - rec.to_db(rec.chain_response(stages64, d10))
    return {"rmsDb": round(float(np.sqrt(np.mean(error ** 2))), 4),
            "maxDb": round(float(np.max(np.abs(error))), 4),
            "float32VsDoubleDb": float(f"{np.max(np.abs(rounding)):.3g}")}


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


def design_speaker(speaker: str, calibrated: dict, log=print) -> dict:
    params, functions, gains = chain_targets(speaker, calibrated)
    started = time.time()
    chain_poles = {}
    for key in cat.CHAIN_KEYS:
        chain_poles[key] = design_chain(speaker, key, functions[key])
        log(f"  {speaker} chain {key[0]},{key[1]}: poles done ({time.time() - started:.1f} s)")

    gain32 = {k: rec.f32(v) for k, v in gains.items()}
    peak = max(gain32.values())
    if peak != rec.f32(cat.GAIN_TABLE_PEAK):
        raise AssertionError("gain table peak is not -1 dB")

    bands = {}
    for band in cat.BANDS:
        rate = cat.SAMPLE_RATES[band]
        h0, h2, ambience_record = cat.AMBIENCE[band]
        band_chains = []
        for key in cat.CHAIN_KEYS:
            plan = cat.chain_plan(speaker, band, key)
            problem = fit.make_problem(band, plan, functions[key])
            basis = fit.chain_basis(plan, chain_poles[key], rate, problem.d)
            coefficients, _ = fit.solve_taps(basis, problem.target, problem.grid.weights)
            exact, rounded = fit.band_records(plan, chain_poles[key], band, coefficients)
            figures = _error_figures(rounded, exact, functions[key], band)
            band_chains.append({"branch": key[0], "position": key[1], "plan": plan,
                                "stages": [_json_stage(s) for s in rounded], "fit": figures})
        gain_tables = []
        for branch in (0, 1):
            g = [gain32[(branch, position)] for position in range(3)]
            gain_tables.append([rec.json_float(v) for v in (g[0], g[1], g[2], g[2])])
        bands[str(band)] = {
            "preRecords": [[rec.json_float(v) for v in r] for r in band_pre_records(speaker, band)],
            "gainTables": gain_tables,
            "chains": band_chains,
            "ambienceRecord": [rec.json_float(v) for v in ambience_record],
            "ambienceGainTable": [rec.json_float(v) for v in (h0, h0, h2, h2)],
        }

    summary = {"bandAgreementDb": band_agreement(speaker, bands)}
    if speaker == cat.CALIBRATION_MODEL[0]:
        summary["calibration"] = calibration_figures(bands)

    return {
        "speaker": speaker,
        "rules": {"target": TARGET_RULE, "gains": GAIN_RULE, "throughGains": THROUGH_RULE},
        "targets": {f"{k[0]},{k[1]}": {n: round(v, 6) for n, v in params[k].items()}
                    for k in cat.CHAIN_KEYS},
        "chains": [{"branch": k[0], "position": k[1],
                    "poles": [_json_pole(p) for p in chain_poles[k]]} for k in cat.CHAIN_KEYS],
        "bands": bands,
        "fit": summary,
    }


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


def band_agreement(speaker: str, bands: dict) -> float:
    """Largest dB difference between any band and band 96, positions 0 and 1, up to 6 kHz."""
    freqs = np.geomspace(20.0, BAND_AGREEMENT_TOP, 300)
    worst = 0.0
    for key in cat.CHAIN_KEYS:
        if key[1] == 2:
            continue
        ref = rec.to_db(model_response(speaker, bands["96"], key, freqs, 96))
        for band in cat.BANDS:
            got = rec.to_db(model_response(speaker, bands[str(band)], key, freqs, band))
            worst = max(worst, float(np.max(np.abs(got - ref))))
    return round(worst, 4)


def calibration_figures(bands: dict) -> dict:
    speaker, band, key = cat.CALIBRATION_MODEL
    freqs = np.array([f for f, _ in cat.CALIBRATION_POINTS])
    got = rec.to_db(model_response(speaker, bands[str(band)], key, freqs, band))
    above = np.geomspace(8000.0 * 1.001, 0.45 * cat.SAMPLE_RATES[band], 300)
    top = rec.to_db(model_response(speaker, bands[str(band)], key, above, band))
    return {"pointsHz": [f for f, _ in cat.CALIBRATION_POINTS],
            "measuredDb": [round(float(v), 2) for v in got],
            "wantedDb": [v for _, v in cat.CALIBRATION_POINTS],
            "maxAbove8kDb": round(float(np.max(top)), 2)}


_NUMBER_LIST = re.compile(r"\[\s*([-+0-9.eE]+(?:,\s*[-+0-9.eE]+)*)\s*\]")


def dumps_design(design: dict) -> str:
    """JSON with every list of numbers (a record, a gain table) on one line."""
    text = json.dumps(design, indent=1)
    return _NUMBER_LIST.sub(lambda m: "[" + ", ".join(v.strip() for v in m.group(1).split(",")) + "]",
                            text) + "\n"


def write_design(design: dict, directory: Path = DESIGN_DIR) -> Path:
    directory.mkdir(parents=True, exist_ok=True)
    path = directory / f"{design['speaker']}.json"
    path.write_text(dumps_design(design))
    return path


def run(speakers=cat.SPEAKERS, directory: Path = DESIGN_DIR, log=print) -> None:
    started = time.time()
    calibrated, report = targets.calibrate_4x12()
    log(f"calibrated 4x12 target: {report}")
    for speaker in speakers:
        design = design_speaker(speaker, calibrated, log=log)
        path = write_design(design, directory)
        log(f"wrote {path} (band agreement {design['fit']['bandAgreementDb']} dB)")
        if "calibration" in design["fit"]:
            log(f"  calibration: {design['fit']['calibration']['measuredDb']}")
    log(f"design took {time.time() - started:.1f} s")
