// zr: runs extraction pipelines and describes modules.

#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <thread>

#include <CLI/CLI.hpp>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <zrproxies/zrmemoryproxy.h>

#include "output.h"

namespace {

std::atomic<bool> gInterrupted{false};
extern "C" void onInterrupt(int) {
  gInterrupted = true;
}

/// The tool's own module: the client every extractor serves. ZRMemory calls onEvent for each
/// event it subscribed to.
class RunClient : public ZR::ZRModule {
 public:
  using Sink = std::function<void(const std::string& event, const ZR::ZRValue& value)>;
  RunClient(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, Sink sink)
      : ZRModule(broker, name), sink_(std::move(sink)) {
    setModuleDescription("The zr tool: receives the results it prints.");
    functionName("onEvent", "RunClient", "Receives one event from ZRMemory.", 0);
    addParam("eventName", "Name of the event.");
    addParam("value", "Value raised with it.");
    addParam("subscriberIdentifier", "Name of the subscriber.");
    bindMethod(&RunClient::onEvent);
  }
  void onEvent(const std::string& eventName, const ZR::ZRValue& value, const std::string&) {
    sink_(eventName, value);
  }

 private:
  Sink sink_;
};

struct RunOptions {
  std::string input;
  std::vector<std::string> extractors;
  int period = 100;
  bool periodGiven = false;
  std::string format = "table";
  std::string output;
  std::string plot;
  bool realtime = false;
  int rate = 0;
  int channels = 0;
  int buffer = 0;
  std::vector<std::string> libraries;
  std::string logLevel = "warning";
};

std::string sampleInput() {
  // Installed: share/zraudio beside bin/; from the build tree: the source's data/.
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    dir = dir.substr(0, dir.rfind('/'));
    const std::string installed = dir + "/../share/zraudio/sample.wav";
    if (access(installed.c_str(), R_OK) == 0) return installed;
  }
  return ZR_SOURCE_DATA_DIR "/sample.wav";
}

/// Seconds of audio in a sound file, 0 when unknown.
double fileDuration(const std::string& path) {
  SF_INFO info;
  std::memset(&info, 0, sizeof info);
  SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
  if (!f) return 0.0;
  sf_close(f);
  return info.samplerate > 0 ? static_cast<double>(info.frames) / info.samplerate : 0.0;
}

std::string shortEventName(const std::string& event, const std::string& extractor) {
  const std::string prefix = extractor + "/";
  return event.compare(0, prefix.size(), prefix) == 0 ? event.substr(prefix.size()) : event;
}

class Progress {
 public:
  explicit Progress(double total) : total_(total), start_(std::chrono::steady_clock::now()) {}
  void show(double done, bool final = false) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double speed = elapsed > 0 ? done / elapsed : 0.0;
    char line[160];
    if (total_ > 0) {
      const double pct = std::min(100.0, 100.0 * done / total_);
      const double left = speed > 0 ? (total_ - done) / speed : 0.0;
      const int width = 30, filled = static_cast<int>(pct / 100.0 * width);
      std::string bar(filled, '#');
      bar.resize(width, '-');
      std::snprintf(line, sizeof line, "\r[%s] %5.1f%%  %7.1fx real time  %5.1f s left ",
                    bar.c_str(), pct, speed, final ? 0.0 : left);
    } else {
      std::snprintf(line, sizeof line, "\r%8.1f s of audio  %7.1fx real time ", done, speed);
    }
    std::fputs(line, stderr);
    if (final) std::fputs("\n", stderr);
    std::fflush(stderr);
  }

 private:
  double total_;
  std::chrono::steady_clock::time_point start_;
};

