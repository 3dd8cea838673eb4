#!/usr/bin/env python3
"""Shows trees with one fault each to scripts/check-includes."""
import pathlib
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check-includes"


def check(**files):
    """The faults of a tree of files, given as Room_Name_h="included other"."""
    with tempfile.TemporaryDirectory() as top:
        for name, included in files.items():
            *rooms, stem, suffix = name.split("_")
            path = pathlib.Path(top, *rooms, f"{stem}.{suffix}")
            path.parent.mkdir(parents=True, exist_ok=True)
            lines = [f"#include {i}" if i.startswith("<") else f'#include "{i}"' for i in included.split()]
            path.write_text("\n".join(lines) + "\n", encoding="utf-8")
        done = subprocess.run([SCRIPT, top], capture_output=True, text=True, check=False)
        faults = done.stdout.splitlines()[:-1]
        assert done.returncode == (1 if faults else 0), done
        return faults


class CheckIncludes(unittest.TestCase):
    def test_each_fault_is_told(self):
        for faults, files in (
                ([], {"State_A_h": "<map>", "Mrp_B_h": "State/A.h", "Mrp_C_cpp": "Mrp/B.h"}),
                (['State/C.cpp: State may not include "Mrp/B.h"'],
                 {"State_A_h": "", "Mrp_B_h": "State/A.h", "State_C_cpp": "Mrp/B.h"}),
                (['Station/C.cpp: Station may not include "Msrp/A.h"'],
                 {"Msrp_A_h": "", "Msrp_B_cpp": "Msrp/A.h", "Station_C_cpp": "Msrp/A.h"}),
                (['Linux/links/B.cpp: Linux/links may not include "Linux/queues/A.h"'],
                 {"Linux_queues_A_h": "", "Linux_links_B_cpp": "Linux/queues/A.h", "Linux_C_cpp": "Linux/queues/A.h"}),
                (["Mrp/A.cpp: Mrp may not include <sys/socket.h>", "Control/A.cpp: Control may not include <CLI/CLI.hpp>"],
                 {"Mrp_A_cpp": "<sys/socket.h>", "Linux_A_cpp": "<sys/socket.h> <linux/filter.h>",
                  "Control_A_cpp": "<CLI/CLI.hpp>"}),
                (["circle: State/A.h -> State/B.h -> State/C.h -> State/A.h"],
                 {"State_A_h": "State/B.h", "State_B_h": "State/C.h", "State_C_h": "State/A.h"}),
                (["State/A.h: nobody includes it but its own .cpp file"], {"State_A_h": "", "State_A_cpp": "State/A.h"}),
                (['State/A.cpp: "A.h" is not a file of ours, seen from the top directory'], {"State_A_cpp": "A.h"})):
            self.assertEqual(check(**files), faults)


if __name__ == "__main__":
    unittest.main()
