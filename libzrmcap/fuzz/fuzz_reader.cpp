// libFuzzer target: any bytes, read as a recording, give a summary and messages or a ZRError,
// never a crash, a leak, a hang or an allocation beyond what the bytes can hold. A file read
// through (no usable summary) visits exactly the messages its summary counts.

#include <cstdlib>

#include <zrerror/zrerror.h>
#include <zrmcap/zrmcap.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    ZR::ZRMcapReader reader(data, size, "fuzz");
    const auto& summary = reader.summary();
    std::uint64_t visited = 0, sum = 0;
    reader.forEachMessage([&](const ZR::ZRMcapMessage& m) {
      ++visited;
      for (std::size_t i = 0; i < m.size; ++i) sum += m.data[i];
      return true;
    });
    if (!summary.complete && visited != summary.messageCount) std::abort();
    // Through the chunk indexes, one channel alone.
    if (!summary.channels.empty()) {
      reader.forEachMessage([](const ZR::ZRMcapMessage&) { return true; },
                            {summary.channels.begin()->first});
    }
    if (sum == 1) return -1;  // keeps the reads of every byte
  } catch (const ZR::ZRError&) {
  }
  return 0;
}