int run(const RunOptions& o) {
  vo::LogLevel level;
  if (!vo::log::parseLogLevel(o.logLevel, level))
    throw CLI::ValidationError(
        "--log-level",
        "unknown level " + o.logLevel + " (silent, fatal, error, warning, info, verbose, debug)");
  vo::log::setLogLevel(level);

  const std::string input = o.input.empty() ? sampleInput() : o.input;
  ZR::ZRAudioDeviceOptions device = ZR::ZRAudioDeviceOptions::fromInput(input);
  if (o.rate > 0) device.sampleRate = o.rate;
  if (o.channels > 0) device.channelCount = o.channels;
  if (o.buffer > 0) device.samplesPerBuffer = o.buffer;
  device.realtime = o.realtime;
  const bool isFile = device.source == ZR::ZRAudioDeviceOptions::Source::File;
  if (isFile && access(device.path.c_str(), R_OK) != 0)
    throw std::runtime_error("cannot read input " + device.path + ": " + std::strerror(errno));
  const bool ends = isFile || device.source == ZR::ZRAudioDeviceOptions::Source::RawPcm ||
                    device.durationSeconds.has_value();

  ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors(o.period);
  for (const std::string& lib : o.libraries) registry.loadPlugin(lib);
  std::vector<std::string> extractors;
  for (const std::string& e : o.extractors)  // each runs once, however often it is named
    if (std::find(extractors.begin(), extractors.end(), e) == extractors.end())
      extractors.push_back(e);
  if (extractors.empty()) extractors = {"SoundLevel", "VoiceActivity"};
  for (const std::string& e : extractors) registry.require(e);

  std::FILE* out = stdout;
  if (!o.output.empty() && o.output != "-") {
    out = std::fopen(o.output.c_str(), "w");
    if (!out) throw std::runtime_error("cannot write " + o.output + ": " + std::strerror(errno));
  }
  std::unique_ptr<zr::ResultWriter> writer = zr::ResultWriter::create(o.format, out);
  zr::PlotData plot;
  std::mutex outMutex;
  std::map<std::string, std::string> producerOf;  // event -> extractor module

  auto broker = ZR::ZRBroker::createBroker("zr");
  auto memory = ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory", 1 << 20);
  auto audio = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, "ZRAudioDevice", device);
  audio->hold();
  for (const std::string& e : extractors) registry.create(e, broker, e);
  ZR::ZRMemoryProxy memoryProxy(broker);
  for (const std::string& e : extractors)
    for (const std::string& ev : memoryProxy.getExtractorEvent(e)) producerOf[ev] = e;

  auto client = ZR::ZRModule::createModule<RunClient>(
      broker, "zr", [&](const std::string& event, const ZR::ZRValue& value) {
        auto it = producerOf.find(event);
        const std::string extractor =
            it == producerOf.end() ? event.substr(0, event.find('/')) : it->second;
        zr::Result r{extractor, shortEventName(event, extractor), value};
        std::lock_guard<std::mutex> lock(outMutex);
        writer->write(r);
        if (!o.plot.empty()) plot.add(r);
      });

  // Subscribing to its events subscribes the tool to each extractor, which starts it; the device
  // is held until all of them listen, so that none misses the start of the input.
  std::vector<std::string> subscribed;
  for (const std::string& e : extractors) {
    const std::vector<std::string> events = memoryProxy.getExtractorEvent(e);
    if (events.empty())
      std::fprintf(stderr, "zr: %s declares no events: it runs, but has nothing to show\n",
                   e.c_str());
    for (const std::string& ev : events) {
      memoryProxy.subscribeToEvent(ev, "zr", "onEvent");
      subscribed.push_back(ev);
    }
    if (events.empty()) broker->getProxy(e, 0)->call<void>("subscribe", std::string("zr"));
    if (o.periodGiven)
      broker->getProxy(e, 0)->call<void>("updatePeriod", std::string("zr"), o.period);
  }

  // Nothing is delivered before release(): the header still comes first.
  writer->begin();
  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
  const auto started = std::chrono::steady_clock::now();
  // The bar shares the terminal with the results only when they go elsewhere.
  const bool showProgress = isatty(STDERR_FILENO) && (out != stdout || !isatty(STDOUT_FILENO));
  const double total = isFile ? fileDuration(device.path) : 0.0;
  Progress progress(total);
  auto audioSeconds = [&] {
    const double rate = audio->getSampleRate();
    std::int64_t delivered = 0;
    for (const std::string& e : extractors) {
      try {
        delivered = std::max(delivered, audio->getDeliveryStats(e).delivered);
      } catch (const ZR::ZRError&) {
        // An extractor that does not listen to the device.
      }
    }
    const double seconds =
        rate > 0 ? static_cast<double>(delivered) * audio->getSamplesPerBuffer() / rate : 0.0;
    return total > 0 ? std::min(seconds, total) : seconds;  // the last buffer may be short
  };
  audio->release();
  while (!gInterrupted) {
    if (ends) {
      if (audio->waitForEndOfStream(100)) break;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (showProgress) progress.show(audioSeconds());
  }
  if (showProgress) progress.show(audioSeconds(), true);

  // Close what is still open (a speech segment at the end of the input), then let every result
  // reach the writer before unsubscribing.
  audio->waitUntilIdle(5000);
  for (const std::string& e : extractors) {
    auto p = broker->getProxy(e, 0);
    const auto methods = p->call<std::vector<std::string>>("getMethodList");
    if (std::find(methods.begin(), methods.end(), "flush") != methods.end()) p->call<void>("flush");
  }
  memory->waitForDeliveries(std::chrono::seconds(10));
  for (const std::string& ev : subscribed) memoryProxy.unsubscribeToEvent(ev, "zr");
  memory->waitForDeliveries(std::chrono::seconds(10));
  {
    std::lock_guard<std::mutex> lock(outMutex);
    writer->end();
    std::fflush(out);
  }
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const double processed = audioSeconds();
  client.reset();
  audio.reset();
  memory.reset();
  broker->shutdown();
  if (out != stdout) std::fclose(out);

  if (!o.plot.empty()) plot.render(o.plot, "zr run " + input);
  std::fprintf(stderr, "zr: %.2f s of audio in %.2f s (%.0fx real time)%s\n", processed, wall,
               wall > 0 ? processed / wall : 0.0, gInterrupted ? ", interrupted" : "");
  return 0;
}

