#pragma once

// The error descriptions that code, ours and our users', compares to tell one failure from
// another. Each is written here only: whoever raises it and whoever recognises it reads the
// same text. Other descriptions are for people and may change.

namespace ZR {

/// The callee is gone: destroyed, its host dead or unreachable, or shut down while the call was
/// pending. A caller may wait for the name to come back and call again.
inline constexpr const char* kModuleDestroyed = "module destroyed";
/// The caller's deadline passed before the answer came; the callee was told to drop the call.
inline constexpr const char* kDeadlineExceeded = "deadline exceeded";

}  // namespace ZR
