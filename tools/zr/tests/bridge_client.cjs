// The viewers' side of the bridge's tests, run by bridge_client_test.cpp with node:
//   node bridge_client.cjs <npm dir> reference URL   the protocol's reference client: channels,
//                                                    services, a subscription's messages, and
//                                                    the extractor's subscriber coming and going
//   node bridge_client.cjs <npm dir> hostile URL [ATTACK...]  what hostile clients send (all
//                                                    attacks, or those named), each followed by
//                                                    a well-behaved client's visit
//   node bridge_client.cjs <npm dir> token URL       URL carries ?token=T: refused without it
//   node bridge_client.cjs <npm dir> follow URL TOPIC prints a line as TOPIC comes, delivers
//                                                    and goes (the test starts and kills its
//                                                    host), then watches until the bridge ends
// Each scenario prints one JSON line of findings ({"scenario", "ok", "failures", ...}) and exits
// with status 1 when a check failed. Every wait is bounded only to turn a hang into a failure.
"use strict";

const path = require("path");
const net = require("net");
const http = require("http");
const { createRequire } = require("module");

const [npmDir, scenario, bridgeUrl, ...extra] = process.argv.slice(2);
const npmRequire = createRequire(path.join(path.resolve(npmDir || "."), "package.json"));
const { FoxgloveClient } = npmRequire("@foxglove/ws-protocol");
const WebSocket = npmRequire("ws");

const SUBPROTOCOL = FoxgloveClient.SUPPORTED_SUBPROTOCOL;
const LIMIT = 30000; // ms
const LEVELS = "SoundLevel/Levels";
const encoder = new TextEncoder();

const failures = [];
function check(ok, what) {
  if (!ok) failures.push(what);
  return ok;
}

// The ws:// address of the bridge at `url` (its http:// form), with its query changed as asked.
function wsUrl(url, query = {}) {
  const u = new URL(url);
  u.protocol = u.protocol === "https:" ? "wss:" : "ws:";
  for (const [k, v] of Object.entries(query))
    if (v === null) u.searchParams.delete(k);
    else u.searchParams.set(k, v);
  return u.toString();
}

function nowNs() {
  return BigInt(Math.round((performance.timeOrigin + performance.now()) * 1e6));
}

// Resolves when `test()` holds, tried at every `poke`; rejects after `ms`.
class Waiters {
  constructor() {
    this.list = [];
  }
  until(test, what, ms = LIMIT) {
    const value = test();
    if (value) return Promise.resolve(value);
    return new Promise((resolve, reject) => {
      const w = { test, resolve };
      w.timer = setTimeout(() => {
        this.list = this.list.filter((x) => x !== w);
        reject(new Error(`no ${what} within ${ms} ms`));
      }, ms);
      this.list.push(w);
    });
  }
  poke() {
    for (const w of [...this.list]) {
      const value = w.test();
      if (!value) continue;
      clearTimeout(w.timer);
      this.list = this.list.filter((x) => x !== w);
      w.resolve(value);
    }
  }
}

function within(promise, what, ms = LIMIT) {
  let timer;
  return Promise.race([
    promise,
    new Promise((_, reject) => (timer = setTimeout(() => reject(new Error(`no ${what}`)), ms))),
  ]).finally(() => clearTimeout(timer));
}

function callRequest(serviceId, callId, payload, encoding = "json") {
  const enc = Buffer.from(encoding);
  const data = Buffer.from(payload);
  const b = Buffer.alloc(13 + enc.length + data.length);
  b.writeUInt8(2, 0);
  b.writeUInt32LE(serviceId, 1);
  b.writeUInt32LE(callId, 5);
  b.writeUInt32LE(enc.length, 9);
  enc.copy(b, 13);
  data.copy(b, 13 + enc.length);
  return b;
}

