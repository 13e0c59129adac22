#pragma once

// The names under which the platform's own services are published. Module writers and tools
// reach the services by these names; spelling them once keeps every caller in step.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace ZR {

inline constexpr const char* kMemoryServiceName = "ZRMemory";
inline constexpr const char* kAudioDeviceServiceName = "ZRAudioDevice";
/// Raised through the memory service when a finite source has delivered its last buffer.
inline constexpr const char* kEndOfStreamEvent = "ZRAudioDevice/EndOfStream";
/// Raised through the memory service for every run of samples lost on the way: at capture (an
/// overrun) or for one subscriber (its queue was full). Declared without a producer, so that
/// subscribing to it subscribes nobody to the device.
inline constexpr const char* kGapEvent = "ZRAudioDevice/Gap";
/// Raised by the memory service for every event it dropped for a subscriber that did not keep
/// up: [["subscriber", name], ["event", name], ["dropped", that subscriber's total so far]].
/// Listed once first raised; a subscription may come before.
inline constexpr const char* kEventDroppedEvent = "ZRMemory/EventDropped";

/// When the broker's shutdown destroys a module: ordinary modules (rank 0) first, then the
/// services, each after every module of a lower rank, since lower ranks use higher ones. The audio
/// device raises its events into the memory service, so it goes before it. A new platform
/// service takes its rank here.
inline int serviceShutdownRank(std::string_view moduleName) {
  if (moduleName == kAudioDeviceServiceName) return 1;
  if (moduleName == kMemoryServiceName) return 2;
  return 0;
}

/// What a module is, from its name and its remote methods: "service" (the platform's own),
/// "soundextractor", "extractor" or "module". Published with it, so that listings need not ask.
inline std::string moduleKind(std::string_view name, const std::vector<std::string>& methods) {
  auto has = [&](const char* m) {
    return std::find(methods.begin(), methods.end(), m) != methods.end();
  };
  if (name == kMemoryServiceName || name == kAudioDeviceServiceName) return "service";
  if (has("getSubscribersInfo") && has("getCurrentPeriod"))
    return has("processRemote") ? "soundextractor" : "extractor";
  return "module";
}

}  // namespace ZR
