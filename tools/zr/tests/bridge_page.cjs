// Opens the bridge's page in headless Chromium, driven through the DevTools protocol, as
// bridge_page_test.cpp runs it:
//   node bridge_page.cjs <npm dir> <page url> <screenshot.png> [MODULE...]
// It waits until the page lists the modules (SoundLevel and VoiceActivity, and any MODULE
// given) and has drawn levels, samples the level chart, waits for 2 s more of capture time and
// samples it again, saves a screenshot, and prints one JSON line of what it found. Any console
// error, uncaught exception, error status shown by the page or failed check makes the exit
// status 1. Chromium is killed, with every process it started, whatever happens.
"use strict";

const fs = require("fs");
const os = require("os");
const path = require("path");
const { spawn } = require("child_process");
const { createRequire } = require("module");

const [npmDir, pageUrl, screenshot, ...extraModules] = process.argv.slice(2);
if (!screenshot) {
  process.stderr.write("usage: node bridge_page.cjs NPM_DIR PAGE_URL SCREENSHOT.png [MODULE...]\n");
  process.exit(2);
}
const WebSocket = createRequire(path.join(path.resolve(npmDir), "package.json"))("ws");
const modulesWanted = ["SoundLevel", "VoiceActivity", ...extraModules];
// Bounds that turn a hang into a failure; no check depends on how fast anything is.
const LIMIT_MS = 60000;
const TONE_S = 2;

const findings = { url: pageUrl, screenshot, console: [], exceptions: [], failures: [] };
// Bounded: a page that fails on every message must still give a readable report.
const note = (list, item) => list.length < 40 && list.push(item);
const fail = (what) => findings.failures.includes(what) || note(findings.failures, what);
let chromium = null;
let capture = null; // saves the screenshot, once the page is open

const profile = fs.mkdtempSync(path.join(os.tmpdir(), "zr-bridge-page-"));

// Chromium runs in a process group of its own, so that its renderers and helpers die with it.
function killChromium() {
  if (chromium && chromium.exitCode === null && chromium.signalCode === null) {
    try {
      process.kill(-chromium.pid, "SIGKILL");
    } catch {}
  }
}
process.on("exit", () => {
  killChromium();
  try {
    fs.rmSync(profile, { recursive: true, force: true });
  } catch {} // a dying renderer may still be writing there: /tmp is cleaned anyway
});
for (const signal of ["SIGINT", "SIGTERM"]) process.on(signal, () => process.exit(1));

function launch() {
  chromium = spawn(
    "/usr/bin/chromium",
    ["--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
     "--no-default-browser-check", "--disable-background-networking", "--disable-extensions",
     "--hide-scrollbars", "--mute-audio", "--remote-debugging-port=0", `--user-data-dir=${profile}`,
     "--window-size=1280,900", "about:blank"],
    { detached: true, stdio: ["ignore", "ignore", "pipe"] },
  );
  return new Promise((resolve, reject) => {
    // Its standard error is read to the end (a full pipe would stall it); the tail is kept.
    let text = "";
    chromium.stderr.on("data", (chunk) => {
      text = (text + chunk).slice(-8192);
      const m = /DevTools listening on (ws:\/\/\S+)/.exec(text);
      if (m) resolve(m[1]);
    });
    chromium.on("error", reject);
    chromium.on("exit", (c) => reject(new Error(`chromium quit (${c}): ${text.slice(-400)}`)));
  });
}

