// The bridge's own page: lists the modules of the running system and their events, subscribes to
// events over the same WebSocket protocol the viewers speak, and draws them live on canvases.
// Everything arrives from the bridge that served the page; nothing else is fetched.
"use strict";

// charts.js, loaded first, gives the drawing functions, WINDOW_S, TRAIL_S and db().
const SUBPROTOCOL = "foxglove.websocket.v1";
const MAX_POINTS = 4000; // per series: 10 ms events over the window, with room to spare
const MAX_SERIES = 16; // per event: an event with more numbers draws its first ones
// Drawn by panels of their own, and subscribed at once so that the page shows something live.
const LEVELS = "SoundLevel/Levels";
const SPEECH = "VoiceActivity/SpeechDetected";
const SEGMENT = "VoiceActivity/Segment";
const SOURCES = "SoundLocalization/Sources";
const SPECIAL = new Set([LEVELS, SPEECH, SEGMENT, SOURCES]);
// Fields that place a result in its stream rather than measure anything.
const CLOCK_FIELDS = new Set(["time", "sample", "start", "end"]);

const token = new URLSearchParams(location.search).get("token");
const $ = (id) => document.getElementById(id);
function el(tag, properties = {}, ...children) {
  const node = Object.assign(document.createElement(tag), properties);
  node.append(...children);
  return node;
}
const decoder = new TextDecoder("utf-8", { fatal: true });

// What the bridge told us, valid for one connection.
const channels = new Map(); // channel id -> advertised channel
const services = new Map(); // service id -> advertised service
const subscriptions = new Map(); // subscription id -> topic
const subscriptionOf = new Map(); // channel id -> subscription id
// What the user chose, by topic, so that it survives reconnections and channels that come back.
const wanted = new Map();
const counts = new Map(); // topic -> results received
const countSpans = new Map(); // topic -> where its count shows
const closed = new Set(); // modules whose events the user folded away
const unfolded = new Set(); // modules whose methods the user unfolded
let nextSubscription = 1;
let ws = null;
let session = null;
let retryMs = 500;
let retryAt = 0;

// What tests may read: a copy of the page's own state, never a handle on it.
const view = {
  connected: false,
  modules: [],
  channels: [],
  subscribed: [],
  levels: null, // the latest SoundLevel/Levels: {time, rms, peak}
  messages: 0, // results received
  statuses: [], // the latest shown, the bridge's and the page's own: {level, message}
};
Object.defineProperty(window, "zrPage", { get: () => JSON.parse(JSON.stringify(view)) });

// ---- the time axis ----

// "Now" on the results' own clock (capture times, seconds since the epoch): the local clock
// shifted so that the freshest result lands at the right edge. The shift follows a sender's
// clock that runs fast at once, and one that runs slow through a slow decay.
const clock = {
  offset: null,
  since: 0,
  shift(local) {
    return this.offset - 0.002 * (local - this.since);
  },
  seen(t) {
    const local = performance.now() / 1000;
    if (this.offset === null || t - local > this.shift(local)) {
      this.offset = t - local;
      this.since = local;
    }
  },
  now() {
    const local = performance.now() / 1000;
    return this.offset === null ? null : local + this.shift(local);
  },
};

// ---- the connection ----

function connect() {
  clearTimeout(retryAt);
  const scheme = location.protocol === "https:" ? "wss" : "ws";
  const query = token ? "?token=" + encodeURIComponent(token) : "";
  const socket = new WebSocket(`${scheme}://${location.host}/${query}`, SUBPROTOCOL);
  socket.binaryType = "arraybuffer";
  ws = socket;
  showState("connecting", "connecting");
  socket.onopen = () => {
    retryMs = 500;
    view.connected = true;
    showState("connected", "connected");
  };
  socket.onmessage = (event) => {
    try {
      if (typeof event.data === "string") onText(JSON.parse(event.data));
      else onBinary(event.data);
    } catch (error) {
      // A bridge that sends what the page cannot read is a fault worth seeing in the console.
      console.error("zr page: unreadable message from the bridge:", error);
      addStatus(2, `unreadable message from the bridge: ${error.message}`);
    }
  };
  socket.onclose = (event) => {
    if (ws !== socket) return;
    ws = null;
    view.connected = false;
    forgetConnection();
    const why = event.code === 1000 || event.code === 1005 ? "" : ` (${event.code})`;
    const wait = retryMs;
    retryMs = Math.min(retryMs * 2, 5000);
    showState("disconnected", `disconnected${why}; reconnecting in ${(wait / 1000).toFixed(1)} s`);
    retryAt = setTimeout(connect, wait);
  };
}

