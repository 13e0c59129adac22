#pragma once

// Golden messages, one per message type: the wire test checks their bytes, the fuzzer starts
// from them. The bytes come from the protocol document's tables (ZR_PROTOCOL_DOC), their only
// copy; the messages they stand for are built here. Frames are written in hex, separated by '|'.

#include <fstream>
#include <map>
#include <stdexcept>
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

/// The rows of the table that follows `heading` in the protocol document: first cell -> the
/// backquoted hex of the second, frames joined by '|'.
inline std::map<std::string, std::string> goldenTable(const std::string& heading) {
  std::ifstream in(ZR_PROTOCOL_DOC);
  if (!in) throw std::runtime_error(std::string("cannot read ") + ZR_PROTOCOL_DOC);
  std::map<std::string, std::string> rows;
  bool inSection = false;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(heading, 0) == 0) inSection = true;
    if (!inSection) continue;
    if (!rows.empty() && line.empty()) break;  // the table ended
    if (line.rfind("| ", 0) != 0 || line.find('`') == std::string::npos) continue;
    const std::size_t split = line.find(" | `");
    const std::string label = line.substr(2, split - 2);
    std::string hex;
    for (std::size_t at = line.find('`', split); at != std::string::npos;) {
      const std::size_t end = line.find('`', at + 1);
      hex += (hex.empty() ? "" : "|") + line.substr(at + 1, end - at - 1);
      at = line.find('`', end + 1);
    }
    rows[label] = hex;
  }
  if (rows.empty()) throw std::runtime_error("no table after \"" + heading + "\"");
  return rows;
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
  Message lossless = data;
  lossless.lossless = true;
  Message ping, bye;
  ping.type = MsgType::Ping;
  bye.type = MsgType::Bye;
  Message streamError = make(MsgType::StreamError);
  streamError.seq = 2;
  streamError.description = "boom";
  const std::vector<std::pair<const char*, Message>> messages = {
      {"hello host \"h\", endpoint \"e\", heartbeat 250", hello},
      {"call id 7, seq 1, module \"M\", method \"m\", caller \"c\", args [1, \"x\"]", call},
      {"the same call with deadline 500", timed},
      {"reply id 7, value 3", reply},
      {"error id 7, \"M\", \"m\", \"boom\"", error},
      {"cancel id 7", cancel},
      {"data stream \"s\", seq 2, \"M\", \"m\", \"c\", args [binary ab cd]", data},
      {"the same data, lossless", lossless},
      {"credit stream \"s\", 4 credits", credit},
      {"ping", ping},
      {"bye", bye},
      {"stream error stream \"s\", seq 2, \"M\", \"m\", \"boom\"", streamError},
  };
  const std::map<std::string, std::string> table = goldenTable("## Golden messages");
  std::vector<GoldenMessage> out;
  for (const auto& [label, message] : messages) {
    auto row = table.find(label);
    if (row == table.end()) throw std::runtime_error(std::string("no golden row: ") + label);
    out.push_back({label, message, row->second});
  }
  if (out.size() != table.size()) throw std::runtime_error("a golden row has no message here");
  return out;
}

}  // namespace net
}  // namespace ZR
