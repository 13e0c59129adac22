#pragma once

// The viewers' protocol's messages as the bridge writes and reads them: JSON status and failure
// messages, and the little-endian binary frames of message data and service calls.

#include <cstdint>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

namespace zr::bridge {

constexpr const char* kSubprotocol = "foxglove.websocket.v1";
constexpr std::uint8_t kMessageData = 1, kServiceCallRequest = 2, kServiceCallResponse = 3;
constexpr std::size_t kServiceCallHeader = 13;  // opcode, service, call, encoding length
enum StatusLevel { kInfo = 0, kWarning = 1, kError = 2 };

inline std::string jsonText(const nlohmann::ordered_json& j) {
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

inline std::string statusJson(StatusLevel level, const std::string& message,
                              const std::string& id = "") {
  nlohmann::ordered_json s = {{"op", "status"}, {"level", level}, {"message", message}};
  if (!id.empty()) s["id"] = id;
  return jsonText(s);
}

inline std::string callFailureJson(std::uint32_t service, std::uint32_t call,
                                   const std::string& why) {
  return jsonText(
      {{"op", "serviceCallFailure"}, {"serviceId", service}, {"callId", call}, {"message", why}});
}

inline void putLE(std::string& out, std::uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
}

inline std::uint32_t getU32(const std::string& in, std::size_t at) {
  std::uint32_t v = 0;
  for (int i = 0; i < 4; ++i)
    v |= static_cast<std::uint32_t>(static_cast<unsigned char>(in[at + i])) << (8 * i);
  return v;
}

inline std::string messageData(std::uint32_t subscription, std::uint64_t ns,
                               const std::string& payload) {
  std::string out;
  out.reserve(13 + payload.size());
  out.push_back(static_cast<char>(kMessageData));
  putLE(out, subscription, 4);
  putLE(out, ns, 8);
  return out + payload;
}

inline std::string callResponse(std::uint32_t service, std::uint32_t call,
                                const std::string& json) {
  std::string out(1, static_cast<char>(kServiceCallResponse));
  putLE(out, service, 4);
  putLE(out, call, 4);
  putLE(out, 4, 4);
  return out + "json" + json;
}

inline std::string randomHex(int bytes) {
  std::random_device rd;
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < bytes; ++i) {
    const unsigned b = rd() & 0xff;
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

}  // namespace zr::bridge