// The protocol's reference client, with what it heard kept for the checks.
class Viewer {
  constructor(url, name = "viewer") {
    this.name = name;
    this.ws = new WebSocket(wsUrl(url), [SUBPROTOCOL]);
    this.client = new FoxgloveClient({ ws: this.ws });
    this.channels = new Map();
    this.services = new Map();
    this.statuses = [];
    this.errors = [];
    this.messages = [];
    this.pending = new Map();
    this.nextCall = 1;
    this.waiters = new Waiters();
    const on = (event, f) =>
      this.client.on(event, (x) => {
        f(x);
        this.waiters.poke();
      });
    on("serverInfo", (i) => (this.serverInfo = i));
    on("advertise", (cs) => cs.forEach((c) => this.channels.set(c.id, c)));
    on("unadvertise", (ids) => ids.forEach((id) => this.channels.delete(id)));
    on("advertiseServices", (ss) => ss.forEach((s) => this.services.set(s.name, s)));
    on("unadvertiseServices", (ids) => {
      for (const [n, s] of this.services) if (ids.includes(s.id)) this.services.delete(n);
    });
    on("status", (s) => this.statuses.push(s));
    on("error", (e) => this.errors.push(String(e && e.message)));
    on("message", (m) => {
      const text = Buffer.from(m.data.buffer, m.data.byteOffset, m.data.byteLength).toString();
      this.messages.push({ sub: m.subscriptionId, ts: m.timestamp, at: nowNs(), text });
    });
    on("serviceCallResponse", (r) => {
      const p = this.pending.get(r.callId);
      if (!p) return this.errors.push(`an answer to call ${r.callId}, never made`);
      this.pending.delete(r.callId);
      const text = Buffer.from(r.data.buffer, r.data.byteOffset, r.data.byteLength).toString();
      if (r.serviceId !== p.serviceId || r.encoding !== "json")
        return p.reject(new Error(`answer to ${p.name}: service ${r.serviceId}, ${r.encoding}`));
      try {
        p.resolve(JSON.parse(text));
      } catch (e) {
        p.reject(new Error(`answer to ${p.name} is not JSON: ${text.slice(0, 200)}`));
      }
    });
    on("serviceCallFailure", (f) => {
      const p = this.pending.get(f.callId);
      if (!p) return this.errors.push(`a failure of call ${f.callId}, never made`);
      this.pending.delete(f.callId);
      const e = new Error(f.message);
      e.failure = f;
      p.reject(e);
    });
    on("close", (e) => {
      this.closed = { code: e.code, reason: String(e.reason || "") };
      for (const p of this.pending.values()) p.reject(new Error(`closed (${e.code})`));
      this.pending.clear();
    });
  }
  until(test, what, ms) {
    return this.waiters.until(test, `${what} (${this.name})`, ms);
  }
  channel(topic) {
    for (const c of this.channels.values()) if (c.topic === topic) return c;
    return undefined;
  }
  // serverInfo, the channel of `topic` and the services, as the bridge sends them on connect.
  async ready(topic = LEVELS) {
    await this.until(() => this.serverInfo || this.closed, "serverInfo");
    if (this.closed) throw new Error(`closed before serverInfo: ${JSON.stringify(this.closed)}`);
    await this.until(() => this.channel(topic), `advertised ${topic}`);
    await this.until(() => this.services.size > 0, "advertiseServices");
    return this;
  }
  // The answer of service `name` to `args` (its JSON); a failure rejects with its message.
  call(name, args, encoding = "json") {
    const s = this.services.get(name);
    if (!s) return Promise.reject(new Error(`no service ${name}`));
    const callId = this.nextCall++;
    const answer = new Promise((resolve, reject) =>
      this.pending.set(callId, { name, serviceId: s.id, resolve, reject }),
    );
    this.client.sendServiceCallRequest({
      serviceId: s.id,
      callId,
      encoding,
      data: encoder.encode(typeof args === "string" ? args : JSON.stringify(args)),
    });
    return this.until(() => !this.pending.has(callId), `answer of ${name}`).then(() => answer);
  }
  subscribe(topic) {
    const c = this.channel(topic);
    if (!c) throw new Error(`${topic} is not advertised`);
    return this.client.subscribe(c.id);
  }
  // The next `n` messages of subscription `sub` from now on.
  async take(sub, n = 1) {
    const from = this.messages.length;
    const mine = () => this.messages.slice(from).filter((m) => m.sub === sub);
    await this.until(() => mine().length >= n, `${n} messages of subscription ${sub}`);
    return mine().slice(0, n);
  }
  async close() {
    this.client.close();
    await this.until(() => this.closed, "close");
    return this.closed;
  }
}

// The modules subscribed to SoundLevel that are viewers of a bridge.
async function soundLevelViewers(viewer) {
  const info = await viewer.call("SoundLevel/getSubscribersInfo", {});
  if (!Array.isArray(info)) throw new Error(`getSubscribersInfo gave ${JSON.stringify(info)}`);
  return info.map((s) => (Array.isArray(s) ? s[0] : s && s.name)).filter((n) => /\.viewer/.test(n));
}

// Asks again until `test(answer)` holds; each ask waits for the previous answer.
async function poll(ask, test, what, ms = LIMIT) {
  const deadline = Date.now() + ms;
  let last;
  for (;;) {
    last = await ask();
    if (test(last)) return last;
    if (Date.now() > deadline) throw new Error(`${what}: still ${JSON.stringify(last)}`);
    await new Promise((r) => setImmediate(r));
  }
}

function checkLevels(messages, sub) {
  let previous = -1n;
  const now = nowNs();
  for (const m of messages) {
    check(m.sub === sub, `a message of subscription ${m.sub}, not ${sub}`);
    check(m.ts > previous, `timestamp ${m.ts} after ${previous}`);
    previous = m.ts;
    // Real time since the epoch, not a monotonic clock's (an hour covers any clock's error).
    const off = Number(now - m.ts) / 1e9;
    check(Math.abs(off) < 3600, `timestamp ${m.ts} is ${off} s from now: not the epoch's ns`);
    let o;
    try {
      o = JSON.parse(m.text);
    } catch (e) {
      check(false, `payload is not JSON: ${m.text.slice(0, 200)}`);
      continue;
    }
    const numbers = (a) => Array.isArray(a) && a.length > 0 && a.every(Number.isFinite);
    check(
      o && numbers(o.rms) && numbers(o.peak) && o.rms.length === o.peak.length,
      `Levels payload without rms/peak arrays: ${m.text.slice(0, 200)}`,
    );
    check(Number.isFinite(o && o.time), `Levels payload without a time: ${m.text.slice(0, 200)}`);
  }
}

