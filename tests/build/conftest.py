"""What the tests of the built files and of the sources share."""

import sys
from pathlib import Path

_TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(_TESTS.parent / "tools"), str(_TESTS)]
