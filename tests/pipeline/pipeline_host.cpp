// A pipeline host for the multi-process tests: a broker joining (or serving) a directory, with
// the modules its flags choose.
//   zr_pipeline_host NAME --directory ADDR [--serve] [--heartbeat MS] [--memory]
//       [--device INPUT [--live] [--held] [--buffer SAMPLES]] [--extractor TYPE]...
//       [--client EVENT]... [--sink MODULE]... [--slow-sink MODULE]
// INPUT as for `zr run` (a sound file, tone:HZ, noise, ...); TYPE a stock extractor. The client
// module "Client" subscribes to each EVENT through "ZRMemory" once the event's producer runs,
// then prints "subscribed"; each callback prints "event EVENT VALUE" (floats exact). A sink
// subscribes to "ZRAudioDevice" and prints "buffer MODULE N" per buffer; the slow one holds its
// first buffer until a line "release" comes on standard input. Prints "ready ENDPOINT" once its
// modules run, "log CATEGORY MESSAGE" for the platform's pipeline records, "error TEXT" when a
// subscription fails; shuts down and exits 0 when its standard input closes.
#include <cstdio>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>

#include "pipeline_modules.h"

namespace {

std::mutex outMutex;
void say(const std::string& line) {
  std::lock_guard<std::mutex> lock(outMutex);
  std::cout << line << std::endl;
}

struct Flags {
  ZR::ZRBrokerOptions broker;
  bool memory = false, live = false, held = false;
  std::string device, slowSink;
  int buffer = 0;
  std::vector<std::string> extractors, events, sinks;
};

bool parse(int argc, char** argv, Flags& f) {
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    const bool more = i + 1 < argc;
    if (a == "--serve") {
      f.broker.serveDirectory = true;
    } else if (a == "--memory") {
      f.memory = true;
    } else if (a == "--live") {
      f.live = true;
    } else if (a == "--held") {
      f.held = true;
    } else if (a == "--directory" && more) {
      f.broker.directory = argv[++i];
    } else if (a == "--heartbeat" && more) {
      f.broker.heartbeat = std::chrono::milliseconds(std::stoi(argv[++i]));
    } else if (a == "--buffer" && more) {
      f.buffer = std::stoi(argv[++i]);
    } else if (a == "--device" && more) {
      f.device = argv[++i];
    } else if (a == "--extractor" && more) {
      f.extractors.push_back(argv[++i]);
    } else if (a == "--client" && more) {
      f.events.push_back(argv[++i]);
    } else if (a == "--sink" && more) {
      f.sinks.push_back(argv[++i]);
    } else if (a == "--slow-sink" && more) {
      f.slowSink = argv[++i];
    } else {
      std::cerr << argv[0] << ": unknown argument " << a << std::endl;
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Flags f;
  if (argc < 2 || !parse(argc, argv, f)) {
    std::cerr << "usage: " << argv[0] << " NAME --directory ADDR [options] (see the source)\n";
    return 2;
  }
  vo::log::addHandler(
      "pipeline-host",
      [](const vo::log::Record& r) {
        for (const char* c : {"zrcommon.ZRReaper", "zraudiodevice", "audio.zrsoundextractor"})
          if (r.category == c) say("log " + r.category + " " + r.message);
      },
      vo::LogLevel_Verbose);
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  try {
    auto broker = ZR::ZRBroker::createBroker(argv[1], f.broker);
    auto session = broker->session();
    boost::shared_ptr<ZR::ZRMemory> memory;
    boost::shared_ptr<ZR::ZRAudioDevice> device;
    std::vector<boost::shared_ptr<ZR::ZRModuleCore>> modules;
    if (f.memory)
      memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName, 1 << 16);
    if (!f.device.empty()) {
      ZR::ZRAudioDeviceOptions o = ZR::ZRAudioDeviceOptions::fromInput(f.device);
      o.realtime = f.live;
      o.held = f.held;
      if (f.buffer > 0) o.samplesPerBuffer = f.buffer;
      device =
          ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName, o);
    }
    const ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
    for (const auto& e : f.extractors) modules.push_back(registry.create(e, broker, e));
    auto print = [](const std::string& sink, int n) {
      say("buffer " + sink + " " + std::to_string(n));
    };
    for (const auto& s : f.sinks)
      modules.push_back(ZR::ZRModule::createModule<zrtest::PipeSink>(broker, s, print));
    if (!f.slowSink.empty())
      modules.push_back(
          ZR::ZRModule::createModule<zrtest::PipeSink>(broker, f.slowSink, print, gate));
    if (!f.sinks.empty() || !f.slowSink.empty()) {
      session->waitForService(ZR::kAudioDeviceServiceName).wait();
      auto d = broker->getProxy(ZR::kAudioDeviceServiceName);
      for (const auto& s : f.sinks) d->call<void>("subscribe", s);
      if (!f.slowSink.empty()) d->call<void>("subscribe", f.slowSink);
    }
    if (!f.events.empty()) {
      modules.push_back(ZR::ZRModule::createModule<zrtest::PipeClient>(
          broker, "Client", [](const std::string& event, const ZR::ZRValue& value) {
            say("event " + event + " " + zrtest::render(value));
          }));
      session->waitForService(ZR::kMemoryServiceName).wait();
      ZR::ZRMemoryProxy proxy(broker);
      for (const auto& event : f.events) {
        const std::string producer = event.substr(0, event.find('/'));
        if (producer != ZR::kAudioDeviceServiceName) session->waitForService(producer).wait();
        try {
          proxy.subscribeToEvent(event, "Client", "onEvent");
        } catch (const ZR::ZRError& e) {
          say(std::string("error ") + e.what());
        }
      }
      say("subscribed");
    }
    say("ready " + broker->endpoint());
    for (std::string line; std::getline(std::cin, line);)
      if (line == "release") release.set_value();
    if (!f.slowSink.empty() && gate.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
      release.set_value();
    modules.clear();
    device.reset();
    memory.reset();
    broker->shutdown();
  } catch (const std::exception& e) {
    std::cerr << argv[0] << ": " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