// One DevTools connection: commands answered by id, events handed to `onEvent`.
function devtools(url, onEvent) {
  const socket = new WebSocket(url, { perMessageDeflate: false, maxPayload: 256 * 1024 * 1024 });
  const pending = new Map();
  let next = 1;
  socket.on("message", (data) => {
    const m = JSON.parse(data.toString());
    if (m.id === undefined) return onEvent(m);
    const p = pending.get(m.id);
    pending.delete(m.id);
    if (m.error) p.reject(new Error(`${p.method}: ${m.error.message}`));
    else p.resolve(m.result);
  });
  socket.on("close", () => {
    for (const p of pending.values()) p.reject(new Error("DevTools connection closed"));
  });
  const send = (method, params = {}, sessionId) =>
    new Promise((resolve, reject) => {
      const id = next++;
      pending.set(id, { resolve, reject, method });
      socket.send(JSON.stringify({ id, method, params, sessionId }));
    });
  return new Promise((resolve, reject) => {
    socket.on("open", () => resolve({ send, close: () => socket.close() }));
    socket.on("error", reject);
  });
}

const consoleText = (args) =>
  args.map((a) => (a.value !== undefined ? String(a.value) : a.description || a.type)).join(" ");

function onEvent(m) {
  const p = m.params || {};
  if (m.method === "Runtime.consoleAPICalled") {
    const text = consoleText(p.args || []);
    note(findings.console, { type: p.type, text });
    if (p.type === "error" || p.type === "assert") fail(`console ${p.type}: ${text}`);
  } else if (m.method === "Runtime.exceptionThrown") {
    const d = p.exceptionDetails || {};
    const text = (d.exception && d.exception.description) || d.text;
    note(findings.exceptions, text);
    fail(`uncaught exception: ${text}`);
  } else if (m.method === "Log.entryAdded") {
    const e = p.entry;
    note(findings.console, { type: e.level, text: e.text, url: e.url });
    if (e.level === "error") fail(`console error (${e.source}): ${e.text} ${e.url || ""}`);
  }
}

