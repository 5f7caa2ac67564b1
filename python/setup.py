"""The version is the project's; everything else stands in pyproject.toml."""

import pathlib
import re

from setuptools import setup

project = pathlib.Path(__file__).resolve().parent.parent / "CMakeLists.txt"
setup(version=re.search(r"project\(arm VERSION ([0-9.]+)", project.read_text())[1])
