
"use strict";
// Everything from the history and the trace reaches the page as text, never as markup.
const data = JSON.parse(document.getElementById("data").textContent);
const at = id => document.getElementById(id);
const LEFT = 62, RIGHT = 8, BOTTOM = 18, MINUTE = 60000;
const SHOWN_AT_FIRST = 8, MOST_LINES = 100, MOST_EVENTS = 1000;
let view = [data.from, data.to];
let cursor = null;  // a time
let drag = null;    // {from, to, canvas}
const charts = [];

function make(name, text, kind) {
  const element = document.createElement(name);
  if (text) element.textContent = text;
  if (kind) element.className = kind;
  return element;
}

// Control characters, and those that change the direction of a line, become visible.
function visible(text) {
  return text.replace(/[\x00-\x1f\x7f-\x9f\u200b-\u200f\u2028-\u202e\u2066-\u2069]/g, c =>
    c === "\n" ? "\u23ce" : "\\u" + c.charCodeAt(0).toString(16).padStart(4, "0"));
}

const iso = time => new Date(time + data.zone).toISOString();
const day = time => iso(time).slice(0, 10);
const clock = (time, step) => iso(time).slice(11, step < 1000 ? 23 : step < MINUTE ? 19 : 16);
const when = time => day(time) + " " + clock(time, 1000);

function spanText(milliseconds) {
  const parts = [[86400000, " d"], [3600000, " h"], [60000, " min"], [1000, " s"]];
  const [size, unit] = parts.find(([each]) => milliseconds >= each) ?? [1, " ms"];
  return +(milliseconds / size).toPrecision(3) + unit;
}

function numberText(value, unit) {
  if (Number.isNaN(value)) return "\u2013";
  const isBytes = unit.startsWith("bytes"), base = isBytes ? 1024 : 1000;
  let prefix = 0, size = Math.abs(value);
  if (unit !== "%" && unit !== "\u00b0C") while (size >= base * 0.9995 && prefix < 5) { size /= base; ++prefix; }
  const digits = size >= 100 || size === 0 ? 0 : size >= 10 ? 1 : 2;
  const number = (value < 0 ? "-" : "") + +size.toFixed(digits);
  const sign = isBytes ? ["B", "KiB", "MiB", "GiB", "TiB", "PiB"][prefix] : ["", "k", "M", "G", "T", "P"][prefix];
  const rest = isBytes ? unit.slice(5) : unit === "/s" || !unit ? unit : (sign ? "" : " ") + unit;
  return number + (sign ? " " : "") + sign + rest;
}

// ---- Values. A series is packed: see html_pack.h.

function bytesOf(base64) {
  const text = atob(base64), bytes = new Uint8Array(text.length);
  for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
  return bytes;
}

// One column: numbers as differences to the one before, or as they are; NaN where there is none.
function unpackColumn(reader, count, isDifference) {
  const column = new Float64Array(count).fill(NaN);
  let value = 0;
  for (let i = 0; i < count;) {
    const token = reader();
    if (token === 0) {
      for (let run = reader(); run > 0; --run) column[i++] = value;
    } else if (token === 1) {
      i += reader();
    } else {
      const number = token - 2;
      value = isDifference ? value + (number % 2 ? -(number + 1) / 2 : number / 2) : number;
      column[i++] = value;
    }
  }
  return column;
}

function readerOf(bytes) {
  let place = 0;
  return () => {
    let number = 0, scale = 1, byte;
    do {
      byte = bytes[place++];
      number += (byte & 127) * scale;
      scale *= 128;
    } while (byte > 127);
    return number;
  };
}

// Times with low, mean and high, the finer parts in place of the coarse one; made at first use.
function pointsOf(series) {
  if (series.points) return series.points;
  const number = series.isLog ? q => Math.expm1(q / series.quantum) * series.low : q => series.low + q * series.quantum;
  const time = [], step = [], low = [], mean = [], high = [];
  const put = (part, k, value, below, above) => {
    time.push(part.from + k * part.step + (part.isFine ? 0 : part.step / 2));
    step.push(part.step);
    mean.push(number(value)); low.push(number(value - below)); high.push(number(value + above));
  };
  const putFine = n => {
    const part = data.parts[n];
    if (!series.packed[n]) return;
    const column = unpackColumn(readerOf(bytesOf(series.packed[n])), part.count, true);
    for (let k = 0; k < part.count; ++k) if (!Number.isNaN(column[k])) put(part, k, column[k], 0, 0);
  };
  const coarse = data.parts[0], reader = readerOf(bytesOf(series.packed[0]));
  const means = unpackColumn(reader, coarse.count, true);
  const below = coarse.isFine ? null : unpackColumn(reader, coarse.count, false);
  const above = coarse.isFine ? null : unpackColumn(reader, coarse.count, false);
  let fine = 1;
  for (let k = 0; k < coarse.count; ++k) {
    const from = coarse.from + k * coarse.step;
    while (fine < data.parts.length && from >= data.parts[fine].from) putFine(fine++);
    const before = data.parts[fine - 1];
    if (fine > 1 && from + coarse.step <= before.from + before.count * before.step) continue;
    if (fine < data.parts.length && from + coarse.step > data.parts[fine].from) continue;
    if (!Number.isNaN(means[k])) put(coarse, k, means[k], below ? below[k] : 0, above ? above[k] : 0);
  }
  while (fine < data.parts.length) putFine(fine++);
  series.packed = null;
  series.points = {time: Float64Array.from(time), step: Float32Array.from(step),
    low: Float32Array.from(low), mean: Float32Array.from(mean), high: Float32Array.from(high)};
  return series.points;
}