// Polls `probe` until it returns something truthy, for at most LIMIT_MS; gives up at once when
// something already failed.
async function until(what, probe) {
  const deadline = Date.now() + LIMIT_MS;
  for (;;) {
    const value = await probe();
    if (value) return value;
    if (findings.failures.length) throw new Error(`failed while waiting for ${what}`);
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

// What the page shows of itself, and what its level chart holds: the pixels of its data (lines
// and meters are coloured, the grid and labels grey) and a digest of every pixel.
const SAMPLE = `(() => {
  const page = window.zrPage;
  const canvas = document.getElementById("levels");
  if (!page || !canvas || !canvas.width) return JSON.stringify({ page });
  // Read from a copy, so that the page's own canvas stays as the page made it.
  const { width, height } = canvas;
  const copy = Object.assign(document.createElement("canvas"), { width, height });
  const context = copy.getContext("2d", { willReadFrequently: true });
  context.drawImage(canvas, 0, 0);
  const d = context.getImageData(0, 0, width, height).data;
  let coloured = 0, digest = 0;
  for (let i = 0; i < d.length; i += 4) {
    const [r, g, b, a] = [d[i], d[i + 1], d[i + 2], d[i + 3]];
    if (a > 128 && Math.max(r, g, b) - Math.min(r, g, b) > 60) coloured++;
    digest = (Math.imul(digest, 31) + d[i] + 3 * d[i + 1] + 7 * d[i + 2] + 11 * d[i + 3]) | 0;
  }
  return JSON.stringify({
    page,
    canvas: { width, height, coloured, digest },
    visible: !document.getElementById("levels-panel").hidden,
    listed: [...document.querySelectorAll("#modules > details > summary")].map((s) => s.innerText),
  });
})()`;

async function main() {
  const browserUrl = await launch();
  const browser = await devtools(browserUrl, (m) => m.sessionId && onEvent(m));
  const { targetId } = await browser.send("Target.createTarget", { url: "about:blank" });
  const { sessionId } = await browser.send("Target.attachToTarget", { targetId, flatten: true });
  const page = (method, params) => browser.send(method, params, sessionId);
  await page("Runtime.enable");
  await page("Log.enable");
  await page("Page.enable");
  const screen = { width: 1280, height: 900, deviceScaleFactor: 1, mobile: false };
  await page("Emulation.setDeviceMetricsOverride", screen);
  capture = async () => {
    const shot = await page("Page.captureScreenshot", { format: "png" });
    fs.writeFileSync(screenshot, Buffer.from(shot.data, "base64"));
  };
  const navigation = await page("Page.navigate", { url: pageUrl });
  if (navigation.errorText) throw new Error(`navigation failed: ${navigation.errorText}`);
  const sample = async () => {
    const r = await page("Runtime.evaluate", { expression: SAMPLE, returnByValue: true });
    const s = JSON.parse(r.result.value);
    findings.seen = s.page; // the page's latest state, for a report of what went wrong
    // The bridge found fault with what the page sent.
    for (const status of s.page ? s.page.statuses : [])
      if (status.level >= 2) fail(`error status shown: ${status.message}`);
    return s;
  };

  // The modules are listed, and levels have arrived and been drawn.
  const first = await until("the modules and a drawn level chart", async () => {
    const s = await sample();
    const listed = s.listed || [];
    return s.page && s.page.connected && modulesWanted.every((m) => listed.includes(m)) &&
      s.page.levels && s.visible && s.canvas.coloured > 0 ? s : null;
  });
  // Two seconds more of the tone, by the results' own capture times.
  const last = await until(`${TONE_S} s more of levels`, async () => {
    const s = await sample();
    return s.page.levels && s.page.levels.time >= first.page.levels.time + TONE_S ? s : null;
  });
  await capture();
  capture = null;

  // Levels turned off and on again by the user: unsubscribed (the chart goes), then subscribed
  // anew (new levels come).
  const toggle = `document.querySelector('#modules input[value="SoundLevel/Levels"]').click()`;
  await page("Runtime.evaluate", { expression: toggle });
  const off = await until("levels unsubscribed", async () => {
    const s = await sample();
    return !s.page.subscribed.includes("SoundLevel/Levels") && !s.visible ? s : null;
  });
  await page("Runtime.evaluate", { expression: toggle });
  const again = await until("levels again", async () => {
    const s = await sample();
    return s.visible && s.page.levels.time > off.page.levels.time ? s : null;
  });

  Object.assign(findings, {
    modules: last.page.modules, listed: last.listed, channels: last.page.channels,
    subscribed: last.page.subscribed, messages: [first.page.messages, last.page.messages],
    levels: last.page.levels, statuses: again.page.statuses,
    before: first.canvas, after: last.canvas,
  });
  if (!last.page.subscribed.includes("SoundLevel/Levels")) fail("levels not subscribed at once");
  if (last.page.messages <= first.page.messages) fail("no results arrived while the tone played");
  if (last.canvas.digest === first.canvas.digest) fail("the level chart did not change");
  // The strip chart grows with its history: more of it is drawn after two seconds than before.
  if (last.canvas.coloured <= first.canvas.coloured) fail("the level chart drew no more of it");
  // Capture times are seconds since the epoch, on this very machine's clock.
  const captured = last.page.levels.time;
  if (Math.abs(captured - Date.now() / 1000) > 300) fail(`capture time ${captured}`);
  const { rms, peak } = last.page.levels;
  if (!rms.length || rms.length !== peak.length) fail("no rms and peak per channel");
  // A steady tone: a level well above silence, its peak above its rms.
  rms.forEach((r, c) => {
    if (!(r > -60 && r <= 0) || !(peak[c] >= r)) fail(`channel ${c}: rms ${r}, peak ${peak[c]}`);
  });
  browser.close();
}

const watchdog = setTimeout(() => {
  fail("timed out");
  finish();
}, 3 * LIMIT_MS);

function finish() {
  clearTimeout(watchdog);
  // Synchronously: process.exit would cut short a pipe still being written.
  fs.writeSync(1, JSON.stringify(findings) + "\n");
  process.exit(findings.failures.length ? 1 : 0);
}

// A failed run keeps a screenshot too: what the page showed when it failed.
main()
  .catch(async (error) => {
    fail(String(error.message || error));
    if (capture) await capture().catch((e) => fail(`no screenshot: ${e.message}`));
  })
  .finally(finish);
