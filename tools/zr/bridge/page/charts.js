// The page's charts on plain canvases: levels, speech, directions of sound and strip charts of
// any numbers, all on one time axis of capture times. page.js keeps the data and calls these on
// every animation frame; nothing here holds state of its own.
"use strict";

const WINDOW_S = 30; // history on every time axis
const TRAIL_S = 3; // how long a sound source stays on the compass after its last sighting
const DB_FLOOR = -100; // bottom of the level scale; silence (-120 dBFS) sits on it
const COLORS = ["#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#17becf", "#8c564b"];
const color = (i) => COLORS[((i % COLORS.length) + COLORS.length) % COLORS.length];
const db = (v) => (typeof v === "number" ? Math.max(v, DB_FLOOR) : DB_FLOOR);

// Sizes a canvas to its box at the screen's pixel density: a cleared context in CSS pixels.
function fit(canvas) {
  const dpr = window.devicePixelRatio || 1;
  const w = canvas.clientWidth;
  const h = canvas.clientHeight;
  const width = Math.max(1, Math.round(w * dpr));
  const height = Math.max(1, Math.round(h * dpr));
  if (canvas.width !== width || canvas.height !== height) {
    canvas.width = width;
    canvas.height = height;
  }
  const ctx = canvas.getContext("2d");
  ctx.setTransform(dpr, 0, 0, dpr, 0, 0);
  ctx.clearRect(0, 0, w, h);
  ctx.font = "11px sans-serif";
  return { ctx, w, h };
}

// The plot area of a time chart, the same on every panel so that their times line up; the right
// margin shows each panel's present (meters, state, legend).
const area = (w, h) => ({ x0: 62, x1: Math.max(100, w - 170), y0: 8, y1: h - 18 });
const pad2 = (n) => String(n).padStart(2, "0");
function clockText(t) {
  const d = new Date(t * 1000);
  return `${pad2(d.getHours())}:${pad2(d.getMinutes())}:${pad2(d.getSeconds())}`;
}
function numberText(v) {
  if (typeof v !== "number" || !Number.isFinite(v)) return "–";
  const a = Math.abs(v);
  return a >= 10000 || (a < 0.01 && a !== 0) ? v.toPrecision(3) : String(+v.toFixed(2));
}

// Grid lines at whole multiples of 5 s of capture time, labelled with the time of day; returns
// where a time is on the chart.
function timeAxis(ctx, a, now) {
  const x = (t) => a.x1 - ((now - t) / WINDOW_S) * (a.x1 - a.x0);
  const step = a.x1 - a.x0 < 360 ? 10 : 5;
  ctx.strokeStyle = "#e6e6e6";
  ctx.fillStyle = "#777";
  ctx.textAlign = "center";
  ctx.beginPath();
  for (let s = Math.ceil((now - WINDOW_S) / step) * step; s <= now; s += step) {
    ctx.moveTo(Math.round(x(s)) + 0.5, a.y0);
    ctx.lineTo(Math.round(x(s)) + 0.5, a.y1);
    // Labels clear of the edges, where the value labels and the present's are.
    if (x(s) > a.x0 + 22 && x(s) < a.x1 - 22) ctx.fillText(clockText(s), x(s), a.y1 + 13);
  }
  ctx.stroke();
  return x;
}

// Horizontal grid lines at `ticks`, labelled on the left; returns where a value is.
function valueAxis(ctx, a, lo, hi, ticks) {
  const y = (v) => a.y1 - ((Math.min(Math.max(v, lo), hi) - lo) / (hi - lo)) * (a.y1 - a.y0);
  ctx.strokeStyle = "#e6e6e6";
  ctx.fillStyle = "#777";
  ctx.textAlign = "right";
  ctx.beginPath();
  for (const v of ticks) {
    ctx.moveTo(a.x0, Math.round(y(v)) + 0.5);
    ctx.lineTo(a.x1, Math.round(y(v)) + 0.5);
    ctx.fillText(numberText(v), a.x0 - 5, y(v) + 4);
  }
  ctx.stroke();
  return y;
}

