"""What the packaging tests share: where things are, and the package laid out in a folder."""

import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ["CORVALIN_BUILD_DIR"])
PACKAGES = Path(os.environ["CORVALIN_PACKAGE_DIR"])

SKIPPED = 77  # what CTest shows as skipped; unittest itself would end with 0

TOOLS = sorted(path.stem for path in (SOURCE / "tools").glob("corvalin_*.cpp"))


def run(*command, check=True, **options):
    """Output as text; a failure shows what the command said."""
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, **options)
    if check and result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout}\n{result.stderr}")
    return result


def package(folder=PACKAGES):
    found = list(folder.glob("corvalin-router_*.deb"))
    assert len(found) == 1, f"{folder}: {found}"
    return found[0]


def unpacked_package():
    """A TemporaryDirectory with the files of the package below it; nothing is installed."""
    folder = tempfile.TemporaryDirectory(prefix="corvalin_package_")
    run("dpkg-deb", "--extract", package(), folder.name)
    return folder


def commands_of_page(section):
    """The blocks of shell commands below a heading of docs/operations.md, in lists by their own headings."""
    page = (SOURCE / "docs/operations.md").read_text(encoding="utf-8")
    text = page.split(f"\n## {section}\n", 1)[1].split("\n## ", 1)[0]
    found = {}
    for part in text.split("\n### ")[1:]:
        heading, _, body = part.partition("\n")
        found[heading] = re.findall(r"(?ms)^```sh\n(.*?)^```$", body)
    return found


def main():
    result = unittest.main(exit=False).result
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(SKIPPED if result.skipped else 0)