// A value for each pixel of the view: of those that fall into it, or on the line between two.
function pixelsOf(series, width) {
  const [from, to] = view, points = pointsOf(series), scale = width / (to - from);
  const pixels = {low: new Float32Array(width).fill(NaN), mean: new Float32Array(width).fill(NaN),
    high: new Float32Array(width).fill(NaN)};
  const count = new Uint32Array(width);
  let i = 0;
  for (let last = points.time.length; i < last;) {
    const middle = (i + last) >> 1;
    if (points.time[middle] < from) i = middle + 1; else last = middle;
  }
  if (i > 0) --i;
  for (let before = -1; i < points.time.length; before = i++) {
    const x = Math.floor((points.time[i] - from) * scale);
    if (before >= 0 && points.time[i] - points.time[before] <= 1.6 * Math.max(points.step[i], points.step[before])) {
      const begin = Math.floor((points.time[before] - from) * scale);
      for (let k = Math.max(begin + 1, 0); k < Math.min(x, width); ++k) {
        if (count[k] > 0) continue;
        const part = (k - begin) / (x - begin);
        for (const which of ["low", "mean", "high"]) {
          pixels[which][k] = points[which][before] * (1 - part) + points[which][i] * part;
        }
      }
    }
    if (x >= width) break;
    if (x < 0) continue;
    const n = count[x]++;
    pixels.mean[x] = n === 0 ? points.mean[i] : (pixels.mean[x] * n + points.mean[i]) / (n + 1);
    pixels.low[x] = n === 0 ? points.low[i] : Math.min(pixels.low[x], points.low[i]);
    pixels.high[x] = n === 0 ? points.high[i] : Math.max(pixels.high[x], points.high[i]);
  }
  return pixels;
}

function mapped(pixels, change) {
  const result = {};
  for (const which of ["low", "mean", "high"]) result[which] = pixels[which].map(change);
  return result;
}

// Of a calculation with several series there is the mean alone.
function combined(list, width, calculate) {
  const all = list.map(each => pixelsOf(each, width).mean);
  const mean = new Float32Array(width);
  for (let x = 0; x < width; ++x) mean[x] = calculate(all.map(each => each[x]));
  return {low: mean, mean, high: mean};
}

// ---- Which charts there are.

const named = new Map();
function load() {
  data.parts = data.parts.map(([from, step, count, isFine]) => ({from, step, count, isFine}));
  data.series = data.series.map(([name, labels, unit, help, isCounter, isLog, low, quantum, high, ...packed]) => {
    const series = {name, isOfModule: /\bmodule="/.test(labels), labels: labelsOf(labels), unit, help, isCounter, isLog, low, quantum, high, packed};
    if (!named.has(name)) named.set(name, []);
    named.get(name).push(series);
    return series;
  });
}

function labelsOf(text) {
  return [...text.matchAll(/(\w+)="((?:\\.|[^"\\])*)"/g)].map(match =>
    match[2].replace(/\\(.)/g, (_, c) => c === "n" ? "\n" : c));
}
const labelText = series => visible(series.labels.join(" "));
const natural = (a, b) => a.localeCompare(b, "en", {numeric: true});

function unitOf(series) {
  const unit = {celsius: "\u00b0C", watts: "W", hertz: "Hz", rpm: "rpm", seconds: "s"}[series.unit] ?? series.unit;
  if (!series.isCounter) return unit;
  return series.unit === "seconds" ? "%" : unit === "bytes" ? "bytes/s" : "/s";
}

// What remains of names when their common beginning and the unit go.
function shortNames(list) {
  const names = [...new Set(list.map(each => each.name))];
  if (names.length === 1) return () => "";
  const words = names.map(name => name.replace(/_(seconds|bytes|pages|celsius|watts)$/, "").split("_"));
  let same = 0;
  while (words.every(each => each.length > same + 1 && each[same] === words[0][same])) ++same;
  return name => words[names.indexOf(name)].slice(same).join(" ");
}

function lineOf(series, short, scale) {
  const factor = scale ?? (series.isCounter && series.unit === "seconds" ? 100 : 1);
  const label = [labelText(series), short(series.name)].filter(part => part).join(" ") || nameText(series.name);
  return {label, weight: series.high, isQuiet: series.high === 0, help: series.help,
    pixels: width => factor === 1 ? pixelsOf(series, width) : mapped(pixelsOf(series, width), v => v * factor)};
}

const pick = names => names.flatMap(name => named.get(name) ?? []);
const used = new Set();
const claim = list => { for (const each of list) used.add(each.name); return list; };