// A series of [t, value] as a line inside the plot area; a value that is no number breaks it.
function line(ctx, a, points, x, y, stroke, width) {
  ctx.save();
  ctx.beginPath();
  ctx.rect(a.x0, a.y0 - 1, a.x1 - a.x0, a.y1 - a.y0 + 2);
  ctx.clip();
  ctx.strokeStyle = stroke;
  ctx.lineWidth = width;
  ctx.beginPath();
  let pen = false;
  for (const [t, v] of points) {
    if (!Number.isFinite(v)) pen = false;
    else if (pen) ctx.lineTo(x(t), y(v));
    else ctx.moveTo(x(t), y(v)), (pen = true);
  }
  ctx.stroke();
  // A result a second or more away from its neighbours gets a dot: a lone one makes no line.
  ctx.fillStyle = stroke;
  points.forEach(([t, v], i) => {
    const before = i === 0 || t - points[i - 1][0] >= 1;
    const after = i + 1 === points.length || points[i + 1][0] - t >= 1;
    if (!before || !after || !Number.isFinite(v)) return;
    ctx.beginPath();
    ctx.arc(x(t), y(v), 2.5, 0, 2 * Math.PI);
    ctx.fill();
  });
  ctx.restore();
}

// RMS (lines) and peak (faint lines) per channel over time, and meters of the latest levels,
// greyed when they stopped coming. `last` is {time, rms, peak} or null.
function drawLevels(canvas, now, rms, peak, last) {
  const { ctx, w, h } = fit(canvas);
  const a = area(w, h);
  const x = timeAxis(ctx, a, now);
  const y = valueAxis(ctx, a, DB_FLOOR, 0, [0, -20, -40, -60, -80, -100]);
  peak.forEach((points, c) => line(ctx, a, points, x, y, color(c) + "55", 1));
  rms.forEach((points, c) => line(ctx, a, points, x, y, color(c), 1.5));
  if (!last) return;
  const n = last.rms.length;
  const left = a.x1 + 14;
  const bar = Math.max(1, Math.min(18, (w - left - 6) / n - 3));
  ctx.globalAlpha = now - last.time > 2 ? 0.3 : 1;
  ctx.textAlign = "center";
  for (let c = 0; c < n; c++) {
    const bx = left + c * (bar + 3);
    const top = y(db(last.rms[c]));
    ctx.fillStyle = color(c);
    ctx.fillRect(bx, top, bar, a.y1 - top);
    ctx.fillStyle = "#222";
    ctx.fillRect(bx, y(db(last.peak[c])) - 1, bar, 2);
    if (bar >= 10) ctx.fillText(String(c + 1), bx + bar / 2, a.y1 + 13);
  }
  ctx.globalAlpha = 1;
}

// Speech as a band: above, as detected ([t, speech] changes, the last one lasting until now);
// below, the finished segments ([end, start]).
function drawSpeech(canvas, now, changes, segments) {
  const { ctx, w, h } = fit(canvas);
  const a = area(w, h);
  const x = timeAxis(ctx, a, now);
  const mid = (a.y0 + a.y1) / 2;
  const band = (t0, t1, top, bottom) => {
    const x0 = Math.max(a.x0, x(t0));
    const x1 = Math.min(a.x1, x(t1));
    if (x1 > x0) ctx.fillRect(x0, top, Math.max(1, x1 - x0), bottom - top);
  };
  ctx.fillStyle = "#5cb85c";
  changes.forEach(([t, on], i) => {
    if (on) band(t, i + 1 < changes.length ? changes[i + 1][0] : now, a.y0, mid - 1);
  });
  ctx.fillStyle = "#2e7d32";
  for (const [end, start] of segments) band(start, end, mid + 1, a.y1);
  ctx.fillStyle = "#777";
  ctx.textAlign = "right";
  ctx.fillText("live", a.x0 - 5, (a.y0 + mid) / 2 + 4);
  ctx.fillText("segments", a.x0 - 5, (mid + a.y1) / 2 + 4);
  const on = changes.length ? changes[changes.length - 1][1] : null;
  ctx.textAlign = "left";
  ctx.font = "bold 13px sans-serif";
  ctx.fillStyle = on ? "#2e7d32" : "#777";
  ctx.fillText(on === null ? "no speech yet" : on ? "speech" : "quiet", a.x1 + 14, mid + 5);
}

