#!/usr/bin/env python3
"""page_test.py BUILD: the page of msrpsim in a real browser.

Exit code 77 without one.
"""
import html
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
CHROMIUM = shutil.which("chromium")

# What would become more than text wherever somebody forgot that it is only text.
EVIL = "</script><img src=http://127.0.0.1:9/x onerror=document.title='broken'>&quot;'<b>"
HOSTILE = json.dumps("Hostile " + EVIL)[1:-1].replace("/", r"/")
NETWORK = f"""graph g {{ label="{HOSTILE}"; script="at 5s cut sw--amp; at 9s mend sw--amp";
    {{ node [kind=bridge] sw; "Bühne<i>" }} {{ node [kind=station] foh; amp; far; }}
    foh -- sw -- amp [speed="100M"]; sw -- "Bühne<i>" -- far;
    node [kind=stream, talker=foh] "{HOSTILE}" [listeners="amp far", size=100];
    big [listeners=amp, size=1400]; }}"""


class Page(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.page = self.directory / "page.html"
        drawing = self.directory / "net.dot"
        drawing.write_text(NETWORK, encoding="utf-8")
        ran = subprocess.run([BUILD / "msrpsim", "run", drawing, "--html", self.page, "--svg", self.directory / "net.svg"],
                             text=True, check=False, capture_output=True)
        self.assertEqual((ran.returncode, ran.stderr), (1, ""))

    def shown(self, steps=""):
        """The page after a script has done what a person might."""
        text = self.page.read_text(encoding="utf-8")
        page = self.directory / "used.html"
        # What it asks anybody for is told in its title.
        page.write_text(text.replace("</body>", "<script>addEventListener('securitypolicyviolation', "
                                                "(e) => document.title = 'asks ' + e.blockedURI);" + steps + "</script></body>"),
                        encoding="utf-8")
        ran = subprocess.run([CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={self.directory}/profile",
                              "--virtual-time-budget=2000", "--dump-dom", page.as_uri()],
                             text=True, check=True, capture_output=True, timeout=120)
        return ran.stdout

    def chosen(self, dom):
        box = re.search(r'<div id="chosen".*?</div>', dom, re.DOTALL)[0]
        ways = sorted(int(way) for way in re.findall(r'<line data-way="(\d+)" class="[^"]*\bon\b', dom))
        devices = [html.unescape(name) for name in re.findall(r'<g data-device="\d+" class="[^"]*\bon\b[^"]*">.*?<text[^>]*>(.*?)</text>', dom)]
        return html.unescape(re.sub(r"<[^>]*>", "|", box)), ways, devices

    def test_a_click_shows_a_stream_with_its_path_and_reason(self):
        box, ways, devices = self.chosen(self.shown("document.querySelector('#streams tbody tr').click();"))
        self.assertIn("|big to amp|", box)
        self.assertIn("|sw port amp: insufficient bandwidth (code 1): ", box)
        self.assertIn("|foh \u2192 sw \u2192 amp|", box)
        self.assertEqual((ways, devices), ([0, 1, 2, 3], ["sw", "foh", "amp"]))
        # The keys do the same, and so does an address.
        for steps in ("const r = document.querySelectorAll('#streams tbody tr')[2];"
                      "r.dispatchEvent(new KeyboardEvent('keydown', {key: 'Enter'}));",
                      "location.hash = encodeURIComponent(data.streams[0][0] + '/far');"):
            box, ways, devices = self.chosen(self.shown(steps))
            self.assertIn(f"|Hostile {EVIL} to far||reserved|", box)
            self.assertEqual((ways, devices), ([0, 1, 4, 5, 6, 7], ["sw", "Bühne<i>", "foh", "far"]))

    def test_names_stay_text_and_nobody_is_asked_for_anything(self):
        dom = self.shown("document.getElementById('filter').value = 'hostile FAR'; filter();")
        self.assertEqual(html.unescape(re.search("<title>(.*?)</title>", dom, re.DOTALL)[1]), "Hostile " + EVIL)
        self.assertNotIn("<img", dom)
        self.assertEqual(len(re.findall("<tr[^>]* data-key=", dom)), 1)
        self.assertIn("2 of 3 reservations of 2 streams", dom)
        # What an event did is told, and what a stream lost by it.
        self.assertIn("<td>cut sw--amp</td>", dom)
        self.assertIn("1 lost", dom)
        self.assertNotRegex(self.page.read_text(encoding="utf-8").replace("http://127.0.0.1:9/x", "").replace("http://www.w3.org/2000/svg", ""),
                            "https?://")

    def test_the_picture_is_one_that_other_programs_take(self):
        root = xml.etree.ElementTree.parse(self.directory / "net.svg").getroot()
        space = {"svg": "http://www.w3.org/2000/svg"}
        self.assertEqual([text.text for text in root.findall(".//svg:text", space)], ["sw", "Bühne<i>", "foh", "amp", "far"])
        classes = [line.get("class") for line in root.findall("svg:line", space)]
        self.assertEqual(len(classes), 8)
        self.assertIn("use1", classes[2])


if __name__ == "__main__":
    sys.exit(unittest.main() if CHROMIUM else 77)
