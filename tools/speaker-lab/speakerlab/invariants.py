"""Structural invariants of a model's records. Every check returns a list of faults; an empty
list means the model is sound. Used by the emitter (which refuses to write a faulty model)
and by the tests."""

from __future__ import annotations

import numpy as np

from . import catalogue as cat
from . import records as rec

# |c0 - c1 + c2| of a tap may differ from 0 by the rounding of three float32 values.
TAP_ROUNDING_ULPS = 4.0
# The through's z-numerator equals g (a2, a1, 1) up to float32 rounding of the record.
THROUGH_TOLERANCE = 1e-6


def _ulp(value: float) -> float:
    return float(np.spacing(np.float32(abs(value)))) if value != 0 else 0.0


def check_tap(kind: str, record, where: str) -> list[str]:
    faults = []
    expected = cat.RECORD_FLOATS[kind]
    if len(record) != expected:
        return [f"{where}: tap has {len(record)} floats, wants {expected}"]
    if kind in ("first", "reduced"):
        if rec.f32_bits(record[0]) != rec.f32_bits(record[1]):
            faults.append(f"{where}: {kind} tap needs c0 == c1 exactly")
    else:
        c0, c1, c2 = record[0], record[1], record[2]
        slack = TAP_ROUNDING_ULPS * max(_ulp(c0), _ulp(c1), _ulp(c2))
        if abs(c0 - c1 + c2) > slack:
            faults.append(f"{where}: tap has a z^-2 term (c0 - c1 + c2 = {c0 - c1 + c2:g})")
        if c2 == 0.0:
            faults.append(f"{where}: full tap with c2 == 0 belongs in a reduced record")
    return faults


def check_through(kind: str, record, tap, where: str) -> list[str]:
    faults = []
    expected = cat.RECORD_FLOATS[kind]
    if len(record) != expected:
        return [f"{where}: through has {len(record)} floats, wants {expected}"]
    if kind == "first":
        if rec.f32_bits(record[2]) != rec.f32_bits(tap[2]):
            faults.append(f"{where}: tap and through differ in c2")
        g = record[1] - record[0]
        a1 = record[2] - 1.0
        if abs(record[0] - g * a1) > THROUGH_TOLERANCE * max(1.0, abs(g)):
            faults.append(f"{where}: first-order through is not an all-pass times g")
    else:
        tap_den = tap[-2:]
        if [rec.f32_bits(v) for v in record[3:5]] != [rec.f32_bits(v) for v in tap_den]:
            faults.append(f"{where}: tap and through differ in c3/c4")
        (b0, b1, b2), (_, a1, a2) = rec.z_from_section(record)
        g = b2
        if abs(b0 - g * a2) > THROUGH_TOLERANCE or abs(b1 - g * a1) > THROUGH_TOLERANCE:
            faults.append(f"{where}: second-order through is not an all-pass times g")
    lo, hi = cat.THROUGH_GAIN_RANGE
    if not lo <= g <= hi:
        faults.append(f"{where}: through gain {g:g} outside [{lo}, {hi}]")
    return faults


def check_poles_of_record(kind: str, record, where: str) -> list[str]:
    faults = []
    if kind == "first":
        pole = 1.0 - record[2]
        lo, hi = cat.FIRST_ORDER_POLE_RANGE
        if not lo - 1e-6 <= pole <= hi + 1e-7:
            faults.append(f"{where}: first-order pole {pole:g} outside [{lo}, {hi}]")
    else:
        c3, c4 = record[-2], record[-1]
        radius = rec.pair_radius(c3, c4)
        if radius > cat.MAX_POLE_RADIUS + 1e-7:
            faults.append(f"{where}: pole radius {radius:.6f} above {cat.MAX_POLE_RADIUS}")
    return faults


