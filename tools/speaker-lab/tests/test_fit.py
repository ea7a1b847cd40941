"""`lab fit`: round trips of the models' own impulse responses, any rate, WAV formats, and
the one-line errors."""

import re
import wave

import numpy as np
import pytest
from scipy.io import wavfile

from speakerlab import catalogue as cat
from speakerlab import cli
from speakerlab import fit
from speakerlab import golden
from speakerlab import irfit
from speakerlab import records as rec

LAST_LINE = re.compile(r"^rms_db=(\d+\.\d+) max_db=(\d+\.\d+)$")


def _golden_ir(model, key):
    data = np.fromfile(golden.GOLDEN_DIR / f"{model}.f32", dtype="<f4").reshape(6, -1)
    return data[cat.CHAIN_KEYS.index(key)]


def _run(argv, capsys):
    code = cli.main(argv)
    captured = capsys.readouterr()
    return code, captured.out, captured.err


@pytest.mark.parametrize("model,key", [
    ("4x12n96a", (0, 0)),         # the calibration model, polarity inverted
    ("4x10Bassn96a", (1, 1)),     # a chain with reduced taps (F2 S6 Z S2 U)
])
def test_a_models_own_impulse_response_comes_back_within_the_bounds(model, key, tmp_path, capsys):
    speaker, band = cat.parse_model_name(model)
    plan = cat.chain_plan(speaker, band, key)
    path = tmp_path / f"{model}.wav"
    wavfile.write(path, cat.SAMPLE_RATES[band], _golden_ir(model, key))
    code, out, err = _run(["fit", str(path), "--plan", plan, "--plot", str(tmp_path / "fit.png"),
                           "--json", str(tmp_path / "fit.json")], capsys)
    assert code == 0, err
    last = out.strip().split("\n")[-1]
    match = LAST_LINE.match(last)
    assert match, last
    rms, peak = float(match.group(1)), float(match.group(2))
    assert rms <= 0.5 and peak <= 1.5
    assert (tmp_path / "fit.png").stat().st_size > 10000
    assert '"plan": "' + plan + '"' in (tmp_path / "fit.json").read_text()


def test_fit_at_a_rate_of_its_own_from_a_16_bit_file(tmp_path):
    """A chain made at 32 kHz, written as 16-bit PCM with 5 ms of silence in front, is found
    again: the bulk delay goes, and the error stays within the bounds."""
    rate = 32000
    plan = "S10 T"
    bounds = fit.Bounds.for_rates([rate])
    poles = fit.initial_poles(plan, False, bounds, 60.0, 9000.0)
    freqs = np.geomspace(20.0, 0.45 * rate, 200)
    d = rec.delta_of(freqs, rate)
    basis = fit.chain_basis(plan, poles, rate, d)
    rng = np.random.default_rng(3)
    taps = rng.normal(size=basis.shape[1]) * 0.2
    _, stages = fit.band_records(plan, poles, rate, taps)
    n = 8192
    response = np.fft.irfft(rec.chain_response(stages, rec.delta_of(np.fft.rfftfreq(n, 1 / rate), rate)), n)
    signal = np.concatenate([np.zeros(160), response])
    pcm = np.round(signal / np.max(np.abs(signal)) * 30000).astype(np.int16)
    path = tmp_path / "ir16.wav"
    with wave.open(str(path), "wb") as w:
        w.setnchannels(2)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(np.column_stack([pcm, np.zeros_like(pcm)]).tobytes())
    result = irfit.run(str(path), plan, log=lambda _: None)
    assert result.rate == rate
    assert 150 <= result.delay <= 160
    assert result.rms_db <= 0.5 and result.max_db <= 1.5
    assert result.error_band == (60.0, 8000.0)
    assert cat.plan_poles(result.plan) == 22


@pytest.mark.parametrize("argv,message", [
    (["fit", "{missing}", "--plan", "F2 S9 T"], "no such file"),
    (["fit", "{text}", "--plan", "F2 S9 T"], "not a readable WAV file"),
    (["fit", "{wav}", "--plan", "F2 S8 T"], "it has 20 poles, a chain has 22"),
    (["fit", "{wav}", "--plan", "F2 S9"], "must end in exactly one final tap"),
    (["fit", "{wav}", "--plan", "F2 X9 T"], "bad plan"),
    (["fit", "{silent}", "--plan", "F2 S9 T"], "silent"),
    (["fit", "{slow}", "--plan", "F2 S9 T"], "too low"),
])
def test_errors_are_one_clear_line(argv, message, tmp_path, capsys):
    files = {"missing": tmp_path / "missing.wav", "text": tmp_path / "notes.wav",
             "wav": tmp_path / "ir.wav", "silent": tmp_path / "silent.wav", "slow": tmp_path / "slow.wav"}
    files["text"].write_text("not audio")
    wavfile.write(files["wav"], 48000, np.r_[1.0, np.zeros(99)].astype(np.float32))
    wavfile.write(files["silent"], 48000, np.zeros(100, dtype=np.float32))
    wavfile.write(files["slow"], 150, np.r_[1.0, np.zeros(99)].astype(np.float32))
    argv = [a.format(**{k: str(v) for k, v in files.items()}) for a in argv]
    code, out, err = _run(argv, capsys)
    assert code == 2
    assert out == ""
    assert len(err.strip().split("\n")) == 1
    assert err.startswith("lab fit: ") and message in err
