// The viewers of zr_bridge_bench.sh: VIEWERS reference clients of the bridge at URL, each
// subscribed to every channel; after WARMUP seconds, SECONDS of measurement: the CPU of the
// processes PIDS (from /proc/PID/stat), each viewer's messages, the SoundLevel/Levels rate
// against PERIOD_MS, and the latency from capture (the message's timestamp, ns since the epoch)
// to arrival here. Prints a table, then what the shell command $ZR_BENCH_AFTER prints while the
// viewers are still there (the bridge's row of `zr top`).
//   node zr_bridge_bench.cjs NPM_DIR URL VIEWERS SECONDS PERIOD_MS CLK_TCK NAME=PID...
"use strict";

const fs = require("fs");
const { execSync } = require("child_process");
const path = require("path");
const { createRequire } = require("module");

const [npmDir, url, viewerArg, secondsArg, periodArg, tickArg, ...pidArgs] = process.argv.slice(2);
const npmRequire = createRequire(path.join(path.resolve(npmDir), "package.json"));
const { FoxgloveClient } = npmRequire("@foxglove/ws-protocol");
const WebSocket = npmRequire("ws");

const viewers = Number(viewerArg || 20);
const seconds = Number(secondsArg || 5);
const periodMs = Number(periodArg || 10);
const ticks = Number(tickArg || 100);
const WARMUP = 2;
const LEVELS = "SoundLevel/Levels";
const processes = pidArgs.map((a) => a.split("="));

const nowNs = () => BigInt(Math.round((performance.timeOrigin + performance.now()) * 1e6));
const wait = (s) => new Promise((r) => setTimeout(r, s * 1000));

function cpuSeconds(pid) {
  // Fields after the command's closing parenthesis: utime and stime are the 12th and 13th.
  const stat = fs.readFileSync(`/proc/${pid}/stat`, "utf8");
  const f = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
  return (Number(f[11]) + Number(f[12])) / ticks;
}

function connect(i) {
  return new Promise((resolve, reject) => {
    const u = new URL(url);
    u.protocol = "ws:";
    const client = new FoxgloveClient({ ws: new WebSocket(u.toString(), [FoxgloveClient.SUPPORTED_SUBPROTOCOL]) });
    const v = { client, topics: new Map(), count: 0, levels: [], latencies: [], drops: [], measuring: false };
    const timer = setTimeout(() => reject(new Error(`viewer ${i}: no ${LEVELS} advertised`)), 30000);
    client.on("advertise", (channels) => {
      for (const c of channels) {
        if (v.topics.has(c.id)) continue;
        v.topics.set(c.id, c.topic);
        v.subs = v.subs || new Map();
        v.subs.set(client.subscribe(c.id), c.topic);
      }
      if ([...v.topics.values()].includes(LEVELS)) {
        clearTimeout(timer);
        resolve(v);
      }
    });
    client.on("status", (s) => v.measuring && s.level >= 1 && v.drops.push(s.message));
    client.on("error", (e) => reject(e));
    client.on("message", (m) => {
      if (!v.measuring) return;
      const at = nowNs();
      ++v.count;
      const latencyMs = Number(at - m.timestamp) / 1e6;
      const topic = v.subs.get(m.subscriptionId);
      if (topic === LEVELS) {
        v.levels.push(m.timestamp);
        v.latencies.push(latencyMs);
      }
    });
  });
}

function quantile(sorted, q) {
  return sorted.length ? sorted[Math.min(sorted.length - 1, Math.floor(q * sorted.length))] : NaN;
}

async function main() {
  const all = await Promise.all(Array.from({ length: viewers }, (_, i) => connect(i)));
  await wait(WARMUP);
  const cpu0 = processes.map(([, pid]) => cpuSeconds(pid));
  const t0 = performance.now();
  all.forEach((v) => (v.measuring = true));
  await wait(seconds);
  all.forEach((v) => (v.measuring = false));
  const elapsed = (performance.now() - t0) / 1000;
  const cpu1 = processes.map(([, pid]) => cpuSeconds(pid));

  const rates = all.map((v) => v.count / elapsed);
  const levelRates = all.map((v) => v.levels.length / elapsed);
  const captureRates = all.map((v) => {
    const ts = v.levels;
    return ts.length > 1 ? ((ts.length - 1) * 1e9) / Number(ts[ts.length - 1] - ts[0]) : NaN;
  });
  const latencies = all.flatMap((v) => v.latencies).sort((a, b) => a - b);
  const mean = (a) => a.reduce((x, y) => x + y, 0) / a.length;
  const expected = 1000 / periodMs;
  const pct = (r) => `${r >= expected ? "+" : ""}${(((r - expected) / expected) * 100).toFixed(1)} %`;
  const f1 = (x) => x.toFixed(1);
  const rows = [
    ["viewers", `${viewers}, each subscribed to ${all[0].topics.size} channels`],
    ["window", `${f1(elapsed)} s after ${WARMUP} s of warm-up`],
    ...processes.map(([name], i) => [
      `${name} CPU`,
      `${f1(((cpu1[i] - cpu0[i]) / elapsed) * 100)} % of one core`,
    ]),
    [
      "messages per viewer",
      `${f1(mean(rates))} /s (min ${f1(Math.min(...rates))}, max ${f1(Math.max(...rates))})`,
    ],
    [
      `${LEVELS} rate`,
      `${f1(mean(levelRates))} /s per viewer against ${f1(expected)} /s (${pct(mean(levelRates))};` +
        ` min ${pct(Math.min(...levelRates))}, max ${pct(Math.max(...levelRates))})`,
    ],
    ["  by capture times", `${f1(mean(captureRates))} /s (${pct(mean(captureRates))})`],
    [
      "latency capture->viewer",
      `p50 ${f1(quantile(latencies, 0.5))} ms, p99 ${f1(quantile(latencies, 0.99))} ms, ` +
        `max ${f1(latencies[latencies.length - 1])} ms (${latencies.length} messages)`,
    ],
    ["drop reports", `${all.reduce((n, v) => n + v.drops.length, 0)}`],
  ];
  const width = Math.max(...rows.map((r) => r[0].length));
  for (const [k, v] of rows) process.stdout.write(`${k.padEnd(width)}  ${v}\n`);
  if (process.env.ZR_BENCH_AFTER) process.stdout.write(execSync(process.env.ZR_BENCH_AFTER));
  all.forEach((v) => v.client.close());
  process.exit(0);
}

main().catch((e) => {
  process.stderr.write(`zr_bridge_bench: ${e.message}\n`);
  process.exit(1);
});
