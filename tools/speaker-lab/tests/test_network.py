"""The single-precision reference model: rounding and flush-to-zero, sections, control update,
and the golden files it wrote (which the library must match bit for bit)."""

import numpy as np
import pytest

from speakerlab import catalogue as cat
from speakerlab import golden
from speakerlab import network as net

MIN_NORMAL = 2.0 ** -126


@pytest.fixture(scope="module")
def tables_4x12n96a():
    return golden.read_tables("4x12n96a")


def _model(tables):
    return net.ReferenceModel("4x12", 96, *tables)


# Rounding itself is checked end to end: the golden files this model writes must match the
# library's float32 arithmetic bit for bit (tests/models/ReferenceTest.cpp).
def test_flush_to_zero_keeps_the_sign():
    for tiny, sign in ((2.0 ** -130, 1.0), (-2.0 ** -130, -1.0), (1e-20 * -1e-20, -1.0)):
        assert net.r32(tiny) == 0.0 and np.copysign(1.0, net.r32(tiny)) == sign
    assert net.r32(MIN_NORMAL) == MIN_NORMAL
    # rounds up to the smallest normal at 24 bits: not tiny, kept
    assert net.r32(MIN_NORMAL - 2.0 ** -152) == MIN_NORMAL
    # tiny before it would round up under gradual underflow: flushed
    assert net.r32(MIN_NORMAL - 2.0 ** -150) == 0.0
    # a subnormal input is used as it is (no denormals-are-zero)
    assert net.r32(2.0 ** -140 * 2.0 ** 20) == 2.0 ** -120


def test_state_words_below_1e30_are_cleared_once_a_block():
    state = [3e-31, -2e-31]
    net.run_second([], [], (0.5, 0.25, 0.125, 0.5, 0.25), state, 0)  # a block of 0 samples still tests
    assert state == [0.0, 0.0]
    state = [0.0, 0.0, 5e-31]
    net.run_first([1e-31, 0.0], [0.0, 0.0], (0.5, 0.5, 1.5), state, 2)
    assert state[2] == 0.0
    state = [net.f32(1e-30), -net.f32(1e-29)]
    net.run_reduced([], [], (0.5, 0.5, 0.5, 0.25), state, 0)
    assert state == [net.f32(1e-30), -net.f32(1e-29)]


def test_updates_jump_or_glide_to_the_gain_entries_and_freeze_the_other_branch(tables_4x12n96a):
    layout = cat.layout("4x12", 96)
    word0, word1 = layout.branch_words
    model = _model(tables_4x12n96a)
    model.update(1, 0.0, 1.0)
    assert model.state[word0] == model.k[layout.gain_tables[0] + 2]
    assert model.state[layout.ambience_gain] == model.k[layout.ambience_gain_table + 2]
    before = model.state[word0:word0 + 3]
    model.update(1, 1.0, 0.5)
    assert model.state[word1] == model.k[layout.gain_tables[1] + 1] and model.state[layout.type_value] == 1.0
    assert model.state[word0:word0 + 3] == before
    # from 0 towards 1: one step of the band's smoothing, 63.2 % after ~191 updates, a jump
    model.k[layout.gain_tables[0]:layout.gain_tables[0] + 4] = [1.0] * 4
    model.state[word0] = 0.0
    model.update(0, 0.0, 0.0)
    assert (model.state[word0], model.state[word0 + 1]) == (pytest.approx(0.0052223, abs=1e-7), 1.0)
    for _ in range(190):
        model.update(0, 0.0, 0.0)
    assert 0.60 < model.state[word0] < 0.64
    model.update(1, 0.0, 0.0)
    assert model.state[word0] == 1.0


def test_blocks_of_one_sample_carry_over_without_a_seam(tables_4x12n96a):
    signal = [1.0] + [0.0] * 31
    whole, single = _model(tables_4x12n96a), _model(tables_4x12n96a)
    whole.update(1, 0.0, 0.0)
    single.update(1, 0.0, 0.0)
    assert [single.process([v])[0] for v in signal] == whole.process(signal[:16]) + whole.process(signal[16:])


def test_golden_files_are_current():
    entries = [line.split() for line in (golden.GOLDEN_DIR / "manifest.txt").read_text().split("\n") if line]
    assert sorted(name for name, _ in entries) == sorted(cat.GOLDEN_MODELS)
    for name, samples in entries:
        assert int(samples) == cat.GOLDEN_SAMPLES
        data = np.fromfile(golden.GOLDEN_DIR / f"{name}.f32", dtype="<f4")
        assert data.size == 6 * cat.GOLDEN_SAMPLES and np.all(np.isfinite(data))
        # each file belongs to the committed tables: the start of all six responses, recomputed
        speaker, band = cat.parse_model_name(name)
        constants, state = golden.read_tables(name)
        for row, (t, p) in enumerate(cat.CHAIN_KEYS):
            fresh = net.impulse_response(speaker, band, constants, state, t, p, 256)
            assert np.array_equal(data.reshape(6, -1)[row, :256].view(np.uint32), fresh.view(np.uint32)), name
