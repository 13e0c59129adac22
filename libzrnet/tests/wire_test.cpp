// The wire codec: golden bytes for every message type and value kind, zero copy both ways, and a
// clear error for every way a message can be wrong.

#include "wire.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "golden.h"

using namespace ZR;
using namespace ZR::net;

namespace {

TEST(Wire, GoldenMessagesEncodeToTheirBytesAndDecodeBack) {
  for (const GoldenMessage& g : goldenMessages()) {
    SCOPED_TRACE(g.name);
    Frames frames = encode(g.message);
    EXPECT_EQ(toHex(frames), g.hex);
    Frames received = fromHex(g.hex);
    Message m = decode(received);
    EXPECT_EQ(toHex(encode(m)), g.hex);  // every field survived
    EXPECT_EQ(m.type, g.message.type);
    EXPECT_EQ(m.args, g.message.args);
    EXPECT_EQ(m.value, g.message.value);
  }
}

TEST(Wire, EveryValueKindHasItsBytes) {
  struct Case {
    std::string label;  // its row in the protocol document
    ZRValue value;
  };
  ZRValue nested;
  nested.arrayPush(1);
  nested.arrayPush("a");
  ZRValue inner;
  inner.arrayPush(true);
  inner.arrayPush(ZRValue());
  nested.arrayPush(inner);
  ZRValue empty;
  empty.arraySetSize(0);
  const unsigned char bytes[] = {1, 2, 3};
  ZRValue twoBinaries;
  twoBinaries.arrayPush(ZRValue(bytes, 3));
  twoBinaries.arrayPush(ZRValue(bytes, 1));
  std::vector<Case> cases = {
      {"invalid", ZRValue()},
      {"true", ZRValue(true)},
      {"false", ZRValue(false)},
      {"0", ZRValue(0)},
      {"-1", ZRValue(-1)},
      {"300", ZRValue(300)},
      {"-40000", ZRValue(-40000)},
      {"2147483647", ZRValue(2147483647)},
      {"-2147483648", ZRValue(-2147483647 - 1)},
      {"0.5", ZRValue(0.5f)},
      {"-1.25", ZRValue(-1.25f)},
      {"\"\"", ZRValue("")},
      {"\"ab\"", ZRValue("ab")},
      {"binary 01 02 03", ZRValue(bytes, 3)},
      {"[]", empty},
      {"[1, \"a\", [true, invalid]]", nested},
      {"[binary 01 02 03, binary 01]", twoBinaries},
  };
  std::map<std::string, std::string> table = goldenTable("Values, as the body of a reply:");
  ASSERT_EQ(table.size(), cases.size()) << "a row of the document has no case here";
  // Not in the document: a string long enough for the next string format.
  table["40 x"] = "d928" + repeat("78", 40);
  cases.push_back({"40 x", ZRValue(std::string(40, 'x'))});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    ASSERT_TRUE(table.count(c.label));
    const std::string body = table[c.label];
    Message reply;
    reply.type = MsgType::Reply;
    reply.id = 1;
    reply.value = c.value;
    std::string hex = toHex(encode(reply));
    const std::string prefix = "5a52020300|81a2696401|";
    EXPECT_EQ(hex, prefix + body);
    Frames frames = fromHex(hex);
    EXPECT_EQ(decode(frames).value, c.value);
  }
}

TEST(Wire, FloatsAndIntegersFromOtherEncodersAreAccepted) {
  // A client in another language may send a float64 or a wide integer encoding.
  Frames f = fromHex("5a52020300|81a2696401|92cb3fe0000000000000d3ffffffffffffffff");
  Message m = decode(f);
  ZRValue expected;
  expected.arrayPush(0.5f);
  expected.arrayPush(-1);
  EXPECT_EQ(m.value, expected);
}

TEST(Wire, BinariesTravelWithoutACopyBothWays) {
  std::vector<unsigned char> samples(1000, 7);
  ZRValue buffer(samples.data(), samples.size());
  Message data;
  data.type = MsgType::Data;
  data.stream = "s";
  data.args = {ZRValue(2), buffer};

  const long before = buffer.getBinaryOwner().use_count();
  Frames frames = encode(data);
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames[3].data(), buffer.GetBinary());  // the frame reads the value's storage
  EXPECT_EQ(buffer.getBinaryOwner().use_count(), before + 1);  // and keeps it alive

  // Across a real socket: inproc hands the very frame over, so the received value points at the
  // sender's storage, and the decoded value at the received frame.
  zmq::context_t ctx;
  zmq::socket_t out(ctx, zmq::socket_type::pair), in(ctx, zmq::socket_type::pair);
  in.bind("inproc://wire-test");
  out.connect("inproc://wire-test");
  for (std::size_t i = 0; i < frames.size(); ++i)
    out.send(frames[i], i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
  Frames received;
  do {
    received.emplace_back();
    ASSERT_TRUE(in.recv(received.back()));
  } while (received.back().more());
  const void* receivedBytes = received[3].data();
  Message m = decode(received);
  EXPECT_EQ(m.args[1].GetBinary(), receivedBytes);
  EXPECT_EQ(m.args[1].GetBinary(), buffer.GetBinary());
  EXPECT_EQ(m.args[1], buffer);

  // A frame at an odd address (ZeroMQ packs small messages into one buffer) arrives as an
  // aligned copy: samples are read in place.
  alignas(8) unsigned char packed[1001];
  std::memcpy(packed + 1, samples.data(), samples.size());
  Frames odd = encode(data);
  odd[3] = zmq::message_t(packed + 1, samples.size(), nullptr);
  Message aligned = decode(odd);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(aligned.args[1].GetBinary()) % 8, 0u);
  EXPECT_EQ(aligned.args[1], buffer);

  // Once every frame and decoded value is gone, the storage has its old owners only.
  frames.clear();
  received.clear();
  m = Message();
  EXPECT_EQ(buffer.getBinaryOwner().use_count(), before);
}

