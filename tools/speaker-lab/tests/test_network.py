"""The single-precision reference model: rounding and flush-to-zero, sections, control update,
chain choice, agreement with the double transfer function, and the golden files."""

import random

import numpy as np
import pytest

from speakerlab import catalogue as cat
from speakerlab import golden
from speakerlab import network as net

MIN_NORMAL = 2.0 ** -126


@pytest.fixture(scope="module")
def tables_4x12n96a():
    return golden.read_tables("4x12n96a")


def test_single_operations_round_like_float32():
    rng = random.Random(7)
    for _ in range(3000):
        a = float(np.float32(rng.uniform(-4, 4) * 10 ** rng.randint(-12, 12)))
        b = float(np.float32(rng.uniform(-4, 4) * 10 ** rng.randint(-12, 12)))
        fa, fb = np.float32(a), np.float32(b)
        assert net.r32(a * b) == float(fa * fb)
        assert net.r32(a + b) == float(fa + fb)
        assert net.r32(a - b) == float(fa - fb)


def test_flush_to_zero_keeps_the_sign():
    tiny = 2.0 ** -130
    assert net.r32(tiny) == 0.0 and np.copysign(1.0, net.r32(tiny)) > 0
    assert net.r32(-tiny) == 0.0 and np.copysign(1.0, net.r32(-tiny)) < 0
    assert net.r32(1e-20 * -1e-20) == 0.0 and np.copysign(1.0, net.r32(1e-20 * -1e-20)) < 0
    assert net.r32(MIN_NORMAL) == MIN_NORMAL
    # rounds up to the smallest normal at 24 bits: not tiny, kept
    assert net.r32(MIN_NORMAL - 2.0 ** -152) == MIN_NORMAL
    # tiny before it would round up under gradual underflow: flushed
    assert net.r32(MIN_NORMAL - 2.0 ** -150) == 0.0
    # a subnormal input is used as it is (no denormals-are-zero)
    assert net.r32(2.0 ** -140 * 2.0 ** 20) == 2.0 ** -120


def test_state_words_below_1e30_are_cleared_once_a_block():
    record = (0.5, 0.25, 0.125, 0.5, 0.25)
    state = [3e-31, -2e-31]
    net.run_second([], [], record, state, 0)          # a block of 0 samples still tests
    assert state == [0.0, 0.0]
    state = [0.0, 0.0, 5e-31]
    net.run_first([1e-31, 0.0], [0.0, 0.0], (0.5, 0.5, 1.5), state, 2)
    assert state[2] == 0.0
    floor = net.f32(1e-30)
    state = [floor, -net.f32(1e-29)]
    net.run_reduced([], [], (0.5, 0.5, 0.5, 0.25), state, 0)
    assert state == [floor, -net.f32(1e-29)]


def _model(tables, speaker="4x12", band=96):
    constants, state = tables
    return net.ReferenceModel(speaker, band, constants, state)


def test_immediate_update_jumps_and_regular_update_glides(tables_4x12n96a):
    constants, state = tables_4x12n96a
    constants = constants.copy()
    layout = cat.layout("4x12", 96)
    constants[layout.gain_tables[0]:layout.gain_tables[0] + 4] = [1.0, 1.0, 1.0, 1.0]
    model = net.ReferenceModel("4x12", 96, constants, state)
    model.state[layout.branch_words[0]] = 0.0
    model.update(0, 0.0, 0.0)
    assert model.state[layout.branch_words[0]] == pytest.approx(0.0052223, abs=1e-7)
    assert model.state[layout.branch_words[0] + 1] == 1.0
    for _ in range(190):
        model.update(0, 0.0, 0.0)
    assert 0.60 < model.state[layout.branch_words[0]] < 0.64   # 63.2 % after ~191 updates
    model.update(1, 0.0, 0.0)
    assert model.state[layout.branch_words[0]] == 1.0


def test_update_reads_gain_entries_and_freezes_the_other_branch(tables_4x12n96a):
    model = _model(tables_4x12n96a)
    layout = model.layout
    table0, table1 = layout.gain_tables
    model.update(1, 0.0, 1.0)
    assert model.state[layout.branch_words[0]] == model.k[table0 + 2]
    assert model.state[layout.ambience_gain] == model.k[layout.ambience_gain_table + 2]
    before = model.state[layout.branch_words[0]:layout.branch_words[0] + 3]
    model.update(1, 1.0, 0.5)
    assert model.state[layout.branch_words[1]] == model.k[table1 + 1]
    assert model.state[layout.branch_words[0]:layout.branch_words[0] + 3] == before
    assert model.state[layout.type_value] == 1.0


