"""What the documents show, for the tests that try it."""

import re
import shutil
from pathlib import Path

from installer import paths

EXAMPLE = paths.ROOT / "docs/worked-example.md"


def blocks(document: Path, language: str) -> list[str]:
    """The texts of a language that a document sets apart."""
    pattern = rf"^```{language}\n(.*?)^```$"
    return re.findall(pattern, document.read_text(), re.MULTILINE | re.DOTALL)


def write_example(folder: Path, name: str) -> Path:
    """The worked example's source for WiX 3, with what the document says lies beside it."""
    source = folder / name
    source.write_text(blocks(EXAMPLE, "xml")[0])
    (folder / "Transform.ini").write_text("[Transform]\n")
    shutil.copy(paths.LIBRARY, folder)
    shutil.copy(paths.PACKAGE_SOURCES / "halvard_actions.wxi", folder)
    return source
