#pragma once

// Base64 (the standard alphabet, padded) for binary data carried in JSON text, such as the
// sound of a recording's messages.

#include <cstddef>
#include <string>
#include <string_view>

namespace ZR {

std::string zrBase64Encode(const void* data, std::size_t size);

/// Replaces `out` with the bytes `text` encodes; false (and `out` unspecified) for malformed
/// text: a character outside the alphabet, padding anywhere but at the end, a length that no
/// encoding has. Missing padding is accepted.
bool zrBase64Decode(std::string_view text, std::string& out);

}  // namespace ZR
