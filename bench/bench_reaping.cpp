// Reaping after kill -9: this process serves the directory and hosts "ZRMemory", a live
// "ZRAudioDevice" and SoundLevel; a client (`zr watch`) subscribes to SoundLevel's levels and is
// killed with SIGKILL once they flow. Measured: from the kill to SoundLevel's stop hook (its
// registry empty, its device subscription dropped), 20 runs; p50 and max are counters. The zr
// program is found in this build's tree, or at $ZR_BINARY.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>

#include "../tests/support/zrhostprocess.h"

namespace {

std::string zrProgram() {
  if (const char* p = std::getenv("ZR_BINARY")) return p;
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir(self, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
  dir = dir.substr(0, dir.rfind('/'));
  return dir + "/../tools/zr/zr";
}

void BM_ReapAfterKill(benchmark::State& state) {
  signal(SIGPIPE, SIG_IGN);
  ZR::ZRBrokerOptions o;
  o.directory = "tcp://127.0.0.1:0";
  o.serveDirectory = true;
  auto broker = ZR::ZRBroker::createBroker("bench", o);
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
  ZR::ZRAudioDeviceOptions d = ZR::ZRAudioDeviceOptions::fromInput("tone:440");
  d.realtime = true;
  auto device =
      ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, d);
  auto level =
      ZR::ZRExtractorRegistry::withStockExtractors().create("SoundLevel", broker, "SoundLevel");
  std::mutex m;
  std::condition_variable cv;
  int stops = 0;
  vo::log::addHandler(
      "bench-reaping",
      [&](const vo::log::Record& r) {
        if (r.message != "ZRSoundExtractor : stopDetection") return;
        std::lock_guard<std::mutex> lock(m);
        ++stops;
        cv.notify_all();
      },
      vo::LogLevel_Verbose);
  std::vector<double> ms;
  for (auto _ : state) {
    zrtest::HostProcess client(zrProgram(), {"watch", "SoundLevel/Levels", "--name", "client",
                                             "--directory", broker->endpoint()});
    if (client.waitFor("\"event\":\"Levels\"").empty()) {
      for (const auto& l : client.lines()) std::fprintf(stderr, "client: %s\n", l.c_str());
      state.SkipWithError("the client host did not start");
      break;
    }
    int before = 0;
    {
      std::lock_guard<std::mutex> lock(m);
      before = stops;
    }
    const auto start = std::chrono::steady_clock::now();
    client.kill9();
    std::unique_lock<std::mutex> lock(m);
    if (!cv.wait_for(lock, std::chrono::seconds(20), [&] { return stops > before; })) {
      state.SkipWithError("not reaped within 20 s");
      break;
    }
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(spent.count());
    ms.push_back(spent.count() * 1000);
  }
  vo::log::removeHandler("bench-reaping");
  if (!ms.empty()) {
    std::sort(ms.begin(), ms.end());
    state.counters["p50_ms"] = ms[ms.size() / 2];
    state.counters["max_ms"] = ms.back();
  }
  level.reset();
  broker->shutdown();
}
BENCHMARK(BM_ReapAfterKill)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
