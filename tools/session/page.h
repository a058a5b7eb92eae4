// page.h - the page of a session: everything that a browser needs but the session itself, which takes the
// place of @SESSION@ as JSON. No outside parts: no font, script or picture is fetched.
#pragma once

inline constexpr const char* PageText = R"html(<!doctype html>
<html lang="en"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>A keyboard's session</title>
<style>
:root { color-scheme: light dark; --ink: #1b1f24; --soft: #667; --line: #d8dbe0; --ground: #fff;
  --below: #7b8fa8; --above: #2a8f5b; --own: #8a4fc0; --event: #c2571a; }
@media (prefers-color-scheme: dark) { :root { --ink: #e6e8eb; --soft: #9aa3ad; --line: #3a4048;
  --ground: #16191d; --below: #7f93ad; --above: #46b67c; --own: #b184e0; --event: #f0905a; } }
body { margin: 0 auto; padding: 12px; max-width: 1400px; background: var(--ground); color: var(--ink);
  font: 14px/1.4 system-ui, sans-serif; }
h1 { font-size: 18px; margin: 0 0 4px; }
p { margin: 0 0 8px; color: var(--soft); }
.bar { display: flex; flex-wrap: wrap; gap: 6px 14px; align-items: center; margin-bottom: 8px; }
.bar button { font: inherit; padding: 2px 12px; }
.key::before { content: ""; display: inline-block; width: 12px; height: 8px; margin-right: 5px;
  background: var(--c); border-radius: 2px; }
#chart { display: block; width: 100%; touch-action: pan-y; cursor: grab; border: 1px solid var(--line);
  box-sizing: border-box; }
#tip { position: fixed; display: none; max-width: 80vw; padding: 4px 8px; background: var(--ink);
  color: var(--ground); border-radius: 4px; font-size: 13px; pointer-events: none; white-space: pre-line; }
h2 { font-size: 15px; margin: 14px 0 4px; }
#list { max-height: 320px; overflow: auto; border: 1px solid var(--line); }
#list button { display: flex; gap: 12px; width: 100%; padding: 2px 8px; border: 0; background: none;
  color: inherit; font: inherit; text-align: left; cursor: pointer; }
#list button:hover { background: var(--line); }
#list time { font-variant-numeric: tabular-nums; color: var(--soft); min-width: 6.5em; text-align: right; }
</style></head><body>
<h1 id="title"></h1><p id="sum"></p>
<div class="bar"><span><button id="in" title="zoom in">+</button> <button id="out" title="zoom out">&minus;</button>
<button id="all">all</button></span>
<span class="key" style="--c:var(--below)">the keyboard sent</span>
<span class="key" style="--c:var(--above)">the system saw</span>
<span class="key" style="--c:var(--own)">from the driver itself</span>
<span class="key" style="--c:var(--event)">what was told, below</span></div>
<canvas id="chart"></canvas><div id="tip"></div>
<h2>What was told</h2><div id="list"></div>
<script id="session" type="application/json">@SESSION@</script>
<script>
"use strict";
const session = JSON.parse(document.getElementById("session").textContent);
session.bars = session.items.filter(i => "key" in i).sort((a, b) => a.from - b.from || a.kbd - b.kbd || a.above - b.above);
session.events = session.items.filter(i => "text" in i);
const chart = document.getElementById("chart"), pen = chart.getContext("2d"), tip = document.getElementById("tip");
const end = Math.max(session.end, 1), RowHeight = 22, AxisHeight = 24;
let from = 0, to = end, width = 0, gutter = 0;
const seconds = us => (us / 1e6).toFixed(6);

// One row for a keyboard's name and its events, then one for each of its keys.
const rows = [];
session.keyboards.forEach((keyboard, k) => {
  rows.push({ k, name: keyboard.name, head: true });
  const names = [...new Set(session.bars.filter(b => b.kbd === k).map(b => b.key))];
  names.forEach(name => rows.push({ k, name }));
});
const rowOf = (k, name) => rows.findIndex(r => r.k === k && (name === null ? r.head : !r.head && r.name === name));
session.bars.forEach(b => b.row = rowOf(b.kbd, b.key));
session.events.forEach(e => e.row = rowOf(e.kbd, null));