async function reference(url) {
  const found = {};
  const a = await new Viewer(url, "first").ready();
  const info = a.serverInfo;
  found.serverInfo = { name: info.name, capabilities: info.capabilities };
  check(/^zr bridge \S/.test(info.name), `serverInfo name ${JSON.stringify(info.name)}`);
  check((info.capabilities || []).includes("services"), "no services capability");
  check((info.supportedEncodings || []).includes("json"), "json is not a supported encoding");
  const bridgeName = info.name.replace(/^zr bridge /, "");

  const levels = a.channel(LEVELS);
  found.channels = [...a.channels.values()].map((c) => c.topic).sort();
  check(levels.encoding === "json", `${LEVELS} encoding ${levels.encoding}`);
  check(levels.schemaName === LEVELS, `${LEVELS} schemaName ${levels.schemaName}`);
  check(levels.schemaEncoding === "jsonschema", `schemaEncoding ${levels.schemaEncoding}`);
  let schema = null;
  try {
    schema = JSON.parse(levels.schema);
  } catch (e) {
    check(false, `${LEVELS} schema is no JSON: ${levels.schema}`);
  }
  check(schema && schema.type === "object", `${LEVELS} schema ${levels.schema}`);
  found.schema = schema;
  check(
    [...a.channels.values()].every((c) => c.topic.includes("/") && c.encoding === "json"),
    "a channel that is not an event's",
  );
  const ids = [...a.channels.keys()];
  check(new Set(ids).size === ids.length, "channel ids repeat");

  for (const name of ["SoundLevel/getSubscribersInfo", "ZRMemory/getSubscribers"]) {
    const s = a.services.get(name);
    if (!check(s, `service ${name} not advertised`)) continue;
    check(s.type === name, `service ${name} has type ${s.type}`);
    for (const part of ["request", "response"]) {
      const d = s[part] || {};
      check(d.encoding === "json" && d.schemaEncoding === "jsonschema", `${name} ${part}`);
      try {
        JSON.parse(d.schema);
      } catch (e) {
        check(false, `${name} ${part} schema is no JSON: ${d.schema}`);
      }
    }
  }
  const periodDoc = a.services.get("SoundLevel/getCurrentPeriod");
  found.periodDescription = periodDoc && JSON.parse(periodDoc.request.schema).description;
  check(found.periodDescription, "SoundLevel/getCurrentPeriod has no description");
  found.services = a.services.size;

  // Nobody watches yet: the extractor is idle.
  found.subscribersBefore = await a.call("SoundLevel/getSubscribersInfo", {});
  check(
    JSON.stringify(found.subscribersBefore) === "[]",
    `SoundLevel has subscribers before any viewer: ${JSON.stringify(found.subscribersBefore)}`,
  );
  const byName = await a.call("ZRMemory/getSubscribers", { event: LEVELS });
  const byPosition = await a.call("ZRMemory/getSubscribers", [LEVELS]);
  check(JSON.stringify(byName) === "[]", `${LEVELS} has subscribers: ${JSON.stringify(byName)}`);
  check(JSON.stringify(byPosition) === JSON.stringify(byName), "arguments by position differ");

  // Arguments that fit no overload fail clearly, and the connection goes on.
  const failures = {};
  for (const [label, args] of [
    ["unknownParameter", { bogus: 1 }],
    ["tooMany", ["a", "b", "c", "d"]],
    ["notJson", "{not json"],
    ["scalar", 42],
  ]) {
    try {
      const got = await a.call("SoundLevel/getMyPeriod", args);
      check(false, `getMyPeriod(${JSON.stringify(args)}) answered ${JSON.stringify(got)}`);
    } catch (e) {
      failures[label] = e.message;
      check(e.failure, `getMyPeriod(${JSON.stringify(args)}): ${e.message}`);
      check(e.message.length >= 10, `unclear failure: ${JSON.stringify(e.message)}`);
    }
  }
  try {
    await a.call("SoundLevel/getCurrentPeriod", "{}", "cdr");
    check(false, "a call in the cdr encoding was answered");
  } catch (e) {
    failures.encoding = e.message;
    check(e.failure, `a call in the cdr encoding: ${e.message}`);
  }
  found.callFailures = failures;

  // Watching starts the extractor, with this viewer as its subscriber.
  let sub = a.subscribe(LEVELS);
  const messages = await a.take(sub, 20);
  checkLevels(messages, sub);
  // Once raised, the event's fields are known: its channel is advertised again with them.
  await a.until(() => {
    try {
      return JSON.parse(a.channel(LEVELS).schema).properties.rms.type === "array";
    } catch {
      return false;
    }
  }, `${LEVELS} advertised with its fields`);
  found.firstPayload = JSON.parse(messages[0].text);
  found.timestampsNs = [messages[0].ts.toString(), messages[messages.length - 1].ts.toString()];
  const watching = await soundLevelViewers(a);
  found.viewers = watching;
  check(
    watching.length === 1 && watching[0].startsWith(`${bridgeName}.viewer`),
    `SoundLevel's viewers while watched: ${JSON.stringify(watching)}`,
  );
  const memorySide = await a.call("ZRMemory/getSubscribers", { event: LEVELS });
  found.memorySubscribers = memorySide;
  check(memorySide.includes(watching[0]), `memory's ${LEVELS} subscribers: ${memorySide}`);
  check(
    (await a.call("SoundLevel/getCurrentPeriod", {})) > 0,
    "SoundLevel has no period while watched",
  );

  // Unsubscribing stops it; a second subscription starts it again.
  a.client.unsubscribe(sub);
  await poll(() => soundLevelViewers(a), (v) => v.length === 0, "viewers after unsubscribe");
  const quiet = a.messages.length;
  await a.call("ZRMemory/getEventList", {});
  found.messagesAfterUnsubscribe = a.messages.slice(quiet).filter((m) => m.sub === sub).length;
  check(found.messagesAfterUnsubscribe === 0, "messages of a subscription that ended");
  sub = a.subscribe(LEVELS);
  checkLevels(await a.take(sub, 3), sub);
  check((await soundLevelViewers(a)).length === 1, "no viewer after subscribing again");

  // Leaving undoes it: a second client sees the extractor without viewers.
  const closed = await a.close();
  found.close = closed;
  check(closed.code === 1000 || closed.code === 1005, `close ${JSON.stringify(closed)}`);
  const b = await new Viewer(url, "second").ready();
  found.viewersAfterLeaving = await poll(
    () => soundLevelViewers(b),
    (v) => v.length === 0,
    "SoundLevel's viewers after the first client left",
  );
  found.memoryAfterLeaving = await b.call("ZRMemory/getSubscribers", { event: LEVELS });
  check(found.memoryAfterLeaving.length === 0, `memory still has ${found.memoryAfterLeaving}`);
  for (const v of [a, b]) {
    check(v.statuses.length === 0, `${v.name} got statuses ${JSON.stringify(v.statuses)}`);
    check(v.errors.length === 0, `${v.name} errors ${JSON.stringify(v.errors)}`);
  }
  await b.close();
  return found;
}