def check_chain(speaker: str, band: int, key, chain: dict, poles: list[dict]) -> list[str]:
    where = f"{speaker}n{band}a chain {key[0]},{key[1]}"
    faults = []
    plan = cat.chain_plan(speaker, band, key)
    if chain["plan"] != plan:
        return [f"{where}: plan {chain['plan']!r}, catalogue says {plan!r}"]
    letters = cat.expand_plan(plan)
    if cat.plan_poles(plan) != 22:
        faults.append(f"{where}: {cat.plan_poles(plan)} poles")
    stages = chain["stages"]
    if [s["kind"] for s in stages] != letters or len(poles) != len(letters):
        return faults + [f"{where}: stages do not follow the plan"]
    rate = cat.SAMPLE_RATES[band]
    for i, (stage, pole) in enumerate(zip(stages, poles)):
        at = f"{where} stage {i} ({stage['kind']})"
        tap_kind, through_kind, _ = cat.STAGE_SHAPES[stage["kind"]]
        tap = [rec.f32(v) for v in stage["tap"]]
        faults += check_tap(tap_kind, tap, at)
        faults += check_poles_of_record(tap_kind, tap, at)
        if through_kind is not None:
            faults += check_through(through_kind, [rec.f32(v) for v in stage["through"]], tap, at)
        elif "through" in stage:
            faults.append(f"{at}: stage kind has no through")
        # the band's denominator is the one set of continuous-time poles, rounded once
        if tap_kind == "first":
            if ("f" in pole) or rec.f32(rec.first_order_c2(pole, rate)) != tap[2]:
                faults.append(f"{at}: c2 does not come from the chain's real pole")
            if "z" in pole and (speaker, key) != ("4x12", (1, 1)):
                faults.append(f"{at}: a fixed z pole only belongs to the 4x12 f stage")
        else:
            if "f" not in pole:
                faults.append(f"{at}: second-order stage without a pole pair")
            else:
                c3, c4 = rec.pair_denominator(pole["f"], pole["sigma"], rate)
                if (rec.f32(c3), rec.f32(c4)) != (tap[-2], tap[-1]):
                    faults.append(f"{at}: c3/c4 do not come from the chain's pole pair")
    if speaker == "4x12" and key == (1, 1):
        f_stages = [s for s in stages if s["kind"] == "f"]
        if len(f_stages) != 1 or rec.f32(f_stages[0]["tap"][2]) != rec.f32(1.0 - cat.FIXED_F_STAGE_POLE):
            faults.append(f"{where}: f stage must sit at -0.99 (c2 = 1.99)")
    return faults


def check_band(speaker: str, band: int, band_record: dict, chain_poles: dict) -> list[str]:
    name = cat.model_name(speaker, band)
    faults = []
    pre = band_record["preRecords"]
    if len(pre) != cat.PRE_SECTION_COUNT[speaker]:
        faults.append(f"{name}: {len(pre)} pre-sections")
    for i, r in enumerate(pre):
        if len(r) != 5:
            faults.append(f"{name}: pre-section with {len(r)} floats")
    if band == 96:
        for i, r in enumerate(pre):
            if [rec.f32_bits(v) for v in r] != [rec.f32_bits(v) for v in cat.PRE_RECORDS_96[i]]:
                faults.append(f"{name}: pre-section {i} differs from the fixed band-96 record")
    gains = band_record["gainTables"]
    if len(gains) != 2 or any(len(g) != 4 for g in gains):
        faults.append(f"{name}: gain tables must be two of four floats")
    else:
        for g in gains:
            if rec.f32_bits(g[3]) != rec.f32_bits(g[2]):
                faults.append(f"{name}: gain table entry 3 must repeat entry 2")
            if min(g) <= 0.0:
                faults.append(f"{name}: gain table entries must be positive")
        if max(rec.f32(v) for g in gains for v in g) != rec.f32(cat.GAIN_TABLE_PEAK):
            faults.append(f"{name}: the largest gain must be 0.89125097")
    h0, h2, ambience = cat.AMBIENCE[band]
    if [rec.f32_bits(v) for v in band_record["ambienceRecord"]] != [rec.f32_bits(v) for v in ambience]:
        faults.append(f"{name}: ambience record differs from the band's fixed record")
    if [rec.f32_bits(v) for v in band_record["ambienceGainTable"]] != \
            [rec.f32_bits(v) for v in (h0, h0, h2, h2)]:
        faults.append(f"{name}: ambience gain table differs from (h0, h0, h2, h2)")
    chains = band_record["chains"]
    if [(c["branch"], c["position"]) for c in chains] != list(cat.CHAIN_KEYS):
        return faults + [f"{name}: chains not in table order"]
    for key, chain in zip(cat.CHAIN_KEYS, chains):
        faults += check_chain(speaker, band, key, chain, chain_poles[key])
    return faults


def check_design(design: dict) -> list[str]:
    speaker = design["speaker"]
    chain_poles = {(c["branch"], c["position"]): c["poles"] for c in design["chains"]}
    faults = []
    if set(chain_poles) != set(cat.CHAIN_KEYS):
        return [f"{speaker}: design must hold the poles of six chains"]
    for key, poles in chain_poles.items():
        for pole in poles:
            if "f" in pole:
                if not 0.0 < pole["f"] < 0.5 * cat.SAMPLE_RATES[44]:
                    faults.append(f"{speaker} {key}: pair frequency {pole['f']} out of range")
            elif "sign" in pole and pole["sign"] not in (1, -1):
                faults.append(f"{speaker} {key}: real pole sign must be +1 or -1")
    for band in cat.BANDS:
        faults += check_band(speaker, band, design["bands"][str(band)], chain_poles)
    return faults


def first_order_pole(record) -> float:
    return 1.0 - float(record[2])


def max_pair_radius(design: dict) -> float:
    worst = 0.0
    for band_record in design["bands"].values():
        for chain in band_record["chains"]:
            for stage in chain["stages"]:
                if stage["kind"] not in "Ff":
                    worst = max(worst, rec.pair_radius(stage["tap"][-2], stage["tap"][-1]))
    return worst
