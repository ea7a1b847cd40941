import json
import sys
from pathlib import Path

import pytest

LAB_DIR = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(LAB_DIR))

from speakerlab import catalogue as cat  # noqa: E402


@pytest.fixture(scope="session")
def designs():
    """The committed design records of the five speakers."""
    return {s: json.loads((LAB_DIR / "designs" / f"{s}.json").read_text()) for s in cat.SPEAKERS}
