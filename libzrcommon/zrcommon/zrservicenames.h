#pragma once

// The names under which the platform's own services are published. Module writers and tools
// reach the services by these names; spelling them once keeps every caller in step.

namespace ZR {

inline constexpr const char* kMemoryServiceName = "ZRMemory";
inline constexpr const char* kAudioDeviceServiceName = "ZRAudioDevice";
/// Raised through the memory service when a finite source has delivered its last buffer.
inline constexpr const char* kEndOfStreamEvent = "ZRAudioDevice/EndOfStream";

}  // namespace ZR
