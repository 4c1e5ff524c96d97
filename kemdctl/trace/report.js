
"use strict";
// Everything from the trace reaches the page as text, never as markup.
const data = JSON.parse(document.getElementById("data").textContent);
const TIME = 0, THREAD = 1, KB = 2, TAG = 3, TEXT = 4;
const ROW = 22;
const all = data.rows;
let shown = all;
let chosen = -1;
const at = id => document.getElementById(id);

function when(time) {
  return new Date(time).toISOString().replace("T", " ").replace("Z", "");
}

// Control characters, and those that change the direction of a line, become visible.
function visible(text) {
  return text.replace(/[\x00-\x1f\x7f-\x9f\u200b-\u200f\u2028-\u202e\u2066-\u2069]/g, c =>
    c === "\n" ? "\u23ce" : "\\u" + c.charCodeAt(0).toString(16).padStart(4, "0"));
}

function make(name, text, kind) {
  const element = document.createElement(name);
  element.textContent = text;
  if (kind) element.className = kind;
  return element;
}

function draw(name, attributes, text) {
  const element = document.createElementNS("http://www.w3.org/2000/svg", name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (text !== undefined) element.textContent = text;
  return element;
}

function showFacts() {
  for (const file of data.files) {
    at("files").append(make("dt", visible(file.path)), make("dd", visible(file.facts)));
  }
  const notes = [];
  if (data.leftOut > 0) notes.push(data.leftOut + " older records are left out of this page.");
  if (data.cut > 0) notes.push(data.cut + " long texts are cut.");
  at("left-out").textContent = notes.join(" ");
  at("left-out").hidden = notes.length === 0;
}

// Least and greatest of one column, without those below zero; spreading would overflow the stack.
function bounds(column) {
  let low = Infinity, high = -Infinity;
  for (const row of all) {
    if (row[column] < 0 && column === KB) continue;
    low = Math.min(low, row[column]);
    high = Math.max(high, row[column]);
  }
  return [low, high];
}

// Names that have no room beside each other are in the titles only.
function drawPhases(svg, place) {
  const kinds = new Map();
  const free = [0, 0];
  for (const [name, from, to, isOpen] of data.spans) {
    if (!kinds.has(name)) kinds.set(name, kinds.size % 5);
    const left = place(from), width = Math.max(place(to) - left, 2);
    const lane = name === "start-up" ? 0 : 1, y = 6 + lane * 16, long = name.length * 7;
    const bar = draw("rect", {x: left, y, width, height: 15, class: "p" + kinds.get(name)});
    bar.append(draw("title", {}, name + ": " + (to - from) + " ms" +
      (isOpen ? ", its end is not in the trace" : "")));
    svg.append(bar);
    const start = width > long ? left + 3 : left + width + long > 990 ? left - long : left + width + 3;
    if (start < free[lane]) continue;
    svg.append(draw("text", {x: start, y: y + 12, class: "label"}, name));
    free[lane] = Math.max(start + long, left + width);
  }
  if (data.spans.length === 0) {
    svg.append(draw("text", {x: 4, y: 24}, "no phases in these records"));
  }
}

function drawRate(svg, first, span) {
  const bins = new Array(200).fill(0);
  for (const row of all) {
    ++bins[Math.min(Math.floor((row[TIME] - first) / span * bins.length), bins.length - 1)];
  }
  const high = Math.max(...bins);
  bins.forEach((count, i) => {
    if (count === 0) return;
    const height = Math.max(count / high * 62, 1);
    svg.append(draw("rect", {x: i * 5, y: 110 - height, width: 4, height, class: "bar"}));
  });
  svg.append(draw("text", {x: 996, y: 54, "text-anchor": "end"},
    "up to " + high + " records in " + Math.max(Math.round(span / 200), 1) + " ms"));
}

function drawMemory(svg, place) {
  const [low, high] = bounds(KB);
  if (low > high) {
    svg.append(draw("text", {x: 4, y: 150}, "no memory column"));
    return;
  }
  // The highest of each place is enough: the line stays short.
  const highest = new Map();
  for (const row of all) {
    const x = Math.round(place(row[TIME]));
    if (row[KB] >= 0) highest.set(x, Math.max(highest.get(x) ?? 0, row[KB]));
  }
  const points = [...highest].sort((a, b) => a[0] - b[0]).map(([x, kb]) =>
    x + "," + (180 - (high > low ? (kb - low) / (high - low) : 0.5) * 50).toFixed(1));
  svg.append(draw("polyline", {points: points.join(" "), class: "memory"}));
  svg.append(draw("text", {x: 4, y: 124}, "resident memory, " + low + " to " + high + " KB"));
}

function drawTimeline() {
  const svg = at("timeline");
  if (all.length === 0) {
    svg.append(draw("text", {x: 4, y: 24}, "There are no records."));
    return;
  }
  const [first, last] = bounds(TIME);
  const span = Math.max(last - first, 1);
  const place = time => Math.min(Math.max((time - first) / span, 0), 1) * 1000;
  at("range").textContent = when(first) + " to " + when(last) + ", " + all.length + " records";
  drawPhases(svg, place);
  drawRate(svg, first, span);
  for (const y of [42, 110, 186]) {
    svg.append(draw("line", {x1: 0, x2: 1000, y1: y, y2: y, class: "axis"}));
  }
  drawMemory(svg, place);
  svg.append(draw("text", {x: 4, y: 202}, when(first)));
  svg.append(draw("text", {x: 996, y: 202, "text-anchor": "end"}, when(last)));
  svg.addEventListener("click", event => {
    const box = svg.getBoundingClientRect();
    const time = first + (event.clientX - box.left) / box.width * span;
    const index = shown.findIndex(row => row[TIME] >= time);
    choose(index < 0 ? shown.length - 1 : index);
  });
}

function makeRow(row, index) {
  const isBad = /\b(ERROR|FATAL|FAILED)\b/.test(row[TEXT]);
  const line = make("div", "", isBad ? "row bad" : "row");
  const kb = row[KB] < 0 ? "" : String(row[KB]);
  for (const text of [when(row[TIME]), row[THREAD], kb, visible(row[TAG]), visible(row[TEXT])]) {
    line.append(make("span", text));
  }
  line.setAttribute("role", "option");
  line.id = "row" + index;
  line.setAttribute("aria-posinset", index + 1);
  line.setAttribute("aria-setsize", shown.length);
  line.setAttribute("aria-selected", index === chosen);
  line.addEventListener("click", () => choose(index));
  return line;
}

// Only the rows in sight are elements.
function showRows() {
  const list = at("list");
  const from = Math.max(Math.floor(list.scrollTop / ROW) - 10, 0);
  const to = Math.min(from + Math.ceil(list.clientHeight / ROW) + 20, shown.length);
  const lines = [];
  for (let i = from; i < to; ++i) lines.push(makeRow(shown[i], i));
  at("space").style.height = shown.length * ROW + "px";
  at("rows").style.top = from * ROW + "px";
  at("rows").replaceChildren(...lines);
}

function choose(index) {
  if (index < 0 || index >= shown.length) return;
  chosen = index;
  const list = at("list"), top = index * ROW;
  if (top < list.scrollTop || top + ROW > list.scrollTop + list.clientHeight) {
    list.scrollTop = Math.max(top - list.clientHeight / 2, 0);
  }
  showRows();
  list.setAttribute("aria-activedescendant", "row" + index);
  const row = shown[index];
  at("whole").textContent = when(row[TIME]) + " [" + row[THREAD] + "] " +
    (row[KB] < 0 ? "" : row[KB] + " KB ") + visible(row[TAG]) + "\n" +
    row[TEXT].split("\n").map(visible).join("\n");
}

function makeTest() {
  const wanted = at("grep").value;
  at("grep").setAttribute("aria-invalid", "false");
  if (wanted === "") return () => true;
  if (!at("regex").checked) {
    const small = wanted.toLowerCase();
    return row => row[TEXT].toLowerCase().includes(small) || row[TAG].toLowerCase().includes(small);
  }
  try {
    const pattern = new RegExp(wanted, "i");
    return row => pattern.test(row[TEXT]) || pattern.test(row[TAG]);
  } catch {
    at("grep").setAttribute("aria-invalid", "true");
    return () => false;
  }
}

function filter() {
  const test = makeTest(), thread = at("thread").value, tag = at("tag").value;
  shown = all.filter(row => (thread === "" || row[THREAD] === thread) &&
    (tag === "" || row[TAG] === tag) && test(row));
  chosen = -1;
  at("list").removeAttribute("aria-activedescendant");
  at("list").scrollTop = 0;
  at("whole").textContent = "None is chosen.";
  at("count").textContent = at("grep").getAttribute("aria-invalid") === "true" ?
    "no regular expression" : shown.length + " of " + all.length + " records";
  showRows();
}

// The most frequent ones: a list of thousands is of no use.
function fill(id, column) {
  const counts = new Map();
  for (const row of all) counts.set(row[column], (counts.get(row[column]) ?? 0) + 1);
  const top = [...counts].sort((a, b) => b[1] - a[1]).slice(0, 500);
  for (const [text, count] of top) at(id).add(new Option(visible(text) + " (" + count + ")", text));
}

// #grep=...&regex=1&thread=...&tag=... sets the filter without a hand.
function takeQuery() {
  const query = new URLSearchParams(location.hash.slice(1));
  for (const id of ["grep", "thread", "tag"]) {
    if (query.has(id)) at(id).value = query.get(id);
  }
  at("regex").checked = query.get("regex") === "1";
}

function start() {
  showFacts();
  drawTimeline();
  fill("thread", THREAD);
  fill("tag", TAG);
  takeQuery();
  filter();
  at("filter").addEventListener("input", filter);
  at("filter").addEventListener("reset", () => setTimeout(filter));
  at("filter").addEventListener("submit", event => event.preventDefault());
  at("list").addEventListener("scroll", showRows);
  at("list").addEventListener("keydown", event => {
    const page = Math.floor(at("list").clientHeight / ROW);
    const steps = {ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -Infinity, End: Infinity};
    if (!(event.key in steps)) return;
    event.preventDefault();
    choose(Math.min(Math.max(chosen + steps[event.key], 0), shown.length - 1));
  });
  addEventListener("hashchange", () => { takeQuery(); filter(); });
  addEventListener("resize", showRows);
}
start();