function linesOf(title, names, options = {}) {
  const list = claim(pick(names));
  if (list.length === 0) return null;
  const short = shortNames(list);
  return {title, unit: options.unit ?? unitOf(list[0]), lines: list.map(each => lineOf(each, short, options.scale)), ...options};
}

// Parts of all, in percent: of the processors' time.
function shareOf(title, names, rest) {
  const list = claim(pick(names)), others = claim(pick(rest));
  if (list.length === 0) return null;
  const short = shortNames(list);
  const total = width => combined([...list, ...others], width, values => values.reduce((a, b) => a + (b || 0), 0)).mean;
  return {title, unit: "%", isStack: true, top: 100, lines: list.map(each => ({...lineOf(each, short, 1),
    pixels: width => {
      const all = total(width);
      return mapped(pixelsOf(each, width), (v, x) => all[x] > 0 ? v / all[x] * 100 : NaN);
    }}))};
}

// A line for each label: what `calculate` makes of the series with that label.
function calculatedOf(title, unit, names, calculate, options = {}) {
  const lists = names.map(name => claim(pick([name])));
  if (lists[0].length === 0) return null;
  const lines = lists[0].map(first => {
    const all = lists.map(list => list.find(each => each.labels.join() === first.labels.join()));
    return all.includes(undefined) ? null : {label: labelText(first) || title, weight: 1, isQuiet: false,
      pixels: width => combined(all, width, calculate)};
  }).filter(line => line);
  return lines.length === 0 ? null : {title, unit, lines, ...options};
}

const cpu = names => names.map(name => "cpu_" + name + "_seconds");
const known = () => [
  ["CPU", [
    shareOf("CPU time", cpu(["user", "nice", "system", "irq", "softirq", "steal", "iowait"]), cpu(["idle"])),
    calculatedOf("Cores", "%", ["core_idle_seconds", "core_iowait_seconds"],
      ([idle, iowait]) => Math.max(100 - (idle + iowait) * 100, 0), {isHeat: true}),
    linesOf("Load", ["load_1", "load_5", "load_15"]),
    linesOf("Processes", ["processes_running", "processes_blocked"]),
    linesOf("Interrupts, context switches and forks", ["interrupts", "context_switches", "forks"]),
    linesOf("Frequency", ["core_frequency_hertz"]),
    linesOf("CPU time of guests", cpu(["guest", "guest_nice"]))]],
  ["Pressure", ["cpu", "memory", "io"].map(kind =>
    linesOf({cpu: "Waiting for a CPU", memory: "Waiting for memory", io: "Waiting for input and output"}[kind],
      [`pressure_${kind}_some_seconds`, `pressure_${kind}_full_seconds`]))],
  ["Memory", [
    linesOf("Memory", ["anonymous", "slab", "buffers", "cached", "free"].map(part => `memory_${part}_bytes`), {isStack: true}),
    linesOf("Available and committed", ["available", "total", "committed"].map(part => `memory_${part}_bytes`)),
    linesOf("To be written", ["memory_dirty_bytes", "memory_writeback_bytes"]),
    calculatedOf("Swap in use", "bytes", ["swap_total_bytes", "swap_free_bytes"], ([total, free]) => total - free),
    linesOf("Swapped", ["swapped_in_pages", "swapped_out_pages"]),
    linesOf("Paged", ["paged_in_bytes", "paged_out_bytes"]),
    linesOf("Page faults", ["page_faults", "major_page_faults"]),
    linesOf("Reclaim", ["reclaimed_pages", "reclaim_scanned_pages"]),
    linesOf("Killed for want of memory", ["oom_kills"])]],
  ["Disks", [
    linesOf("Bytes", ["disk_read_bytes", "disk_written_bytes"]),
    linesOf("Requests", ["disk_reads", "disk_writes"]),
    linesOf("Busy", ["disk_busy_seconds"]),
    linesOf("Queue", ["disk_queue_seconds"], {scale: 1, unit: ""}),
    calculatedOf("Time of a request", "s", ["disk_read_seconds", "disk_write_seconds", "disk_reads", "disk_writes"],
      ([read, write, reads, writes]) => reads + writes > 0 ? (read + write) / (reads + writes) : 0)]],
  ["Network", [
    linesOf("Received", ["network_received_bytes"]), linesOf("Transmitted", ["network_transmitted_bytes"]),
    linesOf("Packets", ["network_received_packets", "network_transmitted_packets"]),
    linesOf("Errors and drops", ["received_errors", "transmitted_errors", "received_drops", "transmitted_drops"].map(part => "network_" + part)),
    linesOf("TCP segments", ["tcp_segments_received", "tcp_segments_sent"]),
    linesOf("TCP retransmitted, resets, listen overflows", ["segments_retransmitted", "resets_received", "resets_sent", "listen_overflows", "listen_drops"].map(part => "tcp_" + part)),
    linesOf("TCP opens", ["tcp_opens_active", "tcp_opens_passive"]), linesOf("TCP established", ["tcp_established"]),
    linesOf("UDP", ["udp_datagrams_received", "udp_datagrams_sent", "udp_errors"])]],
  ["File systems", [
    calculatedOf("Space in use", "%", ["filesystem_available_bytes", "filesystem_size_bytes"],
      ([available, size]) => size > 0 ? 100 - available / size * 100 : NaN, {top: 100}),
    calculatedOf("Inodes in use", "%", ["filesystem_inodes_free", "filesystem_inodes"],
      ([free, all]) => all > 0 ? 100 - free / all * 100 : 0, {top: 100})]],
  ["Sensors", [linesOf("Temperature", ["temperature_celsius"], {isFloating: true}), linesOf("Fans", ["fan_speed_rpm"]),
    linesOf("Power", ["power_watts"])]],
];

