// The reference side of the container's round trip, run by reference_test.cpp with node:
//   node mcap_reference.cjs <npm dir> read FILE        validates FILE and prints what it holds
//   node mcap_reference.cjs <npm dir> write FILE MODE  writes FILE (MODE: zstd, plain, unchunked)
//                                                      and prints what it wrote
// Both print one JSON object: header, schemas, channels, messages (data in base64), chunk and
// statistics figures. Any inconsistency is an error on stderr and exit status 1.
"use strict";

const fs = require("fs");
const path = require("path");
const { createRequire } = require("module");

const [npmDir, command, file, mode] = process.argv.slice(2);
const npmRequire = createRequire(path.join(path.resolve(npmDir), "package.json"));
const { McapStreamReader, McapIndexedReader, McapWriter } = npmRequire("@mcap/core");
const { loadDecompressHandlers } = npmRequire("@mcap/support");

function fail(message) {
  process.stderr.write(`mcap_reference: ${message}\n`);
  process.exit(1);
}

const stringify = (value) =>
  JSON.stringify(value, (_, v) => (typeof v === "bigint" ? v.toString() : v));

const messageKey = (m) => `${m.logTime}/${m.channelId}/${m.sequence}`;
const messageOut = (m) => [
  m.channelId,
  m.sequence,
  m.logTime.toString(),
  m.publishTime.toString(),
  Buffer.from(m.data).toString("base64"),
];
const schemaOut = (s) => ({
  id: s.id,
  name: s.name,
  encoding: s.encoding,
  data: Buffer.from(s.data).toString("utf8"),
});
const channelOut = (c) => ({
  id: c.id,
  schemaId: c.schemaId,
  topic: c.topic,
  messageEncoding: c.messageEncoding,
  metadata: Object.fromEntries(c.metadata),
});

// What the reference reader trusts without checking: chunk indexes, summary offsets and the data
// section's CRC, checked against the bytes they describe.
function checkIndexes(bytes, indexed) {
  const { crc32 } = npmRequire("@foxglove/crc");
  const length = (at) => Number(bytes.readBigUInt64LE(at + 1));
  for (const c of indexed.chunkIndexes) {
    const at = Number(c.chunkStartOffset);
    if (bytes[at] !== 0x06 || BigInt(9 + length(at)) !== c.chunkLength) {
      fail(`chunk index: no chunk of ${c.chunkLength} bytes at ${at}`);
    }
    const recordsLength = bytes.readBigUInt64LE(at + 9 + 28 + 4 + c.compression.length);
    if (recordsLength !== c.compressedSize ||
        bytes.readBigUInt64LE(at + 9 + 16) !== c.uncompressedSize) {
      fail(`chunk index: the sizes of the chunk at ${at} differ`);
    }
    let indexLength = 0n;
    for (const [channel, offset] of c.messageIndexOffsets) {
      const i = Number(offset);
      if (bytes[i] !== 0x07 || bytes.readUInt16LE(i + 9) !== channel) {
        fail(`chunk index: no message index of channel ${channel} at ${i}`);
      }
      indexLength += BigInt(9 + length(i));
    }
    if (indexLength !== c.messageIndexLength) fail(`chunk index: message indexes' length`);
  }
  for (const [opcode, group] of indexed.summaryOffsetsByOpcode) {
    for (let at = Number(group.groupStart); at < Number(group.groupStart + group.groupLength);) {
      if (bytes[at] !== opcode) fail(`summary offset: no record ${opcode} at ${at}`);
      at += 9 + length(at);
    }
  }
  if (indexed.dataSectionCrc !== undefined &&
      crc32(bytes.subarray(0, Number(indexed.dataEndOffset))) !== indexed.dataSectionCrc) {
    fail("the data section's CRC differs");
  }
}