function forgetConnection() {
  channels.clear();
  services.clear();
  subscriptions.clear();
  subscriptionOf.clear();
  renderModules();
}

function send(message) {
  if (ws && ws.readyState === WebSocket.OPEN) ws.send(JSON.stringify(message));
}

function showState(kind, text) {
  const state = $("state");
  state.className = "state " + kind;
  state.textContent = text;
  $("reconnect").hidden = kind !== "disconnected";
}

function addStatus(level, message) {
  view.statuses.push({ level, message });
  if (view.statuses.length > 20) view.statuses.shift();
  const text = `${new Date().toLocaleTimeString()} ${message}`;
  const log = $("log");
  const className = ["info", "warning", "error"][level] ?? "error";
  log.prepend(el("li", { className, textContent: text }));
  while (log.children.length > 50) log.lastChild.remove();
}

// ---- the protocol ----

function onText(message) {
  switch (message.op) {
    case "serverInfo":
      // Another session is another system, maybe another clock: start the charts afresh.
      if (session !== null && message.sessionId !== session) clearData();
      session = message.sessionId ?? null;
      $("server").textContent = message.name || "";
      break;
    case "status":
      addStatus(message.level, message.message);
      break;
    case "advertise":
      for (const channel of message.channels) {
        // A topic advertised again under another id replaces its former self; under the same id
        // it is the same channel with a new schema, its subscription kept.
        for (const [id, old] of channels)
          if (old.topic === channel.topic && id !== channel.id) dropChannel(id);
        if (channel.encoding === "json") channels.set(channel.id, channel);
      }
      updateSubscriptions();
      break;
    case "unadvertise":
      // The bridge forgets subscriptions to channels it removed: so does the page, silently.
      for (const id of message.channelIds) dropChannel(id);
      updateSubscriptions();
      break;
    case "advertiseServices":
      for (const service of message.services) services.set(service.id, service);
      renderModules();
      break;
    case "unadvertiseServices":
      for (const id of message.serviceIds) services.delete(id);
      renderModules();
      break;
    case "serviceCallFailure":
      addStatus(2, `call failed: ${message.message}`);
      break;
    default: // parameters, time, graphs: nothing the page draws
  }
}

function dropChannel(id) {
  const subscription = subscriptionOf.get(id);
  if (subscription !== undefined) subscriptions.delete(subscription);
  subscriptionOf.delete(id);
  channels.delete(id);
}

// Message data: opcode 1, uint32 LE subscription id, uint64 LE timestamp in ns, UTF-8 JSON.
function onBinary(buffer) {
  const data = new DataView(buffer);
  if (data.byteLength < 13 || data.getUint8(0) !== 1) return; // service replies: not ours
  const topic = subscriptions.get(data.getUint32(1, true));
  if (topic === undefined) return; // still in flight when we unsubscribed
  const ns = data.getUint32(5, true) + data.getUint32(9, true) * 4294967296;
  const payload = JSON.parse(decoder.decode(new Uint8Array(buffer, 13)));
  const t = ns / 1e9;
  clock.seen(t);
  view.messages++;
  counts.set(topic, (counts.get(topic) || 0) + 1);
  ingest(topic, t, payload);
}

function updateSubscriptions() {
  const add = [];
  const remove = [];
  for (const [id, channel] of channels) {
    const want = wanted.get(channel.topic) ?? SPECIAL.has(channel.topic);
    const subscription = subscriptionOf.get(id);
    if (want && subscription === undefined) {
      const sid = nextSubscription++;
      subscriptions.set(sid, channel.topic);
      subscriptionOf.set(id, sid);
      add.push({ id: sid, channelId: id });
    } else if (!want && subscription !== undefined) {
      subscriptions.delete(subscription);
      subscriptionOf.delete(id);
      remove.push(subscription);
    }
  }
  if (add.length) send({ op: "subscribe", subscriptions: add });
  if (remove.length) send({ op: "unsubscribe", subscriptionIds: remove });
  renderModules();
}

// ---- the modules and their events ----