// Raw clients still open: an attack that failed half-way leaves none behind.
const raws = new Set();

// A raw WebSocket client: what it sends is up to the test, what it gets is kept.
class Raw {
  constructor(url, protocols = [SUBPROTOCOL], options = {}) {
    raws.add(this);
    this.inbox = [];
    this.errors = [];
    this.waiters = new Waiters();
    this.nextCall = 1;
    this.ws = new WebSocket(url, protocols, options);
    const poke = () => this.waiters.poke();
    this.ws.on("open", () => ((this.open = true), poke()));
    this.ws.on("message", (data, binary) => {
      if (binary) this.inbox.push({ binary: Buffer.from(data) });
      else {
        try {
          this.inbox.push(JSON.parse(data.toString()));
        } catch (e) {
          this.errors.push(`text that is no JSON: ${data.toString().slice(0, 100)}`);
        }
      }
      poke();
    });
    this.ws.on("unexpected-response", (req, res) => {
      this.refused = res.statusCode;
      res.resume();
      req.destroy();
      poke();
    });
    this.ws.on("error", (e) => ((this.error = e.message), poke()));
    this.ws.on("close", (code, reason) => {
      this.closed = { code, reason: reason.toString() };
      raws.delete(this);
      poke();
    });
  }
  until(test, what, ms) {
    return this.waiters.until(test, what, ms);
  }
  // Open, or refused (an HTTP status, an error or a close before it opened).
  settled() {
    return this.until(
      () => this.open || this.refused || this.closed || this.error,
      "open or refusal",
    );
  }
  async ready() {
    await this.settled();
    if (!this.open) throw new Error(`not open: ${this.refused || this.error}`);
    await this.until(() => this.find((m) => m.op === "advertiseServices"), "advertiseServices");
    return this;
  }
  find(test) {
    return this.inbox.find(test);
  }
  serviceId(name) {
    for (const m of this.inbox)
      if (m.op === "advertiseServices")
        for (const s of m.services) if (s.name === name) return s.id;
    throw new Error(`no service ${name}`);
  }
  send(data, options) {
    this.ws.send(data, options);
  }
  json(o) {
    this.ws.send(JSON.stringify(o));
  }
  // The next message from `from` on that passes `test`, and where the search may go on.
  async next(test, what, from = 0, ms = LIMIT) {
    let at = -1;
    await this.until(
      () => {
        at = this.inbox.findIndex((m, i) => i >= from && test(m));
        return at >= 0 || this.closed;
      },
      what,
      ms,
    );
    if (at < 0) throw new Error(`closed (${JSON.stringify(this.closed)}) before ${what}`);
    return [this.inbox[at], at + 1];
  }
  // A call the connection answers only when it still works: its answer, after all before it.
  async roundTrip(name = "ZRMemory/getEventList") {
    const callId = 1000000 + this.nextCall++;
    const from = this.inbox.length;
    this.send(callRequest(this.serviceId(name), callId, "{}"));
    const [answer] = await this.next(
      (m) => m.binary && m.binary[0] === 3 && m.binary.readUInt32LE(5) === callId,
      `answer of ${name}`,
      from,
    );
    return { answer: answer.binary.subarray(17).toString(), before: this.inbox.slice(from) };
  }
  async close() {
    this.ws.close(1000);
    await this.until(() => this.closed, "close");
    return this.closed;
  }
}

const isStatus = (m) => m.op === "status";

// Sends each bad message and expects an answer to each (a status of level 2 by default), the
// connection going on; the answers' messages.
async function expectStatuses(url, bads, answers = (m) => isStatus(m) && m.level === 2) {
  const r = await new Raw(wsUrl(url)).ready();
  const from = r.inbox.length;
  const heard = [];
  for (const bad of bads) {
    const mark = r.inbox.length;
    if (typeof bad === "function") bad(r);
    else if (Buffer.isBuffer(bad)) r.send(bad);
    else r.send(typeof bad === "string" ? bad : JSON.stringify(bad));
    const shown = Buffer.isBuffer(bad)
      ? bad.toString("hex")
      : typeof bad === "string"
        ? bad
        : typeof bad === "function"
          ? bad.toString()
          : JSON.stringify(bad);
    try {
      // A status is a local answer: a third of the usual bound is plenty.
      const [m] = await r.next(answers, `answer to ${shown.slice(0, 120)}`, mark, LIMIT / 3);
      heard.push(m.message || m.op || "binary");
      check(typeof m.message === "string" && m.message.length > 0, `empty ${JSON.stringify(m)}`);
    } catch (e) {
      check(false, e.message);
      if (r.closed) break;
    }
  }
  await r.roundTrip();
  check(!r.closed, `closed after bad messages: ${JSON.stringify(r.closed)}`);
  check(r.errors.length === 0, `unparseable text: ${r.errors}`);
  check(!r.inbox.slice(from).some((m) => m.op === "serverInfo"), "a second serverInfo");
  await r.close();
  return heard;
}

// Deterministic bytes: the same garbage on every run.
function garbage(seed, n) {
  const b = Buffer.alloc(n);
  let x = seed >>> 0 || 1;
  for (let i = 0; i < n; ++i) {
    x ^= x << 13;
    x >>>= 0;
    x ^= x >>> 17;
    x ^= x << 5;
    x >>>= 0;
    b[i] = x & 0xff;
  }
  return b;
}