function nameText(name) {
  const text = name.replace(/_(bytes|seconds|celsius)$/, "").replace(/_/g, " ");
  return text.charAt(0).toUpperCase() + text.slice(1);
}

function allGroups() {
  const groups = known();
  const rest = isOfModule => [...named.keys()].filter(name => !used.has(name) && named.get(name)[0].isOfModule === isOfModule)
    .map(name => linesOf(nameText(name), [name]));
  return [...groups, ["Modules", rest(true)], ["More", rest(false)]].map(([title, list]) => [title, list.filter(each => each)]).filter(([, list]) => list.length > 0);
}

// ---- Drawing.

let colors = {};
function takeColors() {
  const style = getComputedStyle(document.documentElement);
  for (const name of ["fore", "faint", "line", "accent", "bad", "warn", "good", "quiet", "shade", "chosen", "card"]) {
    colors[name] = style.getPropertyValue("--" + name).trim();
  }
  colors.lines = Array.from({length: 10}, (_, i) => style.getPropertyValue("--c" + i).trim());
}
const colorOf = line => colors.lines[line.number % colors.lines.length];

function begin(canvas) {
  const ratio = devicePixelRatio || 1, box = canvas.getBoundingClientRect();
  canvas.width = Math.round(box.width * ratio);
  canvas.height = Math.round(box.height * ratio);
  const pen = canvas.getContext("2d");
  pen.scale(ratio, ratio);
  pen.font = "11px system-ui, sans-serif";
  return [pen, box.width, box.height];
}

const TIME_STEPS = [100, 200, 500, 1e3, 2e3, 5e3, 1e4, 15e3, 3e4, 6e4, 12e4, 3e5, 6e5, 9e5, 18e5, 36e5, 72e5, 108e5, 216e5, 432e5,
  864e5, 1728e5, 6048e5, 12096e5, 2592e6, 7776e6];

function drawTimes(pen, left, width, top, height) {
  const [from, to] = view;
  const step = TIME_STEPS.find(each => each / (to - from) * width >= 78) ?? 31536e6;
  pen.textAlign = "center";
  for (let time = Math.ceil((from + data.zone) / step) * step - data.zone; time <= to; time += step) {
    const x = left + (time - from) / (to - from) * width;
    pen.fillStyle = colors.line;
    pen.fillRect(Math.round(x), top, 1, height);
    pen.fillStyle = colors.faint;
    if (x < left + 18 || x > left + width - 18) continue;
    const isDay = (time + data.zone) % 864e5 === 0;
    pen.fillText(isDay ? day(time).slice(5) : clock(time, step), x, top + height + 13);
  }
}

function valueStep(span, unit) {
  if (unit.startsWith("bytes")) return 2 ** Math.ceil(Math.log2(span / 4));
  const power = 10 ** Math.floor(Math.log10(span / 4));
  return [1, 2, 5, 10].find(each => each * power >= span / 4) * power;
}

function drawScale(pen, chart, width, height, low, high) {
  const step = valueStep(high - low, chart.unit);
  pen.textAlign = "right";
  for (let k = Math.ceil(low / step); k * step <= high * 1.0001; ++k) {
    const y = height - (k * step - low) / (high - low) * (height - 6);
    pen.fillStyle = colors.line;
    pen.fillRect(LEFT, Math.round(y), width, 1);
    pen.fillStyle = colors.faint;
    pen.fillText(numberText(k * step, chart.unit), LEFT - 6, y + 4);
  }
}

function drawSpans(pen, left, width, height) {
  const [from, to] = view;
  const place = time => left + Math.min(Math.max((time - from) / (to - from), 0), 1) * width;
  for (const each of events) {
    if (each.time < from || each.begin > to) continue;
    if (each.begin < each.time) {
      pen.fillStyle = each.kind === "alarm" ? colors.warn : colors.shade;
      const isAlarm = each.kind === "alarm";
      pen.fillRect(place(each.begin), 0, Math.max(place(each.time) - place(each.begin), 1), isAlarm ? 3 : height);
    }
  }
  const lines = events.filter(each => each.isLine && each.begin >= from && each.begin <= to);
  for (const each of lines.slice(-300)) {
    pen.fillStyle = colors[each.color];
    pen.globalAlpha = 0.75;
    pen.fillRect(Math.round(place(each.begin)), 0, 1, height);
    pen.globalAlpha = 1;
  }
}