async function read() {
  const bytes = fs.readFileSync(file);
  const decompressHandlers = await loadDecompressHandlers();

  // Every record in file order, chunk CRCs checked; message indexes checked against the chunk
  // they follow.
  const stream = new McapStreamReader({ decompressHandlers, validateCrcs: true, includeChunks: true });
  stream.append(bytes);
  const out = { schemas: {}, channels: {}, messages: [], chunks: 0, compressions: [], indexEntries: 0 };
  let chunkRecords;
  for (let r; (r = stream.nextRecord()); ) {
    if (r.type === "Header") Object.assign(out, { profile: r.profile, library: r.library });
    if (r.type === "Schema") out.schemas[r.id] = schemaOut(r);
    if (r.type === "Channel") out.channels[r.id] = channelOut(r);
    if (r.type === "Message") out.messages.push(messageOut(r));
    if (r.type === "Chunk") {
      ++out.chunks;
      if (!out.compressions.includes(r.compression)) out.compressions.push(r.compression);
      const data = r.compression === "" ? r.records
        : decompressHandlers[r.compression](r.records, r.uncompressedSize);
      chunkRecords = Buffer.from(data.buffer, data.byteOffset, data.byteLength);
    }
    if (r.type === "MessageIndex") {
      for (const [logTime, offset] of r.records) {
        const at = Number(offset);
        if (chunkRecords[at] !== 0x05 || chunkRecords.readUInt16LE(at + 9) !== r.channelId ||
            chunkRecords.readBigUInt64LE(at + 15) !== logTime) {
          fail(`message index of channel ${r.channelId}: no such message at ${offset}`);
        }
        ++out.indexEntries;
      }
    }
  }
  if (!stream.done()) fail("the file ends before its end");

  // The summary: footer, summary CRC, chunk indexes and message indexes, read as a seeking
  // reader does; it must find the same messages.
  const readable = {
    size: async () => BigInt(bytes.length),
    read: async (offset, size) => bytes.subarray(Number(offset), Number(offset + size)),
  };
  const indexed = await McapIndexedReader.Initialize({ readable, decompressHandlers });
  const viaIndex = [];
  for await (const m of indexed.readMessages({ validateCrcs: true })) viaIndex.push(messageKey(m));
  const inStream = out.messages.map((m) => `${m[2]}/${m[0]}/${m[1]}`);
  // A seeking reader finds only messages in chunks; an unchunked file has none to find.
  if (out.chunks > 0 && viaIndex.sort().join() !== inStream.sort().join()) {
    fail(`the indexes give ${viaIndex.length} messages, the data ${inStream.length}`);
  }
  checkIndexes(bytes, indexed);
  out.chunkIndexes = indexed.chunkIndexes.length;
  out.summarySchemas = indexed.schemasById.size;
  out.summaryChannels = indexed.channelsById.size;
  const s = indexed.statistics;
  if (s) {
    out.statistics = {
      messageCount: s.messageCount, schemaCount: s.schemaCount, channelCount: s.channelCount,
      chunkCount: s.chunkCount, messageStartTime: s.messageStartTime,
      messageEndTime: s.messageEndTime,
      channelMessageCounts: Object.fromEntries(s.channelMessageCounts),
    };
  }
  process.stdout.write(stringify(out) + "\n");
}

async function write() {
  const options = { zstd: {}, plain: {}, unchunked: { useChunks: false, useStatistics: false } }[mode];
  if (!options) fail(`unknown mode ${mode}`);
  const fd = fs.openSync(file, "w");
  let position = 0n;
  const writable = {
    write: async (buffer) => {
      fs.writeSync(fd, buffer);
      position += BigInt(buffer.byteLength);
    },
    position: () => position,
  };
  if (mode === "zstd") {
    const zstd = npmRequire("@foxglove/wasm-zstd");
    await zstd.isLoaded;
    options.compressChunk = (data) => ({ compression: "zstd", compressedData: zstd.compress(data) });
  }
  const writer = new McapWriter({ writable, chunkSize: 4096, ...options });
  await writer.start({ profile: "ref", library: "reference writer" });
  const out = { profile: "ref", library: "reference writer", schemas: {}, channels: {}, messages: [] };
  const schema = { name: "ref.Thing", encoding: "jsonschema", data: Buffer.from('{"type":"object"}') };
  const schemaId = await writer.registerSchema(schema);
  out.schemas[schemaId] = schemaOut({ id: schemaId, ...schema });
  const channelIds = [];
  for (let c = 0; c < 3; ++c) {
    const channel = { schemaId: c === 2 ? 0 : schemaId, topic: `Ref${c}/Things`, messageEncoding: "json",
      metadata: new Map(c === 0 ? [] : [["zr.kind", "event"], ["n", String(c)]]) };
    const id = await writer.registerChannel(channel);
    out.channels[id] = channelOut({ id, ...channel });
    channelIds.push(id);
  }
  const sequences = [0, 0, 0];
  for (let i = 0; i < 600; ++i) {
    const c = (i * 7) % 3;
    const text = i % 50 === 0 ? "" : `{"i":${i},"pad":"${"xyz".repeat(i % 40)}"}`;
    const message = { channelId: channelIds[c], sequence: sequences[c]++,
      logTime: 1_000_000_000n + BigInt(i) * 3_000_000n, publishTime: 2n * BigInt(i),
      data: Buffer.from(text) };
    await writer.addMessage(message);
    out.messages.push(messageOut(message));
  }
  await writer.end();
  fs.closeSync(fd);
  process.stdout.write(stringify(out) + "\n");
}

(command === "read" ? read() : command === "write" ? write() : Promise.reject(new Error("usage")))
  .catch((error) => fail(error.stack ?? String(error)));