// A raw HTTP exchange over TCP: what came back, once the bridge closed, or `enough(text)` held
// (by default: a whole answer that is no upgrade), or the bound passed. With `keep`: the socket,
// left open.
function rawHttp(url, bytes, { keep = false, enough = completeAnswer } = {}) {
  const u = new URL(url);
  return new Promise((resolve) => {
    const s = net.connect(Number(u.port), u.hostname);
    let got = Buffer.alloc(0);
    const done = (closed) => {
      clearTimeout(timer);
      s.destroy();
      resolve({ status: statusOf(got), closed, text: got.toString("latin1") });
    };
    const timer = keep ? undefined : setTimeout(() => done(false), LIMIT);
    s.on("connect", () => s.write(bytes));
    s.on("error", () => {});
    if (keep) return resolve({ socket: s });
    s.on("data", (d) => {
      got = Buffer.concat([got, d]);
      if (enough(got.toString("latin1"))) done(false);
    });
    s.on("close", () => done(true));
  });
}
function completeAnswer(text) {
  const head = text.indexOf("\r\n\r\n");
  if (head < 0 || /^HTTP\/1\.[01] 101/.test(text)) return false;
  const m = /content-length:\s*(\d+)/i.exec(text.slice(0, head));
  return !m || text.length >= head + 4 + Number(m[1]);
}
function statusOf(buffer) {
  const m = /^HTTP\/1\.[01] (\d{3})/.exec(buffer.toString("latin1"));
  return m ? Number(m[1]) : null;
}

function httpGet(url) {
  return new Promise((resolve, reject) => {
    const req = http.get(url, (res) => {
      const chunks = [];
      res.on("data", (c) => chunks.push(c));
      res.on("end", () => {
        const type = res.headers["content-type"];
        resolve({ status: res.statusCode, type, body: Buffer.concat(chunks) });
      });
    });
    req.on("error", reject);
    req.setTimeout(LIMIT, () => req.destroy(new Error(`no answer to GET ${url}`)));
  });
}

// A fresh, well-behaved client is served: the channel, and a message of it.
async function visit(url) {
  const v = await new Viewer(url, "visitor").ready();
  const sub = v.subscribe(LEVELS);
  const [m] = await v.take(sub);
  JSON.parse(m.text);
  check(v.statuses.length === 0, `a visitor got statuses ${JSON.stringify(v.statuses)}`);
  const closed = await v.close();
  check(closed.code === 1000 || closed.code === 1005, `a visitor's close: ${closed.code}`);
}

