"""`lab golden`: impulse responses of the reference model for tests/models/golden/.

The tables are read from the emitted C++ files, so the golden data belong to exactly the
tables that the models compile.
"""

from __future__ import annotations

from pathlib import Path

import numpy as np

from . import catalogue as cat
from .emit import REPO_DIR, TABLE_DIR, parse_table_text
from .network import impulse_response

GOLDEN_DIR = REPO_DIR / "tests" / "models" / "golden"


def read_tables(model: str, table_dir: Path = TABLE_DIR) -> tuple[np.ndarray, np.ndarray]:
    text = (table_dir / f"{model}.h").read_text()
    constants = np.array(parse_table_text(text, "constants"), dtype=np.float32)
    state = np.array(parse_table_text(text, "initialState"), dtype=np.float32)
    return constants, state


def model_impulse_responses(model: str, samples: int = cat.GOLDEN_SAMPLES,
                            table_dir: Path = TABLE_DIR) -> np.ndarray:
    """Six responses in the order (0,0), (0,1), (0,2), (1,0), (1,1), (1,2)."""
    speaker, band = cat.parse_model_name(model)
    constants, state = read_tables(model, table_dir)
    return np.concatenate([
        impulse_response(speaker, band, constants, state, t, p, samples)
        for t, p in cat.CHAIN_KEYS])


def write_all(models=cat.GOLDEN_MODELS, directory: Path = GOLDEN_DIR, log=print,
              table_dir: Path = TABLE_DIR) -> None:
    directory.mkdir(parents=True, exist_ok=True)
    for model in models:
        cat.parse_model_name(model)
        data = model_impulse_responses(model, table_dir=table_dir)
        data.astype("<f4").tofile(directory / f"{model}.f32")
        log(f"wrote {model}.f32 ({len(data)} samples)")
    listed = sorted(p.stem for p in directory.glob("*.f32"))
    manifest = "".join(f"{m} {cat.GOLDEN_SAMPLES}\n" for m in listed)
    (directory / "manifest.txt").write_text(manifest)
