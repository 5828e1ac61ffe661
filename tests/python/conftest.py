# SPDX-License-Identifier: Apache-2.0
import csv
import os
import subprocess

import pytest

MEASURE = os.environ.get("KESTRUNE_MEASURE", "kestrune-measure")
READY = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "settings")


def run(*arguments):
    """What the program prints. CalledProcessError where it ends with another code than 0."""
    return subprocess.run([MEASURE, *map(str, arguments)], check=True, capture_output=True, text=True).stdout


def rows(file):
    """The rows of a table of the program, as texts by column."""
    with open(file, newline="") as stream:
        return list(csv.DictReader(stream))


@pytest.fixture(scope="session")
def demo(tmp_path_factory):
    """A folder with the demonstration's exposure in a small size, and the nominal radii that are in it."""
    folder = tmp_path_factory.mktemp("demo")
    subprocess.run([MEASURE, "demo", "--size", "640x512", "--markers", "14", "--out", str(folder)], capture_output=True)
    return folder
