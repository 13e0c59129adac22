// VoiceActivity alone on the bundled sample (16 kHz mono speech in noise), buffers of 100 ms
// handed straight to process(): the "x_realtime" counter is seconds of sound analysed per second
// of the analysing thread's CPU time, the wall-clock figure of an otherwise idle machine (the
// target is 2000 or more); Time and CPU side by side show how busy the machine was.

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include <benchmark/benchmark.h>

#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/voiceactivity.h>
#include <zrmemory/zrmemory.h>

namespace {

// The samples of a 16-bit PCM WAV file (the sample is one: no need for a library here).
std::vector<short> readWav(const char* path) {
  std::ifstream f(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(f)),
                                std::istreambuf_iterator<char>());
  for (std::size_t i = 12; i + 8 <= bytes.size();) {
    std::uint32_t size;
    std::memcpy(&size, &bytes[i + 4], 4);
    if (std::memcmp(&bytes[i], "data", 4) == 0) {
      std::vector<short> out(std::min<std::size_t>(size, bytes.size() - i - 8) / 2);
      std::memcpy(out.data(), &bytes[i + 8], out.size() * 2);
      return out;
    }
    i += 8 + size + (size & 1);
  }
  throw std::runtime_error(std::string("no PCM data in ") + path);
}

void VoiceActivityMono16k(benchmark::State& state) {
  vo::log::setLogLevel(vo::LogLevel_Error);  // no audio device here: its warning is expected
  auto broker = ZR::ZRBroker::createBroker("bench", 1);
  ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
  auto voice = ZR::ZRModule::createModule<ZR::VoiceActivity>(broker, "VoiceActivity");
  const std::vector<short> pcm = readWav(ZR_SAMPLE);
  constexpr int kBuffer = 1600;
  std::int64_t delivered = 0;
  for (auto _ : state) {
    for (std::size_t i = 0; i + kBuffer <= pcm.size(); i += kBuffer, delivered += kBuffer) {
      ZR::ZRValue ts;
      ts.arraySetSize(2);
      ts[0] = static_cast<int>(delivered / 16000);
      ts[1] = static_cast<int>(delivered % 16000 * 62.5);
      voice->process(1, kBuffer, &pcm[i], ts);
    }
  }
  state.counters["x_realtime"] =
      benchmark::Counter(static_cast<double>(delivered) / 16000.0, benchmark::Counter::kIsRate);
  voice.reset();
  broker->shutdown();
}
BENCHMARK(VoiceActivityMono16k)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