int describe(const std::string& name, const std::vector<std::string>& libraries) {
  vo::log::setLogLevel(vo::LogLevel_Error);
  ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
  for (const std::string& lib : libraries) registry.loadPlugin(lib);
  auto broker = ZR::ZRBroker::createBroker("zr");
  ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory");
  ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, "ZRAudioDevice");
  // The services are there already; anything else is an extractor type.
  if (name != "ZRMemory" && name != "ZRAudioDevice") registry.create(name, broker, name);
  auto core = boost::dynamic_pointer_cast<ZR::ZRModuleCore>(broker->session()->service(name));
  const std::vector<ZR::ZRMethodDescription> methods = core->getMethodDescriptions();
  const std::string description = core->getModuleDescription();
  core.reset();
  std::printf("%s%s%s\n\n", name.c_str(), description.empty() ? "" : ": ", description.c_str());
  for (const ZR::ZRMethodDescription& m : methods) {
    std::printf("%s    [%s]\n", m.signature.c_str(), m.moduleName.c_str());
    if (!m.description.empty()) std::printf("    %s\n", m.description.c_str());
    for (const auto& p : m.parameters)
      std::printf("    - %s: %s\n", p.name.c_str(), p.documentation.c_str());
    if (!m.returnName.empty())
      std::printf("    returns %s: %s\n", m.returnName.c_str(), m.returnDocumentation.c_str());
    std::printf("\n");
  }
  broker->shutdown();
  return 0;
}

int list(const std::vector<std::string>& libraries) {
  ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
  for (const std::string& lib : libraries) registry.loadPlugin(lib);
  for (const auto& e : registry.entries())
    std::printf("%-16s %s\n", e.typeName.c_str(), e.description.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"zr: run sound extractors on a file, a microphone or a synthetic signal."};
  app.require_subcommand(1);
  app.set_version_flag("--version", "zr 0.1.0");

  RunOptions o;
  CLI::App* runCmd =
      app.add_subcommand("run", "Run extractors on an input and print their results.");
  runCmd->add_option(
      "INPUT", o.input,
      "A sound file (WAV, FLAC, OGG), - for raw 16-bit PCM on standard input, mic or "
      "mic:DEVICE, tone:HZ, noise or silence. Default: the bundled speech sample.");
  runCmd->add_option("-e,--extractor", o.extractors,
                     "Extractor to run (repeatable; default: SoundLevel and VoiceActivity).");
  runCmd
      ->add_option("-p,--period", o.period, "Refresh period in ms of audio (SoundLevel's window).")
      ->check(CLI::Range(1, 3600000))
      ->each([&](const std::string&) { o.periodGiven = true; });
  runCmd->add_option("-f,--format", o.format, "Output format.")
      ->check(CLI::IsMember({"table", "csv", "jsonl"}));
  runCmd->add_option("-o,--output", o.output, "Write results to FILE instead of standard output.");
  runCmd->add_option("--plot", o.plot,
                     "Draw levels over time, speech shaded, to FILE.png or FILE.svg.");
  runCmd->add_flag("--realtime", o.realtime,
                   "Pace the input at real time (drops when extractors lag).");
  runCmd->add_option("--rate", o.rate, "Sample rate in Hz (a file is resampled).")
      ->check(CLI::Range(1000, 384000));
  runCmd->add_option("--channels", o.channels, "Channel count.")->check(CLI::Range(1, 32));
  runCmd->add_option("--buffer", o.buffer, "Samples per channel in each buffer.")
      ->check(CLI::Range(1, 1 << 20));
  runCmd->add_option("--load", o.libraries,
                     "Load extractor types from a plugin library (repeatable).");
  runCmd->add_option("--log-level", o.logLevel,
                     "silent, fatal, error, warning (default), info, verbose or debug.");

  std::string describeName;
  std::vector<std::string> describeLibraries;
  CLI::App* describeCmd =
      app.add_subcommand("describe", "Print a module's remote methods with their documentation.");
  describeCmd
      ->add_option("NAME", describeName,
                   "SoundLevel, VoiceActivity, ZRMemory, ZRAudioDevice or a plugin's extractor.")
      ->required();
  describeCmd->add_option("--load", describeLibraries,
                          "Load extractor types from a plugin library.");

  std::vector<std::string> listLibraries;
  CLI::App* listCmd = app.add_subcommand("list", "List the extractors zr can run.");
  listCmd->add_option("--load", listLibraries, "Load extractor types from a plugin library.");

  auto isCommand = [&](const std::string& name) {
    for (const CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
      if (sub->get_name() == name) return true;
    return false;
  };
  if (argc > 1 && argv[1][0] != '-' && !isCommand(argv[1])) {
    std::fprintf(stderr, "zr: error: unknown command \"%s\" (run, describe, list; see zr --help)\n",
                 argv[1]);
    return 2;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  try {
    if (*runCmd) return run(o);
    if (*describeCmd) return describe(describeName, describeLibraries);
    if (*listCmd) return list(listLibraries);
  } catch (const CLI::Error& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    return 1;
  }
  return 0;
}