TEST(Wire, SmallBinariesOfAMessageTravelPackedInOneFrameAndAreReadInPlace) {
  // Four buffers of a fan-out, as a file's message carries them, and a large one beside them.
  std::vector<std::vector<unsigned char>> buffers;
  Message data;
  data.type = MsgType::Data;
  data.stream = "s";
  data.args = {ZRValue(std::vector<std::string>{"A"})};
  for (int i = 0; i < 4; ++i) {
    buffers.emplace_back(12801, static_cast<unsigned char>(i + 1));  // odd: padding between
    ZRValue call;
    call.arrayPush(4);
    call.arrayPush(ZRValue(buffers.back().data(), buffers.back().size()));
    data.args.push_back(call);
  }
  const ZRValue large(std::vector<unsigned char>(100000, 9).data(), 100000);
  data.args.push_back(large);
  Frames frames = encode(data);
  ASSERT_EQ(frames.size(), 5u);  // header, envelope, body, the pack, the large one
  EXPECT_EQ(frames[3].size(), 4u * 12808);
  EXPECT_EQ(frames[4].data(), large.GetBinary());  // not copied

  const Message m = decode(frames);
  ASSERT_EQ(m.args.size(), 6u);
  const char* pack = nullptr;
  for (int i = 0; i < 4; ++i) {
    const ZRValue& b = m.args[static_cast<std::size_t>(i) + 1][1];
    EXPECT_EQ(b, ZRValue(buffers[static_cast<std::size_t>(i)].data(), 12801));
    const char* at = static_cast<const char*>(b.GetBinary());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(at) % kBinaryAlignment, 0u);
    if (i == 0) pack = at;
    EXPECT_EQ(at, pack + i * 12808);  // in the received frame, not a copy of it
  }
  EXPECT_EQ(m.args[5], large);

  // Blocks that add up to little go as they are: ZeroMQ batches them anyway.
  Message small = data;
  small.args.resize(3);
  ZRValue shortCall;
  shortCall.arrayPush(ZRValue(buffers[0].data(), 1000));
  small.args[2] = shortCall;
  EXPECT_EQ(encode(small).size(), 5u);  // one frame each
}