function renderModules() {
  const modules = new Map();
  const entry = (name) => {
    const slash = name.indexOf("/");
    const module = slash < 0 ? name : name.slice(0, slash);
    if (!modules.has(module)) modules.set(module, { events: [], methods: [] });
    return [modules.get(module), name.slice(slash + 1)];
  };
  for (const channel of channels.values()) entry(channel.topic)[0].events.push(channel);
  for (const service of services.values()) {
    const [module, method] = entry(service.name);
    module.methods.push({ method, doc: service.request?.schema ?? "" });
  }
  const subscribed = new Set(subscriptions.values());
  view.modules = [...modules.keys()].sort();
  view.channels = [...channels.values()].map((c) => c.topic).sort();
  view.subscribed = [...subscribed].sort();

  const nav = $("modules");
  nav.replaceChildren();
  countSpans.clear();
  const empty = ws ? "No modules yet." : "Waiting for the bridge…";
  if (!modules.size) nav.append(el("p", { className: "empty", textContent: empty }));
  for (const name of view.modules) {
    const { events, methods } = modules.get(name);
    const box = el("details", { open: !closed.has(name) }, el("summary", { textContent: name }));
    box.addEventListener("toggle", () => (box.open ? closed.delete(name) : closed.add(name)));
    const list = el("ul");
    for (const channel of events.sort((a, b) => a.topic.localeCompare(b.topic))) {
      const check = el("input", { type: "checkbox", value: channel.topic });
      check.checked = subscribed.has(channel.topic);
      check.addEventListener("change", () => {
        wanted.set(channel.topic, check.checked);
        updateSubscriptions();
      });
      const count = el("span", { className: "count" });
      countSpans.set(channel.topic, count);
      const event = channel.topic.slice(name.length + 1);
      const label = el("label", { title: channel.schemaName }, check, ` ${event} `, count);
      list.append(el("li", {}, label));
    }
    // Its remote methods, folded: every extractor has a couple of dozen from its base class.
    const calls = el("details", { className: "methods", open: unfolded.has(name) });
    calls.append(el("summary", { textContent: `${methods.length} methods` }));
    calls.addEventListener("toggle", () =>
      calls.open ? unfolded.add(name) : unfolded.delete(name),
    );
    for (const { method, doc } of methods.sort((a, b) => a.method.localeCompare(b.method)))
      calls.append(el("span", { textContent: method, title: describe(doc) }), " ");
    box.append(list);
    if (methods.length) box.append(calls);
    nav.append(box);
  }
  updateFigures();
  showPanels(subscribed);
}

// A method's documentation is its request schema's description.
function describe(schema) {
  try {
    return JSON.parse(schema).description || "";
  } catch {
    return "";
  }
}

function showPanels(subscribed) {
  $("levels-panel").hidden = !subscribed.has(LEVELS);
  $("speech-panel").hidden = !subscribed.has(SPEECH) && !subscribed.has(SEGMENT);
  $("compass-panel").hidden = !subscribed.has(SOURCES);
  for (const [topic, strip] of strips) {
    if (subscribed.has(topic)) continue;
    strip.panel.remove();
    strips.delete(topic);
  }
  for (const topic of subscribed) if (!SPECIAL.has(topic) && !strips.has(topic)) addStrip(topic);
  $("nothing").hidden = subscribed.size > 0 || !channels.size;
}

// ---- what arrived, kept for the window ----

const levels = { rms: [], peak: [] }; // per channel: [[t, dB], ...]
const speech = { changes: [], segments: [] }; // [t, speech] changes; [end, start] segments
const offsets = new Map(); // module -> capture time minus stream time
const sources = new Map(); // track id -> [[t, azimuth, elevation, energy], ...]
const strips = new Map(); // topic -> {panel, canvas, note, series: Map name -> points, last}

function keep(points, item, now) {
  points.push(item);
  // One point older than the window stays, so that lines and states start at its left edge.
  let drop = Math.max(0, points.length - MAX_POINTS);
  while (drop < points.length - 1 && points[drop + 1][0] < now - WINDOW_S) drop++;
  if (drop > 0) points.splice(0, drop);
}

function clearData() {
  levels.rms.length = levels.peak.length = 0;
  speech.changes.length = speech.segments.length = 0;
  offsets.clear();
  sources.clear();
  for (const strip of strips.values()) strip.series.clear();
  clock.offset = null;
  view.levels = null;
}

const isNumbers = (v) => Array.isArray(v) && v.every((x) => typeof x === "number" || x === null);

