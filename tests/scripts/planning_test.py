#!/usr/bin/env python3
"""planning_test.py BUILD: what docs/planning.md shows is what the program prints."""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv.pop(1)).resolve()


def blocks():
    """Each command of the page and the lines below it."""
    text = (TOP / "docs" / "planning.md").read_text(encoding="utf-8")
    for block in re.findall(r"```console\n(.*?)```", text, re.DOTALL):
        for command in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]:
            line, _, shown = command.partition("\n")
            yield line, shown


class Planning(unittest.TestCase):
    maxDiff = None

    def test_the_tutorial_is_true(self):
        with tempfile.TemporaryDirectory() as directory:
            directory = pathlib.Path(directory)
            shutil.copytree(TOP / "examples", directory / "examples")
            for command, shown in blocks():
                with self.subTest(command):
                    out = subprocess.run(command.replace("msrpsim", str(BUILD / "msrpsim")), shell=True, text=True, check=False,
                                         cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout
                    # "..." stands for lines that are left out.
                    pattern = "".join("(?:.*\n)*?" if line == "..." else re.escape(line) + "\n" for line in shown.splitlines())
                    if not re.fullmatch(pattern, out):
                        self.assertEqual(out, shown)
            # Other releases of Graphviz may place things elsewhere.
            made, committed = ((place / "stage.svg").read_text(encoding="utf-8") for place in (directory, TOP / "docs"))
            self.assertEqual(*(re.sub(r' (x|y|x1|y1|x2|y2|width|height|viewBox)="[^"]*"', "", text) for text in (made, committed)))


unittest.main()
