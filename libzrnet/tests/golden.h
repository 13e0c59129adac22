#pragma once

// Golden messages, one per message type: the wire test checks their bytes, the fuzzer starts
// from them. Frames are written in hex, separated by '|'.

#include <string>
#include <vector>

#include "wire.h"

namespace ZR {
namespace net {

inline std::string repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += s;
  return out;
}

inline std::string toHex(const Frames& frames) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    if (i) out += '|';
    const auto* p = static_cast<const unsigned char*>(frames[i].data());
    for (std::size_t j = 0; j < frames[i].size(); ++j) {
      out += digits[p[j] >> 4];
      out += digits[p[j] & 15];
    }
  }
  return out;
}

inline Frames fromHex(const std::string& hex) {
  Frames frames;
  std::string bytes;
  for (std::size_t i = 0; i <= hex.size(); ++i) {
    if (i == hex.size() || hex[i] == '|') {
      frames.emplace_back(bytes.data(), bytes.size());
      bytes.clear();
    } else {
      bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
      ++i;
    }
  }
  return frames;
}

struct GoldenMessage {
  const char* name;
  Message message;
  std::string hex;
};

inline std::vector<GoldenMessage> goldenMessages() {
  auto make = [](MsgType t) {
    Message m;
    m.type = t;
    m.id = 7;
    m.seq = 1;
    m.module = "M";
    m.method = "m";
    m.caller = "c";
    m.stream = "s";
    return m;
  };
  Message hello;
  hello.type = MsgType::Hello;
  hello.host = "h";
  hello.endpoint = "e";
  hello.heartbeatMs = 250;
  Message call = make(MsgType::Call);
  call.args = {ZRValue(1), ZRValue("x")};
  Message timed = call;
  timed.deadlineMs = 500;
  Message reply;
  reply.type = MsgType::Reply;
  reply.id = 7;
  reply.value = ZRValue(3);
  Message error = make(MsgType::Error);
  error.description = "boom";
  Message cancel;
  cancel.type = MsgType::Cancel;
  cancel.id = 7;
  Message data = make(MsgType::Data);
  data.seq = 2;
  const unsigned char bytes[] = {0xab, 0xcd};
  data.args = {ZRValue(bytes, 2)};
  Message credit;
  credit.type = MsgType::Credit;
  credit.stream = "s";
  credit.credits = 4;
  Message ping, bye;
  ping.type = MsgType::Ping;
  bye.type = MsgType::Bye;
  // Envelope keys, as msgpack strings.
  const std::string id = "a26964", seq = "a3736571", module = "a66d6f64756c65a14d",
                    method = "a66d6574686f64a16d", caller = "a663616c6c6572a163",
                    stream = "a673747265616da173";
  return {
      {"hello", hello,
       "5a52010100|83a4686f7374a168a8656e64706f696e74a165a9686561727462656174ccfa|c0"},
      {"call", call,
       "5a52010200|85" + id + "07" + seq + "01" + module + method + caller + "|9201a178"},
      {"call with deadline", timed,
       "5a52010200|86" + id + "07" + seq + "01" + module + method + caller +
           "a8646561646c696e65cd01f4|9201a178"},
      {"reply", reply, "5a52010300|81" + id + "07|03"},
      {"error", error,
       "5a52010400|84" + id + "07" + module + method + "ab6465736372697074696f6ea4626f6f6d|c0"},
      {"cancel", cancel, "5a52010500|81" + id + "07|c0"},
      {"data", data,
       "5a52010600|85" + stream + seq + "02" + module + method + caller +
           "|91d7010000000000000002|abcd"},
      {"credit", credit, "5a52010700|82" + stream + "a76372656469747304|c0"},
      {"ping", ping, "5a52010800|80|c0"},
      {"bye", bye, "5a52010900|80|c0"},
  };
}

}  // namespace net
}  // namespace ZR