function ingest(topic, t, result) {
  // Results are objects; anything else is drawn as a value rather than lost.
  const payload = result !== null && typeof result === "object" ? result : { value: result };
  const module = topic.slice(0, topic.indexOf("/"));
  // A result's stream time against its capture time: how later events in stream time
  // (segments) find their place on the axis.
  if (typeof payload.time === "number") offsets.set(module, t - payload.time);
  if (topic === LEVELS && isNumbers(payload.rms) && isNumbers(payload.peak)) {
    view.levels = { time: t, rms: payload.rms, peak: payload.peak };
    // One series per channel, as many as the latest result has.
    for (const [series, values] of [[levels.rms, payload.rms], [levels.peak, payload.peak]]) {
      values.forEach((v, c) => keep(series[c] || (series[c] = []), [t, db(v)], t));
      series.length = values.length;
    }
  } else if (topic === SPEECH && typeof payload.speech === "boolean") {
    keep(speech.changes, [t, payload.speech], t);
  } else if (topic === SEGMENT && typeof payload.start === "number") {
    const offset = offsets.get(module) ?? t - payload.end;
    keep(speech.segments, [payload.end + offset, payload.start + offset], t);
  } else if (topic === SOURCES && Array.isArray(payload.sources)) {
    for (const s of payload.sources) {
      if (!sources.has(s.id)) sources.set(s.id, []);
      keep(sources.get(s.id), [t, s.azimuth, s.elevation, s.energy], t);
    }
  } else if (strips.has(topic)) {
    const strip = strips.get(topic);
    strip.last = payload;
    for (const [name, v] of numbers(payload, "", 0)) {
      if (!strip.series.has(name)) {
        if (strip.series.size >= MAX_SERIES) continue;
        strip.series.set(name, []);
      }
      keep(strip.series.get(name), [t, v], t);
    }
  }
}

// The numbers of a result, by name: top-level numbers and booleans, arrays of numbers, and the
// same one level down (a value that is not a record arrives as {"value": ...}).
function numbers(object, prefix, depth) {
  const out = [];
  if (typeof object === "number") return [[prefix || "value", object]];
  if (object === null || typeof object !== "object" || Array.isArray(object)) return out;
  for (const [key, v] of Object.entries(object)) {
    if (depth === 0 && CLOCK_FIELDS.has(key)) continue;
    const name = prefix + key;
    if (typeof v === "number" || typeof v === "boolean") out.push([name, Number(v)]);
    else if (isNumbers(v)) v.forEach((x, i) => out.push([`${name}[${i}]`, x ?? NaN]));
    else if (depth < 1) out.push(...numbers(v, name + ".", depth + 1));
  }
  return out;
}

function addStrip(topic) {
  const canvas = el("canvas", { className: "strip", hidden: true });
  const note = el("pre", { className: "note", textContent: "waiting for results…" });
  const caption = el("figcaption", { textContent: topic });
  const panel = el("figure", { className: "panel" }, caption, canvas, note);
  $("strips").append(panel);
  strips.set(topic, { panel, canvas, note, series: new Map(), last: undefined, shown: undefined });
}

// Charts move a pixel every 30 ms or so (30 s over a screen's width): drawing more often than
// that would only cost.
let drawn = 0;
function frame(at) {
  requestAnimationFrame(frame);
  if (at - drawn < 30) return;
  drawn = at;
  const now = clock.now() ?? Date.now() / 1000;
  if (!$("levels-panel").hidden) drawLevels($("levels"), now, levels.rms, levels.peak, view.levels);
  if (!$("speech-panel").hidden) drawSpeech($("speech"), now, speech.changes, speech.segments);
  for (const [id, track] of sources)
    if (track[track.length - 1][0] < now - TRAIL_S) sources.delete(id);
  const tracks = [...sources].sort((p, q) => p[0] - q[0]);
  if (!$("compass-panel").hidden) drawCompass($("compass"), now, tracks);
  for (const strip of strips.values()) {
    // An event without numbers shows the text of its latest result instead.
    const numeric = strip.series.size > 0;
    strip.canvas.hidden = !numeric;
    strip.note.hidden = numeric;
    if (numeric) drawStrip(strip.canvas, now, strip.series);
    else if (strip.last !== strip.shown) {
      strip.note.textContent = JSON.stringify(strip.last).slice(0, 400);
      strip.shown = strip.last;
    }
  }
}

// Text that need not change sixty times a second.
function updateFigures() {
  $("count").textContent = `${view.messages} results`;
  const now = clock.now();
  $("clock").textContent = now === null ? "" : clockText(now);
  for (const [topic, span] of countSpans) span.textContent = String(counts.get(topic) ?? "");
}

function start() {
  $("reconnect").addEventListener("click", connect);
  connect();
  requestAnimationFrame(frame);
  setInterval(updateFigures, 500);
}

if (document.readyState === "loading") document.addEventListener("DOMContentLoaded", start);
else start();
