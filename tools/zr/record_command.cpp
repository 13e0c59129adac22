// zr record FILE: records a running system (the sound of its device and the results of its
// extractors, each with its capture time) until Ctrl-C or a duration.

#include <signal.h>
#include <unistd.h>

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>

#include <vo/log.h>
#include <zrcommon/detail/zrlatencywindow.h>
#include <zrcommon/zrservicenames.h>
#include <zrproxies/zraudiodeviceproxy.h>
#include <zrproxies/zrmemoryproxy.h>

#include "command.h"
#include "eventclient.h"
#include "gaps.h"
#include "recording.h"
#include "remote.h"

namespace zr {
namespace {

class RecordCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "record",
        "Record the sound and results of a running system (zr host) to a file, until Ctrl-C.");
    record_.define(cmd, true);
    cmd->add_option("-e,--extractor", extractors_,
                    "Extractor whose events to record (repeatable; default: every extractor in "
                    "use, that is with a subscriber).");
    cmd->add_option("--duration", duration_, "Stop after T seconds.")
        ->check(CLI::Range(0.001, 31536000.0));
    cmd->add_option("--name", name_, "Client module name (default: zr-record-<host>-<pid>).");
    directory_.define(cmd);
    listen_.define(cmd);
    return cmd;
  }

  int run() override;

 private:
  // The extractors of the directory that have a subscriber.
  std::vector<std::string> extractorsInUse() {
    DirectoryView view(directory_);
    std::vector<std::string> inUse;
    for (const ZR::ZRDirectoryEntry& e : view.entries()) {
      try {
        const std::string kind = view.info(e).kind;
        if ((kind == "extractor" || kind == "soundextractor") &&
            view.call(e.name, "getSubscribersInfo").getSize() > 0)
          inUse.push_back(e.name);
      } catch (const ZR::ZRError&) {
        // Gone meanwhile: not in use.
      }
    }
    return inUse;
  }

  RecordOptions record_;
  std::vector<std::string> extractors_;
  double duration_ = 0.0;
  std::string name_ = clientName("record");
  DirectoryOptions directory_;
  ListenOptions listen_;
};

int RecordCommand::run() {
  vo::log::setLogLevel(vo::LogLevel_Error);
  const sigset_t signals = blockStopSignals();

  std::vector<std::string> needed{ZR::kMemoryServiceName};
  if (record_.withSound()) needed.push_back(ZR::kAudioDeviceServiceName);
  needed.insert(needed.end(), extractors_.begin(), extractors_.end());
  auto broker = joinNetwork(directory_, name_, listen_, needed);
  if (extractors_.empty()) extractors_ = extractorsInUse();
  ZR::ZRMemoryProxy memory(broker);
  std::map<std::string, std::string> producerOf;
  for (const std::string& e : extractors_)
    for (const std::string& ev : memory.getExtractorEvent(e)) producerOf[ev] = e;
  producerOf[ZR::kGapEvent] = ZR::kAudioDeviceServiceName;

  Recorder recorder(record_);
  auto client = ZR::ZRModule::createModule<EventClient>(
      broker, name_, "RecordClient", "zr record: records the events it receives.",
      [&](const std::string& event, const ZR::ZRValue& value) {
        auto it = producerOf.find(event);
        recorder.event(event, it == producerOf.end() ? "" : it->second, value,
                       ZR::detail::zrCurrentCaptureNs());
      });
  boost::shared_ptr<SoundClient> sound;
  std::unique_ptr<ZR::ZRAudioDeviceProxy> device;
  std::vector<std::string> subscribed;
  int status = 0;
  try {
    if (record_.withSound()) {
      device = std::make_unique<ZR::ZRAudioDeviceProxy>(broker);
      const int rate = device->getSampleRate();
      sound = ZR::ZRModule::createModule<SoundClient>(
          broker, name_ + "-sound",
          [&recorder, rate](int channels, int frames, const ZR::ZRValue& t, const ZR::ZRValue& b) {
            recorder.sound(ZR::kAudioDeviceServiceName, rate, channels, frames, t, b);
          });
      device->subscribe(sound->getName());
    }
    // A running extractor takes a new subscriber at the period and precision it runs with: the
    // recorder changes nothing.
    for (const std::string& e : extractors_)
      for (const std::string& ev : memory.getExtractorEvent(e)) {
        subscribeNewModule(memory, ev, name_, "onEvent");
        subscribed.push_back(ev);
      }
    subscribeToGaps(memory, name_, subscribed);
    std::string names;
    for (const std::string& e : extractors_) names += (names.empty() ? "" : ", ") + e;
    std::fprintf(stderr, "zr: recording %s%s to %s; stop with Ctrl-C\n",
                 record_.withSound() ? "the sound and the results of " : "the results of ",
                 names.empty() ? "no extractor (none is in use)" : names.c_str(),
                 record_.path.c_str());
    std::fflush(stderr);
    // Until a signal, the duration, or a write that failed (a full disk), said at once.
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(duration_);
    for (;;) {
      const double left =
          std::chrono::duration<double>(end - std::chrono::steady_clock::now()).count();
      if ((duration_ > 0 && left <= 0) || !recorder.failure().empty()) break;
      if (waitForStop(signals, duration_ > 0 ? std::min(left, 0.2) : 0.2)) break;
    }
  } catch (const ZR::ZRError& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    status = kExitError;
  }
  for (const std::string& ev : subscribed) {
    try {
      memory.unsubscribeToEvent(ev, name_);
    } catch (const ZR::ZRError&) {
      // The memory service is gone with its host: nothing to undo there.
    }
  }
  if (device && sound) {
    try {
      device->unsubscribe(sound->getName());
    } catch (const ZR::ZRError&) {
      // The device is gone with its host.
    }
  }
  client.reset();
  sound.reset();
  broker->shutdown();
  try {
    recorder.close();
  } catch (const ZR::ZRError& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    status = kExitError;
  }
  return status;
}

}  // namespace

std::unique_ptr<Command> makeRecordCommand() {
  return std::make_unique<RecordCommand>();
}

}  // namespace zr