// Sources on a disc seen from above: azimuth counter-clockwise from +x (right), a source high
// above nearer the centre (radius cos(elevation)), louder ones bigger, each track with its trail
// of the last seconds. `tracks`: [id, [[t, azimuth, elevation, energy], ...]] pairs.
function drawCompass(canvas, now, tracks) {
  const { ctx, w, h } = fit(canvas);
  const r = Math.max(10, Math.min(h / 2 - 18, w / 2 - 40));
  const cx = r + 34;
  const cy = h / 2;
  const rad = Math.PI / 180;
  const at = (az, el) => {
    const d = r * Math.cos((el || 0) * rad);
    return [cx + d * Math.cos(az * rad), cy - d * Math.sin(az * rad)];
  };
  ctx.strokeStyle = "#ddd";
  ctx.beginPath();
  for (const el of [0, 30, 60]) {
    ctx.moveTo(...at(0, el));
    ctx.arc(cx, cy, r * Math.cos(el * rad), 0, 2 * Math.PI);
  }
  for (let az = 0; az < 360; az += 45) ctx.moveTo(cx, cy), ctx.lineTo(...at(az, 0));
  ctx.stroke();
  ctx.fillStyle = "#777";
  ctx.textAlign = "center";
  for (const az of [0, 90, 180, 270]) {
    const [lx, ly] = [cx + (r + 16) * Math.cos(az * rad), cy - (r + 10) * Math.sin(az * rad)];
    ctx.fillText(`${az}°`, lx, ly + 4);
  }
  let row = 0;
  for (const [id, track] of tracks) {
    const recent = track.filter((p) => p[0] >= now - TRAIL_S);
    if (!recent.length) continue;
    const [t, az, el, energy] = recent[recent.length - 1];
    ctx.globalAlpha = Math.max(0.15, 1 - (now - t) / TRAIL_S);
    ctx.strokeStyle = ctx.fillStyle = color(id);
    ctx.beginPath();
    recent.forEach((p, i) => (i ? ctx.lineTo(...at(p[1], p[2])) : ctx.moveTo(...at(p[1], p[2]))));
    ctx.stroke();
    const [px, py] = at(az, el);
    const size = 4 + 8 * Math.min(1, Math.max(0, ((energy ?? -60) + 60) / 60));
    ctx.beginPath();
    ctx.arc(px, py, size, 0, 2 * Math.PI);
    ctx.fill();
    ctx.textAlign = "left";
    ctx.fillText(String(id), px + size + 2, py - size);
    const deg = (v) => (typeof v === "number" ? `${Math.round(v)}°` : "–");
    const text = `#${id}  ${deg(az)}  el ${deg(el)}  ${numberText(energy)} dB`;
    if (cy - r + 14 * row < h - 4) ctx.fillText(text, cx + r + 40, cy - r + 14 * row++);
  }
  ctx.globalAlpha = 1;
}

// Each series of an event ([name, [[t, value], ...]] pairs), scaled together to what is visible,
// with a legend of the latest values.
function drawStrip(canvas, now, series) {
  const { ctx, w, h } = fit(canvas);
  const a = area(w, h);
  const x = timeAxis(ctx, a, now);
  let lo = Infinity;
  let hi = -Infinity;
  for (const [, points] of series)
    for (const [t, v] of points)
      if (t >= now - WINDOW_S && Number.isFinite(v)) (lo = Math.min(lo, v)), (hi = Math.max(hi, v));
  const margin = lo < hi ? (hi - lo) * 0.05 : lo === hi ? 1 : NaN;
  [lo, hi] = Number.isNaN(margin) ? [0, 1] : [lo - margin, hi + margin];
  const y = valueAxis(ctx, a, lo, hi, [lo, (lo + hi) / 2, hi]);
  ctx.textAlign = "left";
  let i = 0;
  for (const [name, points] of series) {
    line(ctx, a, points, x, y, color(i), 1.5);
    const top = a.y0 + 10 + 13 * i;
    ctx.fillStyle = color(i++);
    const last = points.length ? points[points.length - 1][1] : NaN;
    if (top < h - 4) ctx.fillText(`${name} ${numberText(last)}`, a.x1 + 14, top);
  }
}