async function hostile(url) {
  const found = {};
  // A viewer that watches throughout: nothing done to others may reach it.
  const bystander = await new Viewer(url, "bystander").ready();
  const watched = bystander.subscribe(LEVELS);
  await bystander.take(watched);
  const own = await soundLevelViewers(bystander);
  check(own.length === 1, `viewers with one watching: ${own}`);
  const onlyBystander = () =>
    poll(
      () => soundLevelViewers(bystander),
      (v) => v.length === 1 && v[0] === own[0],
      "SoundLevel's viewers besides the bystander",
    );
  const levels = bystander.channel(LEVELS).id;
  const service = (n) => bystander.services.get(n).id;

  const attacks = {
    malformedJson: () =>
      expectStatuses(url, [
        "{not json",
        "",
        "null",
        "[1,2,3]",
        '"subscribe"',
        '{"op":"subscribe","subscriptions":[{"id":1,"channelId":',
        "[".repeat(30000) + "]".repeat(30000),
        '{"op":' + "{".repeat(20000),
      ]),
    badFields: async () => {
      const heard = await expectStatuses(url, [
        { op: 5 },
        { nop: "subscribe" },
        { op: "subscribe" },
        { op: "subscribe", subscriptions: "all" },
        { op: "subscribe", subscriptions: [{ id: "one", channelId: levels }] },
        { op: "subscribe", subscriptions: [{ id: 1 }] },
        { op: "unsubscribe" },
        { op: "unsubscribe", subscriptionIds: [null] },
      ]);
      // Ids out of the protocol's range, each on a connection of its own: a subscription
      // taken under another id would refuse the next one for the wrong reason.
      const alone = async (subscription) => {
        const one = { op: "subscribe", subscriptions: [subscription] };
        heard.push(...(await expectStatuses(url, [one])));
      };
      for (const id of [1.5, -1, 2 ** 32 + 1]) await alone({ id, channelId: levels });
      await alone({ id: 1, channelId: levels + 0.5 });
      await onlyBystander();
      return heard;
    },
    unknownOps: () =>
      expectStatuses(
        url,
        [
          { op: "frobnicate" },
          { op: "" },
          { op: "serverInfo", name: "me" },
          { op: "advertise", channels: [{ id: 1, topic: "x", encoding: "json", schemaName: "" }] },
          { op: "getParameters", parameterNames: ["a"] },
          { op: "subscribeConnectionGraph" },
          { op: "fetchAsset", uri: "file:///etc/passwd", requestId: 1 },
          Buffer.from([1, 1, 0, 0, 0, 123]),
        ],
        isStatus,
      ),
    unknownChannelAndSubscription: () =>
      expectStatuses(url, [
        { op: "subscribe", subscriptions: [{ id: 7, channelId: 987654 }] },
        { op: "unsubscribe", subscriptionIds: [4242] },
        // A subscription id twice, then a subscription ended twice.
        (r) => {
          r.json({ op: "subscribe", subscriptions: [{ id: 9, channelId: levels }] });
          r.json({ op: "subscribe", subscriptions: [{ id: 9, channelId: levels }] });
        },
        (r) => {
          r.json({ op: "unsubscribe", subscriptionIds: [9] });
          r.json({ op: "unsubscribe", subscriptionIds: [9] });
        },
      ]).then(async (heard) => (await onlyBystander(), heard)),
    binaryGarbage: async () => {
      const header = (service, call, len) => {
        const b = Buffer.alloc(13);
        b[0] = 2;
        b.writeUInt32LE(service, 1);
        b.writeUInt32LE(call, 5);
        b.writeUInt32LE(len, 9);
        return b;
      };
      const answered = (m) => isStatus(m) || m.op === "serviceCallFailure";
      const events = service("ZRMemory/getEventList");
      const noise = garbage(3, 64);
      const heard = await expectStatuses(
        url,
        [
          Buffer.alloc(0),
          Buffer.from([2]),
          Buffer.from([2, 1, 0, 0]),
          header(events, 1, 0).subarray(0, 12),
          Buffer.concat([header(events, 2, 0xffffffff), Buffer.from("json{}")]),
          Buffer.concat([header(events, 3, 0x7fffffff), Buffer.from("js")]),
          Buffer.concat([header(events, 4, 5), Buffer.from("json")]),
          Buffer.concat([header(0xfffffff0, 5, 4), Buffer.from("json{}")]),
          Buffer.concat([header(service("ZRMemory/getData"), 6, 4), Buffer.from("json"), noise]),
          Buffer.from([0x7f, 1, 2, 3]),
          Buffer.from([0xff]),
          ...Array.from({ length: 40 }, (_, i) => garbage(i + 1, 1 + ((i * 37) % 300))),
        ],
        answered,
      );
      return heard.slice(0, 12);
    },
    textOver64KiB: () =>
      expectStatuses(url, [
        JSON.stringify({ op: "subscribe", subscriptions: [], pad: "x".repeat(70 * 1024) }),
      ]),
    invalidUtf8: async () => {
      const r = await new Raw(wsUrl(url)).ready();
      const mark = r.inbox.length;
      r.send(Buffer.from([0x7b, 0x22, 0xc3, 0x28, 0xff, 0x22, 0x7d]), { binary: false });
      await r.until(() => r.closed || r.inbox.slice(mark).some(isStatus), "status or close");
      // Either is clean: a status and the connection going on, or the close of invalid data.
      if (!r.closed) {
        await r.roundTrip();
        await r.close();
        return "status";
      }
      check(r.closed.code === 1007, `invalid UTF-8 closed with ${JSON.stringify(r.closed)}`);
      return r.closed;
    },
    framesOver1MiB: async () => {
      const closes = {};
      const sends = {
        binary: (r) => r.send(Buffer.alloc(1100 * 1024, 7)),
        text: (r) => r.send("x".repeat(1100 * 1024)),
        fragments: (r) => {
          for (let i = 0; i < 20; ++i)
            r.send("y".repeat(64 * 1024), { fin: i === 19, binary: false });
        },
      };
      for (const [name, send] of Object.entries(sends)) {
        const r = await new Raw(wsUrl(url)).ready();
        send(r);
        await r.until(() => r.closed, `close after a ${name} message over 1 MiB`);
        closes[name] = r.closed;
        check(r.closed.code === 1009, `${name} over 1 MiB closed with ${JSON.stringify(r.closed)}`);
      }
      return closes;
    },
    subprotocol: async () => {
      // By hand: the ws client itself would drop an upgrade that chose no subprotocol.
      const u = new URL(url);
      const upgrade = (protocols) =>
        rawHttp(
          url,
          `GET /${u.search} HTTP/1.1\r\nHost: ${u.host}\r\nUpgrade: websocket\r\n` +
            "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n" +
            "Sec-WebSocket-Version: 13\r\n" +
            (protocols ? `Sec-WebSocket-Protocol: ${protocols}\r\n` : "") +
            "\r\n",
          { enough: (text) => completeAnswer(text) || text.includes('"advertiseServices"') },
        );
      const out = {};
      for (const [name, protocols] of [
        ["none", ""],
        ["other", "foxglove.websocket.v2"],
        ["both", `x.y, ${SUBPROTOCOL}`],
      ]) {
        const r = await upgrade(protocols);
        out[name] = r.status;
        const served = r.text.includes('"serverInfo"');
        const head = r.text.slice(0, 200);
        if (name === "both") {
          check(r.status === 101 && served, `offering x.y and ${SUBPROTOCOL}: ${head}`);
          const chosen = new RegExp(`Sec-WebSocket-Protocol: ${SUBPROTOCOL}\r`, "i");
          check(chosen.test(r.text), `chose another subprotocol: ${head}`);
        } else {
          check(r.status !== 101 || (r.closed && !served), `${name} subprotocol: ${head}`);
        }
      }
      return out;
    },
    subscribeCycles: async () => {
      const r = await new Raw(wsUrl(url)).ready();
      const mark = r.inbox.length;
      for (let i = 0; i < 1000; ++i) {
        r.json({ op: "subscribe", subscriptions: [{ id: i, channelId: levels }] });
        r.json({ op: "unsubscribe", subscriptionIds: [i] });
      }
      await r.roundTrip();
      const statuses = r.inbox.slice(mark).filter(isStatus);
      check(statuses.length === 0, `statuses for valid cycles: ${JSON.stringify(statuses[0])}`);
      await onlyBystander();
      // The last of them still delivers.
      r.json({ op: "subscribe", subscriptions: [{ id: 5000, channelId: levels }] });
      const dataOf = (x, test) => x.binary && x.binary[0] === 1 && test(x.binary.readUInt32LE(1));
      const [m] = await r.next((x) => dataOf(x, (id) => id === 5000), "a later message", mark);
      JSON.parse(m.binary.subarray(13).toString());
      // Messages of the ended subscriptions that were on their way: told, not judged.
      const stale = r.inbox.filter((x) => dataOf(x, (id) => id < 1000)).length;
      await r.close();
      await onlyBystander();
      return { staleMessages: stale };
    },
    abruptLeaving: async () => {
      const leaving = [];
      for (let i = 0; i < 5; ++i) {
        const r = await new Raw(wsUrl(url)).ready();
        const subs = r.inbox
          .filter((m) => m.op === "advertise")
          .flatMap((m) => m.channels)
          .map((c, k) => ({ id: k, channelId: c.id }));
        r.json({ op: "subscribe", subscriptions: subs });
        await r.next((m) => m.binary && m.binary[0] === 1, "a message");
        leaving.push(r);
      }
      const watching = await soundLevelViewers(bystander);
      check(watching.length === own.length + 5, `five raw viewers subscribed: ${watching}`);
      // No close frame: the TCP connection just ends.
      for (const r of leaving) r.ws._socket.destroy();
      await onlyBystander();
      const memory = await poll(
        () => bystander.call("ZRMemory/getSubscribers", { event: LEVELS }),
        (s) => s.length === 1,
        "memory's subscribers after abrupt leaving",
      );
      return memory;
    },
    idleConnections: async () => {
      const idle = Array.from({ length: 200 }, () => new Raw(wsUrl(url)));
      await Promise.all(idle.map((r) => r.ready()));
      await visit(url);
      check(idle.every((r) => !r.closed), "an idle connection was closed");
      const pong = new Promise((resolve) => idle[0].ws.once("pong", resolve));
      idle[0].ws.ping("hi");
      await within(pong, "pong");
      const codes = await Promise.all(idle.map((r) => r.close()));
      const unclean = codes.filter((c) => c.code !== 1000 && c.code !== 1005);
      check(unclean.length === 0, `unclean closes ${JSON.stringify(unclean.slice(0, 3))}`);
      return { held: idle.length, closes: [...new Set(codes.map((c) => c.code))] };
    },
    http: async () => {
      const out = {};
      const base = new URL(url);
      const host = `Host: ${base.host}\r\n`;
      const q = base.search;
      const ok = await httpGet(new URL("/" + q, url).toString());
      check(ok.status === 200 && /html/.test(ok.type || ""), `GET / gave ${ok.status} ${ok.type}`);
      const missing = await httpGet(new URL("/no-such-file" + q, url).toString());
      check(missing.status === 404, `GET /no-such-file gave ${missing.status}`);
      for (const target of [
        "/../../../../etc/passwd",
        "/%2e%2e/%2e%2e/%2e%2e/etc/passwd",
        "/page.js/../../../../../etc/passwd",
        "//etc/passwd",
        "/..%2f..%2f..%2fetc%2fpasswd",
      ]) {
        const t = target + (q ? (target.includes("?") ? "&" : "") + q : "");
        const r = await rawHttp(url, `GET ${t} HTTP/1.1\r\n${host}Connection: close\r\n\r\n`);
        out[target] = r.status;
        check(r.status === 404 || r.status === 400, `GET ${target} gave ${r.status}`);
        check(!/root:/.test(r.text), `GET ${target} served a system file`);
      }
      const post = await rawHttp(
        url,
        `POST /${q} HTTP/1.1\r\n${host}Content-Length: 3\r\nConnection: close\r\n\r\nabc`,
      );
      out.post = post.status;
      check(post.status >= 400 && post.status < 500, `POST / gave ${post.status}`);
      const bigHeader = `X-Big: ${"a".repeat(100 * 1024)}\r\n`;
      const big = await rawHttp(url, `GET /${q} HTTP/1.1\r\n${host}${bigHeader}\r\n`);
      out.bigHeader = big.status || (big.closed ? "closed" : "open");
      check(big.closed || big.status >= 400, `a 100 KiB header gave ${big.status}`);
      const junk = await rawHttp(url, garbage(99, 2000));
      out.garbage = junk.status || (junk.closed ? "closed" : "open");
      check(junk.closed || junk.status >= 400, "TCP garbage left the connection open");
      // Requests that never end, held while another client is served.
      const partial = [];
      for (let i = 0; i < 50; ++i) {
        const held = await rawHttp(url, `GET /${q} HTTP/1.1\r\n${host}X-Slow: `, { keep: true });
        partial.push(held.socket);
      }
      await visit(url);
      partial.forEach((s) => s.destroy());
      out.partialHeld = partial.length;
      return out;
    },
    // Calls faster than they are answered: each gets its answer or a clear failure.
    callFlood: async () => {
      const n = 500;
      const r = await new Raw(wsUrl(url)).ready();
      const id = r.serviceId("ZRMemory/getEventList");
      const mark = r.inbox.length;
      for (let call = 1; call <= n; ++call) r.send(callRequest(id, call, "{}"));
      const answered = () => {
        const ids = new Set();
        for (const m of r.inbox.slice(mark)) {
          if (m.binary && m.binary[0] === 3) ids.add(m.binary.readUInt32LE(5));
          if (m.op === "serviceCallFailure" && m.message) ids.add(m.callId);
        }
        return ids;
      };
      await r.until(() => answered().size >= n || r.closed, `answers to ${n} calls`);
      const failures = r.inbox.slice(mark).filter((m) => m.op === "serviceCallFailure");
      check(answered().size === n, `${answered().size} of ${n} calls answered`);
      await r.roundTrip();
      await r.close();
      return { failed: failures.length, failure: failures.length ? failures[0].message : null };
    },
    // Many subscriptions in one message: one per channel is taken, the others refused (fewer
    // than 257 channels: the limit of 256 itself is out of reach here).
    manySubscriptions: async () => {
      const n = 300;
      const r = await new Raw(wsUrl(url)).ready();
      r.json({
        op: "subscribe",
        subscriptions: Array.from({ length: n }, (_, id) => ({ id, channelId: levels })),
      });
      const refusals = (await r.roundTrip()).before.filter(isStatus);
      r.json({ op: "unsubscribe", subscriptionIds: Array.from({ length: n }, (_, i) => i) });
      const unknown = (await r.roundTrip()).before.filter(isStatus);
      check(
        refusals.length === n - 1 && unknown.length === n - 1,
        `${refusals.length} refusals and ${unknown.length} unknown of ${n} on one channel`,
      );
      check(!r.closed, "closed for many subscriptions");
      await r.close();
      await onlyBystander();
      return { refusal: refusals.length && refusals[0].message, refused: refusals.length };
    },
    // Services reach every module: no viewer may end another's subscription through them.
    interference: async () => {
      const other = await new Viewer(url, "intruder").ready();
      let refused = null;
      try {
        await other.call("SoundLevel/unsubscribe", { name: own[0] });
      } catch (e) {
        refused = e.message;
      }
      try {
        await other.call("ZRMemory/unsubscribeToEvent", { event: LEVELS, module: own[0] });
      } catch (e) {
        refused = refused && e.message;
      }
      await other.close();
      check(refused, "a viewer ended the bystander's subscription through the services");
      return refused;
    },
  };

  const only = extra.length ? extra : Object.keys(attacks);
  found.attacks = {};
  for (const name of only) {
    const seen = bystander.messages.length;
    const failedBefore = failures.length;
    try {
      found.attacks[name] = await attacks[name]();
    } catch (e) {
      check(false, `${name}: ${e.message}`);
    }
    for (const r of raws) r.ws.terminate();
    try {
      await visit(url);
      await bystander.until(() => bystander.messages.length > seen, "a bystander's message");
    } catch (e) {
      check(false, `after ${name}: ${e.message}`);
    }
    if (failures.length > failedBefore)
      found.attacks[name + "Failed"] = failures.slice(failedBefore);
  }
  check(!bystander.closed, `the bystander was closed: ${JSON.stringify(bystander.closed)}`);
  check(bystander.statuses.length === 0, `the bystander got ${JSON.stringify(bystander.statuses)}`);
  const ts = bystander.messages.filter((m) => m.sub === watched).map((m) => m.ts);
  check(ts.every((t, i) => i === 0 || t > ts[i - 1]), "the bystander's timestamps went back");
  found.bystanderMessages = ts.length;
  await bystander.close();
  return found;
}