@pytest.mark.parametrize("type_value,position,expected", [
    (0.0, 0.0, 0), (0.0, 0.5, 1), (0.0, float(np.float32(1 / 3)), 1),
    (0.0, float(np.float32(2 / 3)), 2), (0.0, 1.0, 2), (0.5, 0.0, 3), (1.0, 0.5, 4)])
def test_chain_choice_thresholds(tables_4x12n96a, type_value, position, expected):
    model = _model(tables_4x12n96a)
    layout = model.layout
    model.update(1, type_value, 0.0)
    # set the position word directly: the update only ever stores quantised positions
    branch = 0 if type_value < 0.5 else 1
    model.state[layout.branch_words[branch] + 2] = position
    model.process([1.0] + [0.0] * 15)
    touched = []
    for index, start in enumerate(layout.chain_states):
        end = layout.branch_words[1] if index == 2 else (
            layout.diffuser_indices[0] if index == 5 else layout.chain_states[index + 1])
        if any(model.state[start:end]):
            touched.append(index)
    assert touched == [expected]


def test_blocks_of_one_sample_carry_over_without_a_seam(tables_4x12n96a):
    signal = [1.0] + [0.0] * 63
    whole = _model(tables_4x12n96a)
    whole.update(1, 0.0, 0.0)
    out_whole = whole.process(signal[:16]) + whole.process(signal[16:32])
    single = _model(tables_4x12n96a)
    single.update(1, 0.0, 0.0)
    out_single = [single.process([v])[0] for v in signal[:32]]
    assert out_single == out_whole


def _response_error(model_name, key, samples):
    speaker, band = cat.parse_model_name(model_name)
    constants, state = golden.read_tables(model_name)
    ir = net.impulse_response(speaker, band, constants, state, key[0], key[1], samples)
    freqs = np.fft.rfftfreq(samples, 1.0 / cat.SAMPLE_RATES[band])
    measured = np.fft.rfft(ir.astype(np.float64))
    exact = net.model_transfer(speaker, band, constants, key, freqs)
    # where the response is within 60 dB of its peak: below that, float32 rounding noise of
    # the recursions is a visible share of a tiny signal
    band_sel = ((freqs > 30.0) & (freqs < 10000.0)
                & (np.abs(exact) > 1e-3 * np.max(np.abs(exact))))
    return np.max(np.abs(20 * np.log10(np.abs(measured[band_sel]) / np.abs(exact[band_sel])))), ir


@pytest.mark.parametrize("model_name,key,samples", [
    ("4x12n44a", (1, 1), 16384),       # exception plan with an f stage, inverted output
    ("4x10Bassn96a", (1, 1), 16384),   # exception plan with Z and U
    ("2x12n48a", (0, 2), 16384),       # ambience audible
])
def test_reference_agrees_with_the_double_transfer_function(model_name, key, samples):
    error_db, ir = _response_error(model_name, key, samples)
    assert error_db < 0.01
    assert ir.dtype == np.float32


def test_4x12_inverts_polarity(tables_4x12n96a):
    inverted = _model(tables_4x12n96a)
    upright = _model(tables_4x12n96a)
    upright.output_gain = -upright.output_gain
    assert inverted.output_gain < 0 < upright.output_gain
    for model in (inverted, upright):
        model.update(1, 0.0, 0.0)
    impulse = [1.0] + [0.0] * 15
    a = np.array(inverted.process(impulse) + inverted.process([0.0] * 16))
    b = np.array(upright.process(impulse) + upright.process([0.0] * 16))
    assert np.any(a != 0.0)
    assert np.array_equal(a, -b)
    other = net.ReferenceModel("4x10", 96, *golden.read_tables("4x10n96a"))
    assert other.output_gain > 0


def test_golden_files_are_current():
    manifest = (golden.GOLDEN_DIR / "manifest.txt").read_text().split("\n")
    entries = [line.split() for line in manifest if line]
    assert sorted(name for name, _ in entries) == sorted(cat.GOLDEN_MODELS)
    for name, samples in entries:
        assert int(samples) == cat.GOLDEN_SAMPLES
        data = np.fromfile(golden.GOLDEN_DIR / f"{name}.f32", dtype="<f4")
        assert data.size == 6 * cat.GOLDEN_SAMPLES
        assert np.all(np.isfinite(data))
    # each file belongs to the committed tables: the start of all six responses, recomputed
    for name, _ in entries:
        speaker, band = cat.parse_model_name(name)
        constants, state = golden.read_tables(name)
        stored = np.fromfile(golden.GOLDEN_DIR / f"{name}.f32", dtype="<f4").reshape(6, -1)
        for row, (t, p) in enumerate(cat.CHAIN_KEYS):
            fresh = net.impulse_response(speaker, band, constants, state, t, p, 256)
            assert np.array_equal(stored[row, :256].view(np.uint32), fresh.view(np.uint32)), name
