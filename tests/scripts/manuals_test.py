#!/usr/bin/env python3
"""manuals_test.py BUILD: manual pages say what the programs can do, neither more nor less, and read well."""
import json
import pathlib
import re
import subprocess
import sys
import unittest

MANUALS = pathlib.Path(__file__).resolve().parents[2] / "docs" / "man"
BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
PROGRAMS = {"msrpd": "msrpd.8", "msrpctl": "msrpctl.1", "msrp-station": "msrp-station.1", "msrpsim": "msrpsim.1",
            "msrp-exporter": "msrp-exporter.8", "msrp-agentx": "msrp-agentx.8"}


def helped(program, *words):
    """What a program, or a command of it, tells of itself: options, arguments and commands, as (path, name)."""
    text = subprocess.run([BUILD / program, *words, "--help"], text=True, check=True, stdout=subprocess.PIPE).stdout
    found, section = set(), ""
    for line in text.splitlines():
        if heading := re.match(r"(\w+):$", line):
            section = heading[1]
        elif (entry := re.match(r"  (\S+)", line)) and section in ("Options", "Positionals", "Subcommands"):
            names = [entry[1]] if section == "Subcommands" else [name for name in entry[1].split(",") if name[:2] != "-h"]
            for name in names:
                if name != "--help" or not words:
                    found.add((" ".join(words), name))
                if section == "Subcommands":
                    found |= helped(program, *words, name)
    return found


def written(page):
    """The same of a manual page: what its items and their arguments are."""
    found, command = set(), ""
    for line in (MANUALS / page).read_text(encoding="utf-8").splitlines():
        if line.startswith(".Sh "):
            command = ""
        if item := re.match(r"\.It Ic (.*)", line):
            words = re.sub(r"\b(Op|Oo|Oc|Ns|Ar)\b", "", re.sub(r"(Fl|Ar) .*", "", item[1])).split()
            command = " ".join(words)
            found.add((" ".join(words[:-1]), words[-1]))
            for group in (" ".join(words[:n]) for n in range(1, len(words))):
                found.add((" ".join(group.split()[:-1]), group.split()[-1]))
            for argument in re.findall(r"\bAr ([A-Z]+)", re.sub(r"Fl -\S+ Ar \S+", "", item[1])):
                found.add((command, argument))
            found |= {(command, f"--{option}") for option in re.findall(r"Fl -([\w-]+)", item[1])}
        elif item := re.match(r"\.It Fl (?:h , )?-([\w-]+)", line):
            found.add((command, f"--{item[1]}"))
    return found


class Manuals(unittest.TestCase):
    maxDiff = None

    def test_they_have_every_command_and_option(self):
        for program, page in PROGRAMS.items():
            with self.subTest(page):
                self.assertEqual(sorted(helped(program)), sorted(written(page)))

    def test_the_configuration_has_every_record_and_field(self):
        schema = json.loads((MANUALS.parent / "msrpd.schema.json").read_text(encoding="utf-8"))["properties"]
        records, text = {}, (MANUALS / "msrpd.json.5").read_text(encoding="utf-8")
        for line in text[text.index(".Sh RECORDS"):text.index(".Sh EXAMPLES")].splitlines():
            if line.startswith(".Ss "):
                fields = records[line[4:]] = set()
            elif line.startswith(".It Li "):
                fields.add(line[7:])
        self.assertEqual(records, {name: set(record["properties"]) for name, record in schema.items()})

    def test_they_can_be_set(self):
        for page in sorted(MANUALS.iterdir()):
            done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", page], text=True, check=True,
                                  capture_output=True, env={"MANWIDTH": "80", "PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"})
            self.assertEqual(done.stderr, "", page)


if __name__ == "__main__":
    unittest.main()
