// Base64 encoding and strict decoding.

#include <zrmcap/zrbase64.h>

#include <array>
#include <cstdint>

namespace ZR {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> decodingTable() {
  std::array<std::int8_t, 256> t{};
  for (auto& v : t) v = -1;
  for (int i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  return t;
}
constexpr auto kDecoding = decodingTable();

}  // namespace

std::string zrBase64Encode(const void* data, std::size_t size) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  std::string out;
  out.resize((size + 2) / 3 * 4);
  char* o = out.data();
  std::size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    const std::uint32_t v = (std::uint32_t{p[i]} << 16) | (std::uint32_t{p[i + 1]} << 8) | p[i + 2];
    *o++ = kAlphabet[v >> 18];
    *o++ = kAlphabet[(v >> 12) & 63];
    *o++ = kAlphabet[(v >> 6) & 63];
    *o++ = kAlphabet[v & 63];
  }
  if (i < size) {
    const bool two = i + 1 < size;
    const std::uint32_t v = (std::uint32_t{p[i]} << 16) | (two ? std::uint32_t{p[i + 1]} << 8 : 0);
    *o++ = kAlphabet[v >> 18];
    *o++ = kAlphabet[(v >> 12) & 63];
    *o++ = two ? kAlphabet[(v >> 6) & 63] : '=';
    *o++ = '=';
  }
  return out;
}

bool zrBase64Decode(std::string_view text, std::string& out) {
  std::size_t n = text.size();
  if (n % 4 == 0 && n > 0 && text[n - 1] == '=') n -= text[n - 2] == '=' ? 2 : 1;
  if (n % 4 == 1) return false;
  out.clear();
  out.reserve(n / 4 * 3 + 2);
  std::uint32_t acc = 0;
  int bits = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const std::int8_t v = kDecoding[static_cast<unsigned char>(text[i])];
    if (v < 0) return false;
    acc = (acc << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xff));
    }
  }
  return true;
}

}  // namespace ZR