async function token(url) {
  const found = {};
  const t = new URL(url).searchParams.get("token");
  if (!check(t, `no token in ${url}`)) return found;
  found.tokenLength = t.length;
  const attempts = { without: { token: null }, wrong: { token: t + "x" }, empty: { token: "" } };
  for (const [name, query] of Object.entries(attempts)) {
    const r = new Raw(wsUrl(url, query));
    await r.settled();
    found[name] = r.refused || r.error || "accepted";
    check(r.refused === 401, `a WebSocket with ${name} token: ${found[name]}`);
    r.ws.terminate();
    const search = new URLSearchParams(query.token === null ? {} : query);
    const page = await httpGet(new URL("/?" + search, url).toString());
    check(page.status === 401, `GET / with ${name} token gave ${page.status}`);
    check(!/<html/i.test(page.body.toString()), `GET / with ${name} token served the page`);
  }
  const page = await httpGet(url);
  check(page.status === 200, `GET / with the token gave ${page.status}`);
  const script = await httpGet(new URL("/page.js?token=" + encodeURIComponent(t), url).toString());
  check(script.status === 200, `GET /page.js with the token gave ${script.status}`);
  const noScript = await httpGet(new URL("/page.js", url).toString());
  check(noScript.status === 401, `GET /page.js without the token gave ${noScript.status}`);
  await visit(url);
  return found;
}