function drawPath(pen, pixels, width, place, isBand) {
  const upper = isBand ? pixels.high : pixels.mean;
  let x = 0;
  pen.beginPath();
  while (x < width) {
    while (x < width && Number.isNaN(upper[x])) ++x;
    const start = x;
    for (; x < width && !Number.isNaN(upper[x]); ++x) {
      if (x === start) pen.moveTo(LEFT + x, place(upper[x])); else pen.lineTo(LEFT + x, place(upper[x]));
    }
    if (isBand) for (let back = x - 1; back >= start; --back) pen.lineTo(LEFT + back, place(pixels.low[back]));
    else if (x === start + 1) pen.lineTo(LEFT + start + 1, place(upper[start]));
  }
  if (isBand) pen.fill(); else pen.stroke();
}

function drawLines(pen, chart, width, place) {
  for (const line of chart.lines) {
    if (!line.isOn) continue;
    pen.strokeStyle = pen.fillStyle = colorOf(line);
    pen.globalAlpha = 0.18;
    if (line.shown.high !== line.shown.mean) drawPath(pen, line.shown, width, place, true);
    pen.globalAlpha = 1;
    pen.lineWidth = 1.3;
    pen.lineJoin = "round";
    drawPath(pen, line.shown, width, place, false);
  }
}

function drawStack(pen, chart, width, place) {
  const base = new Float32Array(width);
  for (const line of chart.lines) {
    if (!line.isOn) continue;
    const top = line.shown.mean.map((value, x) => value + base[x]);
    pen.fillStyle = colorOf(line);
    pen.globalAlpha = 0.8;
    drawPath(pen, {low: base.slice(), high: top, mean: top}, width, place, true);
    pen.globalAlpha = 1;
    for (let x = 0; x < width; ++x) if (!Number.isNaN(top[x])) base[x] = top[x];
  }
}

function boundsOf(chart, width) {
  let low = chart.isFloating ? Infinity : 0, high = -Infinity;
  const sums = new Float32Array(width);
  for (const line of chart.lines) {
    if (!line.isOn) continue;
    for (let x = 0; x < width; ++x) {
      if (Number.isNaN(line.shown.mean[x])) continue;
      if (chart.isStack) high = Math.max(high, sums[x] += line.shown.mean[x]);
      else high = Math.max(high, line.shown.high[x]);
      low = Math.min(low, line.shown.low[x]);
    }
  }
  if (high === -Infinity) return [0, 1];
  if (chart.top) return [0, Math.max(chart.top, high)];
  const margin = (high - low) * 0.06 || Math.abs(high) * 0.1 || 1;
  return [chart.isFloating ? low - margin : low, high + margin];
}

// A row for each, its colour from nothing to all.
function drawHeat(pen, chart, width, height) {
  const rows = chart.lines.filter(line => line.isOn), image = pen.createImageData(width, rows.length);
  const [r, g, b] = [1, 3, 5].map(i => parseInt(colors.lines[1].slice(i, i + 2), 16));
  rows.forEach((line, y) => line.shown.mean.forEach((value, x) => {
    if (Number.isNaN(value)) return;
    image.data.set([r, g, b, 18 + Math.min(value / 100, 1) * 237], (y * width + x) * 4);
  }));
  const small = document.createElement("canvas");
  small.width = width;
  small.height = Math.max(rows.length, 1);
  small.getContext("2d").putImageData(image, 0, 0);
  pen.imageSmoothingEnabled = false;
  pen.drawImage(small, LEFT, 0, width, height);
  pen.fillStyle = colors.faint;
  pen.textAlign = "right";
  const every = Math.ceil(14 / (height / Math.max(rows.length, 1)));
  rows.forEach((line, y) => {
    if (y % every === 0) pen.fillText("cpu " + line.label, LEFT - 6, Math.max((y + 0.5) * height / rows.length + 4, 10));
  });
}

function drawChart(chart) {
  if (chart.isHeat) chart.canvas.style.height = Math.min(Math.max(chart.lines.length * 12, 60), 320) + BOTTOM + "px";
  const [pen, all, tall] = begin(chart.canvas);
  const width = Math.floor(all - LEFT - RIGHT), height = tall - BOTTOM;
  if (width < 10) return;
  const key = view.join() + width;
  if (chart.key !== key) for (const line of chart.lines) line.shown = null;
  chart.key = key;
  for (const line of chart.lines) if (line.isOn && !line.shown) line.shown = line.pixels(width);
  drawTimes(pen, LEFT, width, 0, height);
  if (chart.isHeat) {
    drawHeat(pen, chart, width, height);
    drawSpans(pen, LEFT, width, height);
  } else {
    const [low, high] = boundsOf(chart, width);
    const place = value => height - (value - low) / (high - low) * (height - 6);
    drawScale(pen, chart, width, height, low, high);
    if (chart.isStack) drawStack(pen, chart, width, place); else drawLines(pen, chart, width, place);
    drawSpans(pen, LEFT, width, height);
  }
  drawCursor(pen, chart.canvas, LEFT, width, height);
  showValues(chart, width);
  chart.isDrawn = true;
}

function drawCursor(pen, canvas, left, width, height) {
  const place = time => left + (time - view[0]) / (view[1] - view[0]) * width;
  if (drag && drag.canvas === canvas && canvas !== at("overview")) {
    pen.fillStyle = colors.chosen;
    pen.fillRect(place(drag.from), 0, place(drag.to) - place(drag.from), height);
  }
  if (cursor === null || cursor < view[0] || cursor > view[1]) return;
  pen.fillStyle = colors.fore;
  pen.fillRect(Math.round(place(cursor)), 0, 1, height);
}

