/// The page without what it tells: `{{title}}`, `{{drawing}}` and `{{data}}` (Plan/page/Page.cpp) stand for
/// that.  Everything that comes from a file is put in as text, and the policy forbids to ask anybody for
/// anything.
#pragma once

#include <string_view>

namespace Plan {

constexpr std::string_view pageText = R"PAGE(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>{{title}}</title>
<style>
:root { color-scheme: light dark; --line: #ccc; --soft: #f4f4f4; --good: #2f7d44; --bad: #b3263a; --on: #1668c1 }
@media (prefers-color-scheme: dark) { :root { --line: #555; --soft: #222; --good: #63c07d; --bad: #ff8297; --on: #6db1ff } }
body { font: 15px/1.45 sans-serif; margin: 0 auto; max-width: 1400px; padding: 0 1rem 3rem }
h1 { font-size: 1.5rem; margin: 1rem 0 0 } h2 { font-size: 1.15rem; margin: 1.6rem 0 .4rem }
.above { display: grid; grid-template-columns: minmax(0, 1fr) 22rem; gap: 1rem; align-items: start }
.net { width: 100%; height: auto; max-height: 75vh }
.net line.on { stroke: var(--on); stroke-width: 7 } .net g.on rect { stroke: var(--on); stroke-width: 3 }
.net line.bad, .net g.bad rect { stroke: var(--bad); stroke-width: 5 }
#chosen { border: 1px solid var(--line); border-radius: 6px; padding: .6rem .8rem; position: sticky; top: .5rem; overflow-wrap: anywhere }
#chosen p { margin: .35rem 0 } #chosen h3 { margin: 0; font-size: 1rem }
.wide { overflow-x: auto } table { border-collapse: collapse; width: 100% }
th, td { text-align: left; padding: .2rem .6rem .2rem 0; border-bottom: 1px solid var(--line); vertical-align: top }
td.number { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap }
tbody tr[tabindex] { cursor: pointer } tbody tr[tabindex]:hover, tr.on { background: var(--soft) }
tr.on td:first-child { box-shadow: inset 4px 0 var(--on); padding-left: .5rem }
.good { color: var(--good) } .bad { color: var(--bad) } .small { font-size: .87rem; opacity: .8 }
.key i { display: inline-block; width: 1.6em; height: 4px; vertical-align: middle; margin: 0 .3em 0 .9em }
.bar { position: relative; height: .8rem; min-width: 14rem; background: var(--soft) }
.bar i { position: absolute; top: 0; bottom: 0; min-width: 3px; background: var(--on) } .bar i.bad { background: var(--bad) }
input { font: inherit; padding: .15rem .4rem } label { margin-left: .8rem } button { font: inherit; margin-top: .5rem }
@media (max-width: 60rem) { .above { grid-template-columns: minmax(0, 1fr) } #chosen { position: static } }
</style>
</head>
<body>
<h1>{{title}}</h1>
<p id="summary"></p>
<div class="above">
<div>{{drawing}}
<p class="small key">Each half of a link is what the device beside it sends. Of what both classes may have is reserved:
<i style="background:#b9b9b9"></i>nothing<i style="background:#3f9f57"></i>up to half<i style="background:#d9a400"></i>up to 90 per cent<i style="background:#d1495b"></i>more. Dashes: blocked; dots: down.</p></div>
<div id="chosen" aria-live="polite"><p>A click on a stream shows its path.</p></div>
</div>
<h2>Streams</h2>
<p><input id="filter" type="search" placeholder="stream, talker, listener or reason" aria-label="Filter" size="34"><label><input id="failed" type="checkbox"> only what is not reserved</label></p>
<div class="wide"><table id="streams"><thead><tr><th>Stream<th>Class<th>kbit/s<th>Talker<th>Listener<th>State<th>Latency</tr></thead><tbody></tbody></table></div>
<button id="more" hidden>More</button>
<p class="small">Latency is a bound for the whole path, where classes keep their shares, one frame below them interferes at each port and talkers space their frames evenly. A path of seven hops is to keep <span id="targets"></span>.</p>
<h2>Links</h2>
<div class="wide"><table id="links"><thead><tr><th>From<th>To<th>Port<th>Speed<th>Class A, kbit/s<th>Class B, kbit/s<th>Frames<th>Lost</tr></thead><tbody></tbody></table></div>
<h2>What happened</h2>
<div class="wide"><table id="events"><thead><tr><th>At<th>Event<th>Until all was quiet<th>What it did</tr></thead><tbody></tbody></table></div>
<script type="application/json" id="data">{{data}}</script>
<script>
"use strict";
const data = JSON.parse(document.getElementById("data").textContent);
const $ = (id) => document.getElementById(id);
/// An element with text; everything from the file comes through here.
function make(tag, text, name) {
  const element = document.createElement(tag);
  if (text !== undefined) element.textContent = text;
  if (name) element.className = name;
  return element;
}
function row(cells) {
  const tr = make("tr");
  for (const cell of cells) tr.append(cell instanceof Node ? cell : make("td", cell));
  return tr;
}
const number = (n) => make("td", n, "number");
const span = (s) => s >= 1 ? s.toFixed(3) + " s" : s >= 1e-3 ? (s * 1e3).toFixed(3) + " ms" : (s * 1e6).toFixed(1) + " us";
const names = data.devices;

$("summary").textContent = data.summary;
$("targets").textContent = data.targets[0] + " for class A and " + data.targets[1] + " for class B";

// --- Streams: a row for each reservation
const rows = [];
data.streams.forEach((stream, s) => {
  const [name, srClass, kbps, talker, listeners] = stream;
  for (const [station, reserved, latency, late, ways, reason] of listeners)
    rows.push({stream: s, name, srClass, kbps, talker, station, reserved, latency, late, ways, reason: reason < 0 ? "" : data.texts[reason],
               key: name + "/" + names[station]});
});
rows.sort((a, b) => a.reserved - b.reserved);  // what failed comes first
let shown = 0, matching = [], chosen = null;
const page = 200;

function sectionOf(r) {
  const state = make("td", r.reserved ? "reserved" : "failed", r.reserved ? "good" : "bad");
  if (r.reason) state.append(make("div", r.reason.split(": ").slice(0, 2).join(": "), "small"));
  const tr = row([r.name, r.srClass, number(r.kbps), names[r.talker], names[r.station], state, make("td", r.latency, r.late ? "number bad" : "number")]);
  tr.tabIndex = 0;
  tr.dataset.key = r.key;
  if (chosen === r) tr.className = "on";
  tr.addEventListener("click", () => choose(r));
  tr.addEventListener("keydown", (event) => { if (event.key === "Enter" || event.key === " ") { event.preventDefault(); choose(r); } });
  return tr;
}
function more() {
  $("streams").tBodies[0].append(...matching.slice(shown, shown + page).map(sectionOf));
  shown = Math.min(matching.length, shown + page);
  $("more").hidden = shown === matching.length;
  $("more").textContent = (matching.length - shown) + " more";
}
function filter() {
  const words = $("filter").value.toLowerCase().split(/\s+/).filter(Boolean);
  matching = rows.filter((r) => (!$("failed").checked || !r.reserved) && words.every((word) =>
      (r.name + " " + names[r.talker] + " " + names[r.station] + " " + r.reason).toLowerCase().includes(word)));
  $("streams").tBodies[0].replaceChildren();
  shown = 0;
  more();
}

// --- The one that is chosen
function choose(r) {
  chosen = r;
  for (const element of document.querySelectorAll(".net .on, .net .bad, tr.on")) element.classList.remove("on", "bad");
  const devices = new Set([r.talker, r.station]);
  for (const way of r.ways) {
    document.querySelector(`[data-way="${way}"]`).classList.add("on");
    document.querySelector(`[data-way="${way ^ 1}"]`).classList.add("on");
    devices.add(data.links[way >> 1][1][way & 1][0]);
  }
  for (const device of devices) document.querySelector(`[data-device="${device}"]`).classList.add("on");
  if (!r.reserved) {
    const where = names.indexOf(r.reason.split(/:| port /)[0]);
    if (where >= 0) document.querySelector(`[data-device="${where}"]`).classList.add("bad");
  }
  for (const tr of $("streams").tBodies[0].rows) if (tr.dataset.key === r.key) tr.className = "on";
  const path = r.ways.map((way) => names[data.links[way >> 1][1][way & 1][0]]);
  const box = $("chosen");
  box.replaceChildren(make("h3", r.name + " to " + names[r.station]), make("p", r.reserved ? "reserved" : "failed", r.reserved ? "good" : "bad"));
  if (r.reason) box.append(make("p", r.reason));
  box.append(make("p", path.length ? [...path, names[r.station]].join(" \u2192 ") : "no way to the talker"));
  if (r.latency) box.append(make("p", "at worst " + r.latency + (r.late ? ", more than the class is to keep" : ""), r.late ? "bad" : ""));
  box.append(make("p", "class " + r.srClass + ", " + r.kbps + " kbit/s", "small"));
  history.replaceState(null, "", "#" + encodeURIComponent(r.key));
}
function follow() {
  let key = "";
  try { key = decodeURIComponent(location.hash.slice(1)); } catch { return; }
  const r = rows.find((one) => one.key === key);
  if (r) choose(r);
}

// --- Links
for (const [speed, ends] of data.links) {
  ends.forEach(([device, port, state, used, allowed, frames, lost, bridge], e) => {
    const share = (c) => bridge ? used[c] + " / " + allowed[c] : "";
    $("links").tBodies[0].append(row([names[device], names[ends[1 - e][0]], port, speed + (state ? ", " + state : ""), number(share(0)), number(share(1)), number(frames), number(lost)]));
  });
}

// --- Events
const length = Math.max(data.end, 1e-9);
for (const [at, text, quiet, lasted, effects] of data.events) {
  const bar = make("td");
  const back = make("div", undefined, "bar");
  const piece = make("i", undefined, quiet ? "" : "bad");
  piece.style.left = 100 * at / length + "%";
  piece.style.width = 100 * lasted / length + "%";
  back.append(piece);
  bar.append(back, make("div", quiet ? lasted ? span(lasted) : "changes nothing" : "not settled before the next event", "small"));
  const did = make("td");
  const kinds = [["lost", (e) => e[2] && !e[3]], ["not reserved", (e) => !e[2] && !e[3]], ["reserved now", (e) => !e[2] && e[3]], ["away for a while", (e) => e[2] && e[3]]];
  for (const [kind, is] of kinds) {
    const some = effects.filter(is);
    if (!some.length) continue;
    const details = make("details");
    details.append(make("summary", some.length + " " + kind));
    for (const [stream, station, , , without, reason] of some.slice(0, 500))
      details.append(make("div", data.streams[stream][0] + " to " + names[station] + (without ? ": " + span(without) : "") + (reason < 0 ? "" : ": " + data.texts[reason]), "small"));
    if (some.length > 500) details.append(make("div", "and " + (some.length - 500) + " more", "small"));
    did.append(details);
  }
  $("events").tBodies[0].append(row([number(span(at)), text, bar, did]));
}

$("filter").addEventListener("input", filter);
$("failed").addEventListener("change", filter);
$("more").addEventListener("click", more);
addEventListener("hashchange", follow);
filter();
follow();
</script>
</body>
</html>
)PAGE";

}  // namespace Plan