// Lines as TOPIC is advertised, delivers and is unadvertised (TOPIC "-": none); then it watches
// the levels until the bridge goes away.
async function follow(url, topic) {
  const v = await new Viewer(url, "follower").ready(LEVELS);
  const say = (o) => process.stdout.write(JSON.stringify(o) + "\n");
  say({ initial: [...v.channels.values()].map((c) => c.topic).sort() });
  if (topic !== "-") {
    const c = await v.until(() => v.channel(topic), `advertised ${topic}`);
    const sub = v.client.subscribe(c.id);
    const [m] = await v.take(sub);
    say({ came: topic, message: JSON.parse(m.text) });
    await v.until(() => !v.channels.has(c.id), `unadvertised ${topic}`);
    say({ went: topic });
    check(v.channel(LEVELS), `${LEVELS} went with ${topic}`);
  }
  const [watched] = await v.take(v.subscribe(LEVELS));
  say({ watching: JSON.parse(watched.text) });
  await v.until(() => v.closed, "the bridge's end", 10 * LIMIT);
  say({ closed: v.closed.code });
  return { topic };
}

const scenarios = { reference, hostile, token, follow };

async function main() {
  if (!scenarios[scenario] || !bridgeUrl) {
    process.stderr.write(
      "usage: node bridge_client.cjs NPM_DIR reference|hostile|token|follow URL [...]\n",
    );
    process.exit(2);
  }
  let found = {};
  try {
    found = await scenarios[scenario](bridgeUrl, ...extra);
  } catch (e) {
    check(false, e.stack || e.message);
  }
  const stringify = (o) => JSON.stringify(o, (_, v) => (typeof v === "bigint" ? v.toString() : v));
  const ok = failures.length === 0;
  process.stdout.write(stringify({ scenario, ok, failures, ...found }) + "\n");
  process.exit(failures.length === 0 ? 0 : 1);
}

main();