function showValues(chart, width) {
  const hasCursor = cursor !== null && cursor >= view[0] && cursor <= view[1];
  const x = hasCursor ? Math.min(Math.floor((cursor - view[0]) / (view[1] - view[0]) * width), width - 1) : -1;
  for (const line of chart.lines) {
    if (!line.value) continue;
    if (!line.isOn || x < 0) { line.value.textContent = ""; continue; }
    const {low, mean, high} = line.shown;
    line.value.textContent = numberText(mean[x], chart.unit);
    line.value.title = low[x] < high[x] ? numberText(low[x], chart.unit) + " to " + numberText(high[x], chart.unit) : "";
  }
}

const whole = () => data.to - data.from;
const overviewPlace = (time, width) => (time - data.from) / whole() * width;

function drawOverview() {
  const [pen, width, height] = begin(at("overview"));
  const saved = view, columns = Math.floor(width);
  view = [data.from, data.to];
  drawTimes(pen, 0, width, 0, height - BOTTOM);
  const cpuChart = charts.find(each => each.isStack && each.top) ?? charts[0];
  if (cpuChart) {
    if (cpuChart.overviewWidth !== columns) {
      cpuChart.overviewWidth = columns;
      cpuChart.overviewSum = new Float32Array(columns);
      for (const line of cpuChart.lines) line.pixels(columns).mean.forEach((value, x) => { cpuChart.overviewSum[x] += value || 0; });
    }
    const top = Math.max(cpuChart.top ?? 0, ...cpuChart.overviewSum, 1e-9);
    pen.fillStyle = colors.quiet;
    pen.globalAlpha = 0.5;
    cpuChart.overviewSum.forEach((value, x) => pen.fillRect(x, (height - BOTTOM) * (1 - value / top), 1, (height - BOTTOM) * value / top));
    pen.globalAlpha = 1;
  }
  drawSpans(pen, 0, width, height - BOTTOM);
  view = saved;
  const [from, to] = drag && drag.canvas === at("overview") ? [drag.from, drag.to] : view;
  const left = overviewPlace(Math.min(from, to), width), right = overviewPlace(Math.max(from, to), width);
  pen.fillStyle = colors.chosen;
  pen.fillRect(left, 0, right - left, height);
  pen.strokeStyle = colors.accent;
  pen.strokeRect(left + 0.5, 0.5, Math.max(right - left - 1, 1), height - 1);
  if (cursor !== null) {
    pen.fillStyle = colors.fore;
    pen.fillRect(overviewPlace(cursor, width), 0, 1, height);
  }
}

let isWaiting = false;
function redraw() {
  if (isWaiting) return;
  isWaiting = true;
  requestAnimationFrame(() => { isWaiting = false; draw(); });
}

// Only the charts in sight: a page has hundreds.
function draw() {
  drawOverview();
  const margin = 100;
  for (const chart of charts) {
    if (chart.box.hidden) continue;
    const box = chart.box.getBoundingClientRect();
    if (box.bottom > -margin && box.top < innerHeight + margin && box.width > 0) drawChart(chart);
  }
  const length = view[1] - view[0];
  const step = data.parts.slice(1).some(part => part.from <= view[0] && part.from + part.count * part.step >= view[1]) ? data.parts[1].step : data.parts[0].step;
  at("range").textContent = cursor === null ? when(view[0]) + " to " + (day(view[0]) === day(view[1]) ? clock(view[1], 1000) : when(view[1])) +
    " (" + spanText(length) + ", steps of " + spanText(step) + ")" : when(cursor);
}

// ---- Events: marks of the history and records of the trace.

const KINDS = {start: "good", stop: "idle", gap: "warn", suspend: "idle", "clock-step": "warn", reboot: "bad", alarm: "warn",
  "alarm-end": "good", error: "bad", crash: "bad", begin: "good", exit: "idle"};
let events = [];

function loadEvents() {
  const open = new Map();
  for (const [time, kind, value, text] of data.events) {
    const event = {time, begin: time, kind, text, color: {good: "good", idle: "quiet", warn: "warn", bad: "bad"}[KINDS[kind]] ?? "quiet"};
    event.isLine = kind !== "alarm-end" && kind !== "gap" && kind !== "suspend";
    if (kind === "gap") event.begin = time - value * data.period;
    if (kind === "suspend") event.begin = time - value / 1e6;
    // An alarm lasts until its end, which names the same place first.
    const key = text.split(":")[0];
    if (kind === "alarm") { open.set(key, event); event.time = data.to; }
    if (kind === "alarm-end" && open.has(key)) { open.get(key).time = time; open.delete(key); }
    events.push(event);
  }
}

function detail(event) {
  const about = {gap: "no samples for " + spanText(event.time - event.begin), suspend: "asleep for " + spanText(event.time - event.begin)};
  return visible([about[event.kind], event.text].filter(part => part).join(" "));
}

