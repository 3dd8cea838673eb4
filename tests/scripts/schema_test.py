#!/usr/bin/env python3
"""schema_test.py BUILD: the shipped JSON Schema is that of the records, and judges as the daemon does.

The judging needs python3-jsonschema; exit code 77 without.
"""
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build").resolve()
SHIPPED = TOP / "docs" / "msrpd.schema.json"
try:
    from jsonschema import Draft202012Validator
except ImportError:
    Draft202012Validator = None

# What is wrong in one word; the daemon and the schema refuse each.
WRONG = [
    '{"msrp/confg": {}}', '{"msrp/config": null}', '{"msrp/config": {"intfEnabled": {}}}',
    '{"msrp/config": {"intfEnable": {"swp1": 1}}}', '{"msrp/config": {"intfEnable": {"a/b": true}}}',
    '{"msrp/config": {"intfEnable": {"sixteen-octets-x": true}}}', '{"msrp/config": {"intfEnable": {"..": true}}}',
    '{"msrp/cliConfig": {"srClassAPriority": 8}}', '{"msrp/cliConfig": {"srClassAPriority": null}}',
    '{"msrp/cliConfig": {"srPvid": {"swp1": 4095}}}', '{"msrp/cliConfig": {"shapeRateFactor": -0.5}}',
    '{"msrp/cliConfig": {"latency": {"swp1": {"C": 1}}}}', '{"mvrp/config": {"allowed": {"swp1": "2,4095"}}}',
    '{"mvrp/config": {"allowed": {"*": "2"}}}', '{"bridging/config": {"vlanConfig": {"4095": {}}}}', '{"bridging/config": {"vlanConfig": {"000": {}}}}',
    '{"bridging/config": {"bridgeMac": "02:00:00:00:00"}}', '{"linux/config": {"shaping": "best"}}',
    '{"linux/config": {"groupProtocol": 3}}', '{"linux/config": {"gptp": {"sockets": "/x"}}}',
    '{"interface/status/eth/phy/all": {"intfStatus": {"swp1": {"speedEnum": "3G"}}}}',
]
RIGHT = [
    '{"msrp/config": {"intfEnable": {"*": true, "swp1": null, "swp1.5:x": false}}, "linux/config": {"bridge": "br0"}}',
    '{"bridging/config": {"vlanConfig": {"4094": {"intf": {"swp1": {}}}, "0002": null}}}',
    '{"mvrp/config": {"allowed": {"swp1": "2,100-199", "swp2": ""}}}',
    '{"qos/status": {"cosToTc": {"3": 4, "8": 16}}, "msrp/cliConfig": {"latency": {"swp1": {"B": 4294967295}}}}',
]


def examples():
    """What the documentation shows of configuration files, whole or only some records of it."""
    for file in (TOP / "README.md", TOP / "docs" / "user.md"):
        for text in re.findall(r"```json\n(.*?)```", file.read_text(encoding="utf-8"), re.DOTALL):
            text = re.sub(r"^\s*//.*$", "", text, flags=re.MULTILINE).strip()
            if re.match(r'\{?\s*"[a-z]+/', text):
                yield text if text.startswith("{") else "{" + text + "}"


def loose(schema, path="#"):
    """Where it takes objects that have more or less than what is written."""
    if isinstance(schema, dict):
        if "properties" in schema and (schema.get("additionalProperties") is not False or set(schema["required"]) != set(schema["properties"])):
            yield path
        for name, value in schema.items():
            yield from loose(value, f"{path}/{name}")


def daemon_takes(text):
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
        file.write(text)
        file.flush()
        return subprocess.run([BUILD / "msrpd", "--check", file.name], capture_output=True, check=False).returncode == 0


class Schema(unittest.TestCase):
    def test_the_shipped_one_is_that_of_the_records(self):
        made = subprocess.run([BUILD / "msrpctl", "schema"], capture_output=True, text=True, check=True).stdout
        self.assertEqual(made, SHIPPED.read_text(encoding="utf-8"), f"make it anew: msrpctl schema >{SHIPPED}")
        outputs = TOP / "docs" / "schema"
        with tempfile.TemporaryDirectory() as made:
            subprocess.run([BUILD / "msrpctl", "schema", "--all", made], check=True)
            differs = subprocess.run(["diff", "-r", "-x", "msrpsim-*", made, outputs], capture_output=True, text=True, check=False).stdout
        self.assertEqual(differs, "", f"make them anew: msrpctl schema --all {outputs}")

    def test_it_judges_as_the_daemon_does(self):
        if Draft202012Validator is None:
            self.skipTest("needs python3-jsonschema")
        schema = json.loads(SHIPPED.read_text(encoding="utf-8"))
        Draft202012Validator.check_schema(schema)
        shown = list(examples())
        self.assertGreater(len(shown), 3)
        judged = {text: (daemon_takes(text), Draft202012Validator(schema).is_valid(json.loads(text)))
                  for text in [*shown, *RIGHT, *WRONG]}
        self.assertEqual(judged, dict.fromkeys([*shown, *RIGHT], (True, True)) | dict.fromkeys(WRONG, (False, False)))

    def test_a_plan_is_as_its_schemas_say(self):
        if Draft202012Validator is None:
            self.skipTest("needs python3-jsonschema")
        stage = TOP / "examples/stage.dot"
        with tempfile.TemporaryDirectory() as directory:
            fast = pathlib.Path(directory) / "fast.dot"
            fast.write_text(stage.read_text(encoding="utf-8").replace("100M", "1G"), encoding="utf-8")
            for command, *words in (["run", stage, "--at", "5s cut ampright--right"], ["run", fast], ["compare", stage, fast],
                                    ["compare", stage, stage], ["fit", fast, "mains.1"], ["fit", fast, "mains.1", "--most", "1"]):
                with self.subTest(command, words=words):
                    schema = json.loads((TOP / f"docs/schema/msrpsim-{command}.schema.json").read_text(encoding="utf-8"))
                    Draft202012Validator.check_schema(schema)
                    ran = subprocess.run([BUILD / "msrpsim", "--json", command, *words], capture_output=True, text=True, check=False)
                    self.assertEqual(ran.stderr, "")
                    self.assertEqual([(list(error.path), error.message)
                                      for error in Draft202012Validator(schema).iter_errors(json.loads(ran.stdout))], [])
                    self.assertEqual(list(loose(schema)), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[2:])