const xOf = us => gutter + (us - from) / (to - from) * (width - gutter);
const usOf = x => from + (x - gutter) / (width - gutter) * (to - from);
function boxOf(bar) {
  const y = AxisHeight + bar.row * RowHeight, half = RowHeight / 2 - 3;
  const x = Math.max(xOf(bar.from), gutter);
  return [x, y + (bar.above ? RowHeight / 2 + 1 : 2), Math.max(Math.min(xOf(bar.to), width) - x, 2), half];
}
function fitted(text, room) {
  while (text.length > 1 && pen.measureText(text).width > room)
    text = text.replace(/.…?$/u, "…");
  return text;
}
function draw() {
  const scale = devicePixelRatio || 1, style = getComputedStyle(document.documentElement);
  const colour = name => style.getPropertyValue("--" + name);
  width = chart.clientWidth;
  gutter = Math.min(170, width * 0.27);
  const height = AxisHeight + rows.length * RowHeight + 4;
  chart.style.height = height + "px";
  chart.width = width * scale;
  chart.height = height * scale;
  pen.setTransform(scale, 0, 0, scale, 0, 0);
  pen.font = "12px system-ui, sans-serif";
  pen.textBaseline = "middle";

  const wanted = (to - from) / Math.max((width - gutter) / 90, 1), power = 10 ** Math.floor(Math.log10(wanted));
  const step = [1, 2, 5, 10].map(n => n * power).find(n => n >= wanted) || power;
  const digits = Math.min(Math.max(6 - Math.floor(Math.log10(step)), 0), 6);
  for (let t = Math.ceil(from / step) * step; t <= to; t += step) {
    pen.fillStyle = colour("line");
    pen.fillRect(xOf(t), AxisHeight - 4, 1, height);
    pen.fillStyle = colour("soft");
    const text = (t / 1e6).toFixed(digits) + " s", room = pen.measureText(text).width;
    if (xOf(t) + room < width)
      pen.fillText(text, xOf(t) + 3, AxisHeight / 2);
  }
  rows.forEach((row, i) => {
    const y = AxisHeight + i * RowHeight;
    pen.fillStyle = colour("line");
    pen.fillRect(0, y, width, 1);
    pen.font = (row.head ? "bold " : "") + "12px system-ui, sans-serif";
    pen.fillStyle = colour("ink");
    pen.fillText(fitted(row.name, gutter - 12), row.head ? 4 : 10, y + RowHeight / 2 + 1);
  });
  for (const bar of session.bars) {
    if (bar.to < from || bar.from > to)
      continue;
    pen.fillStyle = colour(bar.own ? "own" : bar.above ? "above" : "below");
    pen.fillRect(...boxOf(bar));
  }
  pen.fillStyle = colour("event");
  for (const event of session.events) {
    const x = xOf(event.t), y = AxisHeight + event.row * RowHeight;
    if (x >= gutter && x <= width)
      pen.fillRect(Math.min(x, width - 3), y + 3, 3, RowHeight - 6);
  }
}
function look(a, b) {
  const span = Math.min(Math.max(b - a, 100), end);
  from = Math.min(Math.max(a, 0), end - span);
  to = from + span;
  tip.style.display = "none";
  draw();
}
function zoom(factor, at) {
  look(at - (at - from) * factor, at + (to - at) * factor);
}
const middle = () => (from + to) / 2;
document.getElementById("in").onclick = () => zoom(0.5, middle());
document.getElementById("out").onclick = () => zoom(2, middle());
document.getElementById("all").onclick = () => look(0, end);
chart.addEventListener("wheel", e => {
  if (e.offsetX < gutter)
    return; // there the page scrolls
  e.preventDefault();
  zoom(e.deltaY < 0 ? 0.8 : 1.25, usOf(e.offsetX));
}, { passive: false });
let held = null;
chart.onpointerdown = e => { held = { x: e.clientX, from, to }; chart.setPointerCapture(e.pointerId); hover(e); };
chart.onpointerup = chart.onpointercancel = () => held = null;
chart.onpointerleave = () => tip.style.display = "none";
chart.onpointermove = e => {
  if (held && Math.abs(e.clientX - held.x) > 3) {
    const us = (e.clientX - held.x) / (width - gutter) * (held.to - held.from);
    look(held.from - us, held.to - us);
  } else hover(e);
};
function hover(e) {
  const x = e.offsetX, y = e.offsetY, said = [];
  for (const event of session.events)
    if (Math.abs(xOf(event.t) - x) < 5 && y >= AxisHeight + event.row * RowHeight &&
        y < AxisHeight + (event.row + 1) * RowHeight)
      said.push(seconds(event.t) + " s  " + event.text);
  for (const bar of session.bars) {
    const [left, top, wide, high] = boxOf(bar);
    if (x >= left - 1 && x <= left + wide + 1 && y >= top - 1 && y <= top + high + 1)
      said.push(bar.key + (bar.own ? ", from the driver itself" : bar.above ? ", as the system saw it" :
        ", as the keyboard sent it") + "\n" + seconds(bar.from) + " s, for " +
        ((bar.to - bar.from) / 1000).toFixed(3) + " ms" + (bar.held ? ", still held at the end" : ""));
  }
  tip.style.display = said.length ? "block" : "none";
  tip.textContent = said.slice(0, 8).join("\n");
  tip.style.left = Math.max(Math.min(e.clientX + 12, innerWidth - tip.offsetWidth - 8), 4) + "px";
  tip.style.top = Math.min(e.clientY + 14, innerHeight - tip.offsetHeight - 8) + "px";
}
document.title = document.getElementById("title").textContent = session.title;
document.getElementById("sum").textContent = session.keyboards.length + " keyboard" +
  (session.keyboards.length === 1 ? "" : "s") + ", " + session.reports + " reports, " + session.told + " events, " +
  seconds(end) + " s; left behind by the driver: " + (session.leaks || "nothing");
for (const event of session.events) {
  const button = document.createElement("button"), time = document.createElement("time"),
    text = document.createElement("span");
  time.textContent = seconds(event.t);
  text.textContent = (session.keyboards.length > 1 ? "keyboard " + event.kbd + ": " : "") + event.text;
  button.append(time, text);
  button.onclick = () => {
    look(event.t - 1e6, event.t + 1e6);
    chart.scrollIntoView({ block: "nearest" });
  };
  document.getElementById("list").append(button);
}
onresize = draw;
draw();
</script></body></html>
)html";