function showEvents() {
  const shown = events.filter(each => each.time >= view[0] && each.begin <= view[1]);
  const rows = shown.slice(-MOST_EVENTS).map(event => {
    const row = make("button", "", "event");
    row.type = "button";
    row.append(make("span", iso(event.begin).slice(0, 23).replace("T", " ")), make("span", event.kind.replace("-", " "), KINDS[event.kind] ?? ""), make("span", detail(event)));
    row.addEventListener("click", () => show(event.begin - 2 * MINUTE, event.begin + MINUTE));
    return row;
  });
  at("events").replaceChildren(...rows);
  at("count").textContent = shown.length + " of " + events.length + (shown.length > MOST_EVENTS ? ", the newest " + MOST_EVENTS + " are listed" : "");
}

// ---- What the user does.

let settled = 0;
function show(from, to) {
  const shortest = Math.max(data.period * 5, 1000);
  let length = Math.min(Math.max(to - from, shortest), whole());
  from = Math.min(Math.max((from + to - length) / 2, data.from), data.to - length);
  view = [from, from + length];
  redraw();
  clearTimeout(settled);
  settled = setTimeout(() => {
    showEvents();
    const hash = length === whole() ? "#" : "#from=" + Math.round(view[0]) + "&to=" + Math.round(view[1]);
    try { history.replaceState(null, "", hash); } catch { /* of a page without an address */ }
  }, 80);
}

function timeAt(canvas, event) {
  const box = canvas.getBoundingClientRect(), isOverview = canvas === at("overview");
  const left = isOverview ? 0 : LEFT, width = box.width - (isOverview ? 0 : LEFT + RIGHT);
  const part = Math.min(Math.max((event.clientX - box.left - left) / width, 0), 1);
  return isOverview ? data.from + part * whole() : view[0] + part * (view[1] - view[0]);
}

function zoom(time, factor) {
  show(time - (time - view[0]) * factor, time + (view[1] - time) * factor);
}

function listen(canvas) {
  canvas.addEventListener("pointerdown", event => {
    if (event.button !== 0) return;
    const time = timeAt(canvas, event);
    drag = {from: time, to: time, canvas};
    try { canvas.setPointerCapture(event.pointerId); } catch { /* a pointer that has gone */ }
  });
  canvas.addEventListener("pointermove", event => {
    cursor = timeAt(canvas, event);
    if (drag) drag.to = cursor;
    redraw();
  });
  canvas.addEventListener("pointerup", event => {
    if (!drag) return;
    const times = [drag.from, timeAt(canvas, event)].sort((a, b) => a - b), width = canvas.getBoundingClientRect().width;
    const length = canvas === at("overview") ? whole() : view[1] - view[0];
    drag = null;
    if ((times[1] - times[0]) / length * width > 4) show(...times);
    else if (canvas === at("overview")) show(times[0] - (view[1] - view[0]) / 2, times[0] + (view[1] - view[0]) / 2);
    redraw();
  });
  canvas.addEventListener("pointercancel", () => { drag = null; redraw(); });
  canvas.addEventListener("pointerleave", () => { if (!drag) cursor = null; redraw(); });
  canvas.addEventListener("dblclick", () => show(data.from, data.to));
  canvas.addEventListener("wheel", event => {
    if (canvas !== at("overview") && !event.ctrlKey && !event.deltaX) return;
    event.preventDefault();
    const length = view[1] - view[0];
    if (Math.abs(event.deltaX) > Math.abs(event.deltaY)) show(view[0] + event.deltaX / 1000 * length, view[1] + event.deltaX / 1000 * length);
    else if (event.deltaY) zoom(Math.min(Math.max(timeAt(canvas, event), view[0]), view[1]), event.deltaY > 0 ? 1.25 : 0.8);
  }, {passive: false});
}

function onKey(event) {
  if (event.target.tagName === "INPUT" || event.altKey || event.metaKey || event.ctrlKey) return;
  const length = view[1] - view[0], middle = cursor ?? (view[0] + view[1]) / 2;
  const actions = {ArrowLeft: () => show(view[0] - length / 10, view[1] - length / 10), ArrowRight: () => show(view[0] + length / 10, view[1] + length / 10),
    "+": () => zoom(middle, 0.67), "-": () => zoom(middle, 1.5), Escape: () => show(data.from, data.to)};
  if (!(event.key in actions)) return;
  event.preventDefault();
  actions[event.key]();
}

function switchLine(chart, line, isAlone) {
  if (isAlone) {
    const wasAlone = line.isOn && chart.lines.every(each => each.isOn === (each === line));
    for (const each of chart.lines) each.isOn = wasAlone || each === line;
  } else {
    line.isOn = !line.isOn;
  }
  for (const each of chart.lines) markLine(each);
  redraw();
}

function markLine(line) {
  if (!line.button) return;
  line.button.className = line.isOn ? "" : "off";
  line.button.setAttribute("aria-pressed", line.isOn);
}