TEST(Wire, EveryMalformedMessageIsAClearError) {
  struct Case {
    const char* frames;
    const char* error;
    std::uint64_t callId;
  };
  const std::vector<Case> cases = {
      {"5a52020300|81a2696401", "truncated message: 2 frames, at least 3 needed", 0},
      {"5a53010300|81a2696401|c0", "not a protocol message (bad header)", 0},
      {"5a520203|81a2696401|c0", "not a protocol message (bad header)", 0},
      {"5a52010300|81a2696401|c0",
       "protocol version mismatch: peer speaks version 1, this host speaks version 2", 0},
      {"5a52020b00|80|c0", "unknown message type 11", 0},
      {"5a52020000|80|c0", "unknown message type 0", 0},
      {"5a52020301|81a2696401|c0", "unknown flags 1", 0},
      {"5a52020300|81a269|c0", "malformed envelope (insufficient bytes)", 0},
      {"5a52020300|81a269640100|c0", "trailing bytes after the envelope", 0},
      {"5a52020300|90|c0", "envelope is not a map", 0},
      {"5a52020300|80|c0", "envelope lacks \"id\"", 0},
      {"5a52020300|81a26964a131|c0", "envelope field \"id\" is not an unsigned integer in range",
       0},
      {"5a52020700|82a673747265616da173a763726564697473cf0000000100000000|c0",
       "envelope field \"credits\" is not an unsigned integer in range", 0},
      {"5a52020200|85a2696400a3736571"
       "01a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163|90",
       "call id 0 is reserved", 0},
      {"5a52020200|85a2696407a3736571"
       "01a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163|01",
       "arguments are not an array", 7},
      {"5a52020200|84a2696407a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163|90",
       "envelope lacks \"seq\"", 7},
      {"5a52020300|81a2696401|ce80000000", "integer 2147483648 does not fit in 32 bits", 1},
      {"5a52020300|81a2696401|d3ffffffff00000000", "integer -4294967296 does not fit in 32 bits",
       1},
      {"5a52020300|81a2696401|80", "a map is not a value", 1},
      {"5a52020300|81a2696401|c4020102",
       "msgpack bin is not a value (binary blocks travel in frames of their own)", 1},
      {"5a52020300|81a2696401|d7020000000000000000", "unknown extension type 2 of 8 bytes", 1},
      {"5a52020300|81a2696401|d60100000000", "unknown extension type 1 of 4 bytes", 1},
      {"5a52020300|81a2696401|d7010000000000000002",
       "binary block 0 refers to a missing frame (0 binary frames)", 1},
      {"5a52020300|81a2696401|d7010000000000000003|0102",
       "binary block 0 declares 3 bytes, its frame has 2", 1},
      {"5a52020300|81a2696401|01|0102", "binary frame 0 is not referenced", 1},
      {"5a52020300|81a2696401|c70c01000000000000000100000001|0102",
       "binary block 0 starts at byte 1, not a multiple of 8", 1},
      {"5a52020300|81a2696401|c70c01000000000000000000000003|0102",
       "binary block 0 declares 3 bytes at byte 0, its frame has 2", 1},
      {"5a52020300|81a2696401|c70c01000000000000000800000000|0102",
       "binary block 0 declares 0 bytes at byte 8, its frame has 2", 1},
      {"5a52020300|81a2696401|c70c01000000010000000000000001|0102",
       "binary block 1 refers to a missing frame (1 binary frames)", 1},
      {"5a52020300|81a2696401|0101", "trailing bytes after the body", 1},
      {"5a52020800|80|01", "a ping message carries no body", 0},
      {"5a52020300|81a2696401|ddffffffff",
       "an array declares 4294967295 elements with only 0 bytes left", 1},
      // Declared sizes never filled reserve nothing: each level is checked against the bytes.
      {"5a52020300|81a2696401|92dd0000000391dd0000ffff01",
       "an array declares 65535 elements with only 1 bytes left", 1},
      {"5a52020300|81a2696401|", "the body ends in the middle of a value", 1},
      // A call of another version still tells its caller which call failed.
      {"5a52010200|85a2696407a3736571"
       "01a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163|90",
       "protocol version mismatch: peer speaks version 1, this host speaks version 2", 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.frames);
    Frames f = fromHex(c.frames);
    try {
      decode(f);
      ADD_FAILURE() << "decoded";
    } catch (const DecodeError& e) {
      EXPECT_EQ(e.getDescription(), c.error);
      EXPECT_EQ(e.callId(), c.callId);
      if (c.callId == 7) {
        EXPECT_EQ(e.callModule() + "." + e.callMethod(), "M.m");
      }
    }
  }
  // Nesting deeper than the decoder recurses, and a message beyond the size option.
  Frames deepFrames = fromHex("5a52020300|81a2696401|" + repeat("91", 40) + "c0");
  EXPECT_THROW(decode(deepFrames), DecodeError);
  // More values than a message may hold, however few bytes each takes.
  Frames many = fromHex("5a52020300|81a2696401|dd00100000" + repeat("00", 1 << 20));
  try {
    decode(many);
    ADD_FAILURE() << "decoded";
  } catch (const DecodeError& e) {
    EXPECT_EQ(e.getDescription(), "the message holds more than 1048576 values");
  }
  Frames most = fromHex("5a52020300|81a2696401|dd000fffff" + repeat("00", (1 << 20) - 1));
  EXPECT_EQ(decode(most).value.getSize(), (1 << 20) - 1);
  // A fan-out's calls times its modules is bounded by its bytes: 40 names and 40 empty calls
  // in 200 bytes ask 1600 calls.
  std::string names = "dc0028", calls;
  for (int i = 0; i < 40; ++i) names += "a1" + std::string(i < 26 ? "4" : "5") + "1";
  const std::string fanOutEnvelope =
      "85a673747265616da0a373657101a66d6f64756c65a0a66d6574686f64a16d"
      "a663616c6c6572a0";
  Frames fanOut = fromHex("5a52020600|" + fanOutEnvelope + "|dc0029" + names + repeat("90", 40));
  try {
    decode(fanOut);
    ADD_FAILURE() << "decoded";
  } catch (const DecodeError& e) {
    EXPECT_NE(e.getDescription().find("a fan-out of 40 calls to 40 modules asks more than"),
              std::string::npos)
        << e.getDescription();
  }
  Frames fairFanOut = fromHex("5a52020600|" + fanOutEnvelope + "|93" + names + "9101" + "9102");
  EXPECT_EQ(decode(fairFanOut).args.size(), 3u);
  Frames bigEnvelope = fromHex("5a52020800|81daffff" + repeat("61", 65535) + "c0|c0");
  EXPECT_THROW(decode(bigEnvelope), DecodeError);
  Frames big = fromHex("5a52020300|81a2696401|c0");
  try {
    decode(big, 10);
    ADD_FAILURE() << "decoded";
  } catch (const DecodeError& e) {
    EXPECT_EQ(e.getDescription(), "message of 11 bytes exceeds the maximum of 10");
  }
}

}  // namespace
