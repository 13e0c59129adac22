// Writes MCAP files with the reference writer (@mcap/core) for the Python reader's tests, then
// reads each back with the reference stream reader (CRCs checked, chunks decompressed by
// @mcap/support) and prints, per file, the byte offset after which each message is readable.
//
// Input (stdin): {"files": [{path, chunked, compression: "zstd" | "lz4" | "", chunkSize,
//   summary, header: {profile, library}, schemas: [{name, encoding, data}],
//   channels: [{schema, topic, messageEncoding, metadata}],
//   messages: [{channel, sequence, logTime, publishTime, data}]}]}
// with schema and channel as indexes into the lists, times as decimal strings, data as text.
// Output (stdout): [{"ends": [offset per message, in file order]}] per file.
// Usage: node mcap_writer.cjs NODE_MODULES_DIR < plan.json
"use strict";

const fs = require("fs");
const path = require("path");

const modules = process.argv[2];
const load = (name) => require(path.join(modules, name));
const { McapWriter, McapStreamReader, McapIndexedReader } = load("@mcap/core");
const { loadDecompressHandlers } = load("@mcap/support");
const zstd = load("@foxglove/wasm-zstd");

// The LZ4 frame format (what @mcap/support hands to its lz4 decoder), written here because the
// packages only decompress lz4: independent 64 KB blocks, no checksums, no content size; the
// descriptor's check byte is that of these fixed flags. Blocks are compressed greedily.
const LZ4_FRAME_HEADER = [0x04, 0x22, 0x4d, 0x18, 0x60, 0x40, 0x82];
const LZ4_BLOCK = 64 * 1024;

function lz4Block(src) {
  const out = [];
  const length = (v) => {
    for (; v >= 255; v -= 255) out.push(255);
    out.push(v);
  };
  const sequence = (from, to, offset, match) => {
    const literals = to - from;
    out.push((Math.min(literals, 15) << 4) | (match === 0 ? 0 : Math.min(match - 4, 15)));
    if (literals >= 15) length(literals - 15);
    for (let k = from; k < to; k++) out.push(src[k]);
    if (match === 0) return;
    out.push(offset & 0xff, offset >> 8);
    if (match - 4 >= 15) length(match - 4 - 15);
  };
  const table = new Map();
  let anchor = 0;
  let i = 0;
  // The format wants the last match to start 12 bytes and end 5 bytes before the end.
  while (i < src.length - 12) {
    const key = src[i] | (src[i + 1] << 8) | (src[i + 2] << 16) | (src[i + 3] << 24);
    const candidate = table.get(key);
    table.set(key, i);
    if (candidate === undefined || i - candidate > 65535) {
      i++;
      continue;
    }
    let match = 4;
    while (i + match < src.length - 5 && src[candidate + match] === src[i + match]) match++;
    sequence(anchor, i, i - candidate, match);
    i += match;
    anchor = i;
  }
  sequence(anchor, src.length, 0, 0);
  return Uint8Array.from(out);
}

function lz4Frame(data) {
  const parts = [Uint8Array.from(LZ4_FRAME_HEADER)];
  const u32 = (v) => {
    const b = new Uint8Array(4);
    new DataView(b.buffer).setUint32(0, v, true);
    return b;
  };
  for (let at = 0; at < data.length; at += LZ4_BLOCK) {
    const block = data.subarray(at, at + LZ4_BLOCK);
    const packed = lz4Block(block);
    const stored = packed.length >= block.length;
    parts.push(u32(stored ? (block.length | 0x80000000) >>> 0 : packed.length));
    parts.push(stored ? block : packed);
  }
  parts.push(u32(0));
  return Buffer.concat(parts);
}

async function write(plan) {
  const parts = [];
  let position = 0n;
  const writable = {
    write: async (buffer) => {
      parts.push(Buffer.from(buffer));
      position += BigInt(buffer.byteLength);
    },
    position: () => position,
  };
  const compress = {
    zstd: (d) => ({ compression: "zstd", compressedData: zstd.compress(d, 3) }),
    lz4: (d) => ({ compression: "lz4", compressedData: lz4Frame(d) }),
    "": undefined,
  };
  const summary = plan.summary !== false;
  const writer = new McapWriter({
    writable,
    useChunks: plan.chunked,
    chunkSize: plan.chunkSize,
    compressChunk: compress[plan.compression],
    useStatistics: summary,
    useSummaryOffsets: summary,
    repeatSchemas: summary,
    repeatChannels: summary,
    useChunkIndex: summary,
    useMessageIndex: summary,
    useAttachmentIndex: summary,
    useMetadataIndex: summary,
  });
  await writer.start(plan.header);
  const schemaIds = [];
  for (const s of plan.schemas) {
    schemaIds.push(
      await writer.registerSchema({ ...s, data: Buffer.from(s.data, "utf8") }),
    );
  }
  const channelIds = [];
  for (const c of plan.channels) {
    channelIds.push(
      await writer.registerChannel({
        schemaId: schemaIds[c.schema],
        topic: c.topic,
        messageEncoding: c.messageEncoding,
        metadata: new Map(Object.entries(c.metadata)),
      }),
    );
  }
  for (const m of plan.messages) {
    await writer.addMessage({
      channelId: channelIds[m.channel],
      sequence: m.sequence,
      logTime: BigInt(m.logTime),
      publishTime: BigInt(m.publishTime),
      data: Buffer.from(m.data, "utf8"),
    });
  }
  await writer.end();
  const file = Buffer.concat(parts);
  fs.writeFileSync(plan.path, file);
  return { file, channelIds };
}

// Reads the file back as the reference reads it; a message is readable once the record that
// holds it (the message itself, or its chunk) has been read whole.
async function check(plan, file, channelIds, decompressHandlers) {
  const reader = new McapStreamReader({ decompressHandlers, validateCrcs: true });
  reader.append(file);
  const ends = [];
  for (let r; (r = reader.nextRecord()); ) {
    if (r.type !== "Message") continue;
    const want = plan.messages[ends.length];
    const text = Buffer.from(r.data).toString("utf8");
    if (
      r.channelId !== channelIds[want.channel] ||
      r.sequence !== want.sequence ||
      r.logTime !== BigInt(want.logTime) ||
      text !== want.data
    ) {
      throw new Error(`${plan.path}: message ${ends.length} does not read back as written`);
    }
    ends.push(file.length - reader.bytesRemaining());
  }
  if (!reader.done() || ends.length !== plan.messages.length) {
    throw new Error(`${plan.path}: ${ends.length} of ${plan.messages.length} messages read back`);
  }
  if (plan.summary !== false) {
    const readable = {
      size: async () => BigInt(file.length),
      read: async (offset, size) => file.subarray(Number(offset), Number(offset + size)),
    };
    const indexed = await McapIndexedReader.Initialize({ readable, decompressHandlers });
    if (indexed.statistics.messageCount !== BigInt(plan.messages.length)) {
      throw new Error(`${plan.path}: the summary counts the wrong number of messages`);
    }
  }
  return { ends };
}

async function main() {
  const input = JSON.parse(fs.readFileSync(0, "utf8"));
  await zstd.isLoaded;
  const decompressHandlers = await loadDecompressHandlers();
  const results = [];
  for (const plan of input.files) {
    const { file, channelIds } = await write(plan);
    results.push(await check(plan, file, channelIds, decompressHandlers));
  }
  process.stdout.write(JSON.stringify(results));
}

main().catch((e) => {
  process.stderr.write(`${e.stack || e}\n`);
  process.exit(1);
});