function addLegend(chart) {
  const legend = make("div", "", "legend");
  if (chart.isHeat) chart.lines.forEach(line => { line.isOn = true; });
  for (const line of chart.isHeat ? [] : chart.lines.slice(0, MOST_LINES)) {
    line.button = make("button");
    line.button.type = "button";
    line.button.title = line.help ?? "";
    const mark = make("i");
    line.value = make("b");
    line.mark = mark;
    line.button.append(mark, make("span", line.label), line.value);
    line.button.addEventListener("click", event => switchLine(chart, line, event.shiftKey));
    markLine(line);
    legend.append(line.button);
  }
  if (chart.lines.length > MOST_LINES && !chart.isHeat) legend.append(make("span", "and " + (chart.lines.length - MOST_LINES) + " more"));
  return legend;
}

function addChart(chart, place) {
  if (!chart.isStack) chart.lines.sort((a, b) => natural(a.label, b.label));
  const first = [...chart.lines].sort((a, b) => b.weight - a.weight).slice(0, SHOWN_AT_FIRST);
  chart.lines.forEach((line, i) => { line.number = i; line.isOn = chart.isStack || first.includes(line); });
  chart.box = make("article", "", "chart");
  const title = make("h3", chart.title);
  const unit = {"bytes": "", "bytes/s": "per second", "/s": "per second", "%": "percent"}[chart.unit] ?? chart.unit;
  title.append(make("small", unit ? " " + unit : ""));
  chart.canvas = make("canvas", "", chart.isHeat ? "heat" : "");
  chart.canvas.setAttribute("role", "img");
  chart.canvas.setAttribute("aria-label", chart.title + " over time");
  chart.box.append(title, chart.canvas, addLegend(chart));
  chart.text = (place.title + " " + chart.title + " " + chart.lines.map(line => line.label).join(" ")).toLowerCase();
  place.list.append(chart.box);
  listen(chart.canvas);
  charts.push(chart);
}

function addGroup([title, list]) {
  const section = make("section"), box = make("div", "", "charts"), quiet = make("p", "always zero: ", "quiet");
  section.append(make("h2", title), box, quiet);
  at("groups").append(section);
  const isQuiet = chart => chart.lines.every(line => line.isQuiet);
  for (const chart of list) {
    addChart(chart, {title, list: box});
    if (!isQuiet(chart)) continue;
    chart.isQuiet = chart.box.hidden = true;
    const button = make("button", chart.title);
    button.type = "button";
    button.addEventListener("click", () => { chart.isQuiet = chart.box.hidden = false; button.remove(); redraw(); });
    quiet.append(button);
  }
  quiet.hidden = !list.some(isQuiet);
}

function filter() {
  const words = at("filter").value.toLowerCase().split(/\s+/).filter(word => word);
  for (const chart of charts) {
    chart.box.hidden = words.length === 0 ? Boolean(chart.isQuiet) : !words.every(word => chart.text.includes(word));
  }
  for (const section of at("groups").children) {
    section.hidden = words.length > 0 && [...section.querySelectorAll(".chart")].every(box => box.hidden);
  }
  redraw();
}

function setTheme(theme) {
  document.documentElement.dataset.theme = theme;
  takeColors();
  for (const chart of charts) for (const line of chart.lines) if (line.mark) line.mark.style.background = colorOf(line);
  redraw();
}

function takeHash() {
  const query = new URLSearchParams(location.hash.slice(1));
  if (query.has("theme")) setTheme(query.get("theme") === "dark" ? "dark" : "light");
  const from = Number(query.get("from") ?? data.from), to = Number(query.get("to") ?? data.to);
  show(from || data.from, to || data.to);
}

function addSpans() {
  for (const [text, length] of [["5 min", 5], ["15 min", 15], ["1 h", 60], ["6 h", 360]]) {
    if (length * MINUTE >= whole()) continue;
    const button = make("button", text);
    button.type = "button";
    button.title = "the last " + text;
    button.addEventListener("click", () => show(data.to - length * MINUTE, data.to));
    at("spans").append(button);
  }
}

function start() {
  load();
  loadEvents();
  at("host").textContent = visible(data.host);
  at("facts").textContent = when(data.from) + " to " + when(data.to) + " " + data.zoneName + ", " + data.series.length + " series, a sample each " +
    spanText(data.period) + (data.parts[0].isFine ? "" : "; drawn in steps of " + spanText(data.parts[0].step) + " with minimum and maximum" +
    (data.parts.length > 1 ? ", and every sample before events and at the end" : ""));
  at("notes").textContent = data.notes.map(visible).join("\n");
  at("notes").hidden = data.notes.length === 0;
  document.title = "kemd performance " + visible(data.host);
  addSpans();
  allGroups().forEach(addGroup);
  setTheme(matchMedia("(prefers-color-scheme: dark)").matches ? "dark" : "light");
  listen(at("overview"));
  takeHash();
  showEvents();
  draw();
  at("reset").addEventListener("click", () => show(data.from, data.to));
  at("theme").addEventListener("click", () => setTheme(document.documentElement.dataset.theme === "dark" ? "light" : "dark"));
  at("filter").addEventListener("input", filter);
  addEventListener("keydown", onKey);
  addEventListener("scroll", redraw, {passive: true});
  addEventListener("resize", redraw);
  addEventListener("hashchange", takeHash);
  document.body.dataset.drawn = Math.round(performance.now());
}
start();
