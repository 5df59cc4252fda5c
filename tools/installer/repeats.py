"""What was done once more because the engine hung before it had done anything.

Such a repeat hides no failure of the library, which had not been called yet; it is told and counted
all the same, for an engine that hangs more often is worth knowing of.
"""

import os
import warnings

# The environment variable that names the file in which the test runner counts: a line each.
COUNTED_IN = "HALVARD_REPEATS"


def tell(reason: str) -> None:
    """Says that something is done once more, and counts it where somebody counts."""
    warnings.warn(f"once more: {reason}", stacklevel=3)
    if counted_in := os.environ.get(COUNTED_IN):
        with open(counted_in, "a", encoding="utf-8") as file:
            file.write(f"{reason}\n")
