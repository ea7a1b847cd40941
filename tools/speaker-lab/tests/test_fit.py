"""`lab fit`: round trips of the models' own impulse responses, any rate, WAV formats, and
the one-line errors."""

import re

import numpy as np
import pytest
from scipy.io import wavfile

from speakerlab import catalogue as cat
from speakerlab import cli
from speakerlab import fit
from speakerlab import golden
from speakerlab import irfit
from speakerlab import records as rec


@pytest.mark.parametrize("model,key", [
    ("4x12n96a", (0, 0)),         # the calibration model, polarity inverted
    ("4x10Bassn96a", (1, 1)),     # a chain with reduced taps (F2 S6 Z S2 U)
])
def test_a_models_own_impulse_response_comes_back_within_the_bounds(model, key, tmp_path, capsys):
    speaker, band = cat.parse_model_name(model)
    plan = cat.chain_plan(speaker, band, key)
    responses = np.fromfile(golden.GOLDEN_DIR / f"{model}.f32", dtype="<f4").reshape(6, -1)
    wavfile.write(tmp_path / "ir.wav", cat.SAMPLE_RATES[band], responses[cat.CHAIN_KEYS.index(key)])
    code = cli.main(["fit", str(tmp_path / "ir.wav"), "--plan", plan, "--plot", str(tmp_path / "fit.png"),
                     "--json", str(tmp_path / "fit.json")])
    captured = capsys.readouterr()
    assert code == 0, captured.err
    match = re.match(r"^rms_db=(\d+\.\d+) max_db=(\d+\.\d+)$", captured.out.strip().split("\n")[-1])
    assert match and float(match.group(1)) <= 0.5 and float(match.group(2)) <= 1.5, captured.out
    assert (tmp_path / "fit.png").stat().st_size > 10000
    assert '"plan": "' + plan + '"' in (tmp_path / "fit.json").read_text()


def test_fit_at_a_rate_of_its_own_from_a_16_bit_stereo_file(tmp_path):
    """A chain made at 32 kHz, written as 16-bit PCM with 5 ms of silence in front, is found
    again: the bulk delay goes, and the error stays within the bounds."""
    rate, plan, n = 32000, "S10 T", 8192
    poles = fit.initial_poles(plan, False, fit.Bounds.for_rates([rate]), 60.0, 9000.0)
    basis = fit.chain_basis(plan, poles, rate, rec.delta_of(np.geomspace(20.0, 0.45 * rate, 200), rate))
    _, stages = fit.band_records(plan, poles, rate, np.random.default_rng(3).normal(size=basis.shape[1]) * 0.2)
    response = np.fft.irfft(rec.chain_response(stages, rec.delta_of(np.fft.rfftfreq(n, 1 / rate), rate)), n)
    signal = np.concatenate([np.zeros(160), response])
    pcm = np.round(signal / np.max(np.abs(signal)) * 30000).astype(np.int16)
    wavfile.write(tmp_path / "ir16.wav", rate, np.column_stack([pcm, np.zeros_like(pcm)]))
    result = irfit.run(str(tmp_path / "ir16.wav"), plan, log=lambda _: None)
    assert (result.rate, result.error_band, cat.plan_poles(result.plan)) == (rate, (60.0, 8000.0), 22)
    assert 150 <= result.delay <= 160
    assert result.rms_db <= 0.5 and result.max_db <= 1.5


@pytest.mark.parametrize("name,plan,message", [
    ("missing", "F2 S9 T", "no such file"),
    ("text", "F2 S9 T", "not a readable WAV file"),
    ("wav", "F2 S8 T", "it has 20 poles, a chain has 22"),
    ("wav", "F2 S9", "must end in exactly one final tap"),
    ("wav", "F2 X9 T", "bad plan"),
    ("silent", "F2 S9 T", "silent"),
    ("slow", "F2 S9 T", "too low"),
])
def test_errors_are_one_clear_line(name, plan, message, tmp_path, capsys):
    (tmp_path / "text.wav").write_text("not audio")
    click = np.r_[1.0, np.zeros(99)].astype(np.float32)
    for file, rate, samples in (("wav", 48000, click), ("silent", 48000, 0 * click), ("slow", 150, click)):
        wavfile.write(tmp_path / f"{file}.wav", rate, samples)
    code = cli.main(["fit", str(tmp_path / f"{name}.wav"), "--plan", plan])
    captured = capsys.readouterr()
    assert (code, captured.out) == (2, "")
    assert len(captured.err.strip().split("\n")) == 1
    assert captured.err.startswith("lab fit: ") and message in captured.err
