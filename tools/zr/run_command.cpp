// zr run: extractors on an input, results streamed as they come.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <mutex>
#include <optional>
#include <utility>

#include <sys/stat.h>

#include <vo/log.h>

#include "arrayoption.h"
#include "command.h"
#include "gaps.h"
#include "input.h"
#include "pipeline.h"
#include "plot.h"
#include "progress.h"
#include "recording.h"
#include "timeorder.h"

namespace zr {
namespace {

std::atomic<bool> gInterrupted{false};
extern "C" void onInterrupt(int) {
  gInterrupted = true;
}

/// "Module::method: " prefixes of a chain of rethrown errors, down to the cause itself.
std::string innermost(std::string text) {
  auto name = [](const std::string& s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
      return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("_./-", c);
    });
  };
  for (;;) {
    const std::size_t colon = text.find(": "), scope = text.find("::");
    if (colon == std::string::npos || scope == std::string::npos || scope > colon ||
        !name(text.substr(0, scope)) || !name(text.substr(scope + 2, colon - scope - 2)))
      return text;
    text.erase(0, colon + 2);
  }
}

/// A failed delivery as the device words it: `"processRemote" of "X" failed on the buffer at
/// T s: CAUSE (N warnings held back)`, taken apart into X, T and CAUSE; false for anything else.
bool failedDelivery(const std::string& message, std::string& module, double& at,
                    std::string& cause) {
  const std::string of = "\"processRemote\" of \"", failed = "\" failed on the buffer at ",
                    seconds = " s: ", held = " warnings held back)";
  const std::size_t a = message.find(of);
  const std::size_t b = a == std::string::npos ? a : message.find(failed, a + of.size());
  const std::size_t c = b == std::string::npos ? b : message.find(seconds, b + failed.size());
  const std::size_t d = message.rfind(" (");
  if (c == std::string::npos || d == std::string::npos || d < c ||
      message.compare(message.size() - held.size(), held.size(), held) != 0)
    return false;
  module = message.substr(a + of.size(), b - a - of.size());
  char* end = nullptr;
  const std::string time = message.substr(b + failed.size(), c - b - failed.size());
  at = std::strtod(time.c_str(), &end);
  cause = message.substr(c + seconds.size(), d - c - seconds.size());
  return end && *end == '\0' && !time.empty();
}

/// The log during a run: records print as the console handler prints them, except that the
/// first error (a source that failed mid-stream, say) and the first failed delivery to an
/// extractor (its "process" threw) are kept back, to become the input's own closing error line.
/// Restores the console handler when it goes.
class RunLog {
 public:
  explicit RunLog(vo::LogLevel level) : level_(level) {
    vo::log::setLogLevel(level);
    vo::log::removeHandler(vo::log::kConsoleHandlerName);
    // Errors are wanted even when the user silenced the log: they decide the exit status.
    vo::log::addHandler(
        kName, [this](const vo::log::Record& r) { print(r); },
        std::max(level, vo::LogLevel_Warning));
  }
  ~RunLog() {
    vo::log::removeHandler(kName);
    vo::log::addConsoleHandler();
  }
  /// The failure kept back since the last call, or "", and where in the input an extractor
  /// failed (infinity when none did).
  std::pair<std::string, double> takeFailure() {
    std::lock_guard<std::mutex> lock(mutex_);
    extractorFailed_ = false;
    return {std::exchange(failure_, std::string()),
            std::exchange(failedAt_, std::numeric_limits<double>::infinity())};
  }
  /// True once an extractor failed: the input stops there.
  bool extractorFailed() const { return extractorFailed_; }

 private:
  void print(const vo::log::Record& r) {
    std::lock_guard<std::mutex> lock(mutex_);
    // The device says so when a subscriber's "processRemote" threw.
    std::string module, cause;
    double at = 0.0;
    const bool extractorFailed = r.category == "zraudiodevice" && r.function == "deliver" &&
                                 failedDelivery(r.message, module, at, cause);
    if ((extractorFailed || r.level <= vo::LogLevel_Error) && failure_.empty()) {
      if (extractorFailed) {
        char where[32];
        std::snprintf(where, sizeof where, "%.3f", at);
        failure_ =
            "extractor " + module + " failed at " + where + " s of audio: " + innermost(cause);
        failedAt_ = at;
        extractorFailed_ = true;
      } else {
        failure_ = r.message.empty() ? r.category + " failed" : innermost(r.message);
      }
      return;
    }
    if (r.level > level_ || extractorFailed) return;
    std::fprintf(stderr, "[%s] %s: %s\n", vo::log::logLevelName(r.level), r.category.c_str(),
                 r.message.c_str());
  }
  static constexpr const char* kName = "zr-run";
  const vo::LogLevel level_;
  std::mutex mutex_;
  std::string failure_;
  double failedAt_ = std::numeric_limits<double>::infinity();
  std::atomic<bool> extractorFailed_{false};
};

struct RunOptions {
  std::vector<std::string> inputs;
  std::vector<std::string> extractors;
  int period = 100;
  bool periodGiven = false;
  float precision = 0.0f;
  std::string format = "table";
  std::string output;
  std::string plot;
  DeviceFlags device;
  std::vector<std::string> libraries;
  std::string logLevel = "warning";
  std::string array;
};

/// How one input went.
struct InputOutcome {
  double processed = 0.0, wall = 0.0;
  bool interrupted = false, started = false;
  std::string failure;  // "" when it ran to its end
};

class RunCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    RunOptions& o = o_;
    CLI::App* cmd =
        app.add_subcommand("run", "Run extractors on an input and print their results.");
    cmd_ = cmd;
    input_ = cmd->add_option(
        "INPUT", o.inputs,
        "A sound file (WAV, FLAC, OGG...), - for raw 16-bit PCM on standard input, mic or "
        "mic:DEVICE, tone:HZ, noise or silence. Several sound files or directories of them run "
        "one after the other, each result with its \"file\". Default: the bundled speech sample.");
    cmd->add_option("-e,--extractor", o.extractors,
                    "Extractor to run (repeatable; default: SoundLevel and VoiceActivity).");
    cmd->add_option("-p,--period", o.period, "Refresh period in ms of audio (SoundLevel's window).")
        ->check(CLI::Range(1, 3600000))
        ->each([&o](const std::string&) { o.periodGiven = true; });
    precision_ = cmd->add_option("--precision", o.precision,
                                 "Precision from 0 to 1 every extractor is subscribed with "
                                 "(default: each extractor's own).")
                     ->check(CLI::Range(0.0f, 1.0f));
    cmd->add_option("-f,--format", o.format, "Output format.")
        ->check(CLI::IsMember({"table", "csv", "jsonl"}));
    cmd->add_option("-o,--output", o.output, "Write results to FILE instead of standard output.");
    cmd->add_option("--plot", o.plot,
                    "Draw levels over time, speech shaded, to FILE.png or FILE.svg.")
        ->check([](const std::string& path) {
          return plotTerminal(path).empty() ? "wants a .png or .svg file, not " + path
                                            : std::string();
        });
    o.device.define(cmd);
    cmd->add_option("--load", o.libraries,
                    "Load extractor types from a plugin library (repeatable).");
    defineArrayOption(cmd, o.array);
    cmd->add_option("--log-level", o.logLevel,
                    "silent, fatal, error, warning (default), info, verbose or debug.");
    directory_.define(cmd);
    cmd->get_option("--directory")
        ->description(
            "Run on the ZRMemory, ZRAudioDevice and extractors that running hosts "
            "publish there (zr host), instead of in this process.");
    listen_.define(cmd);
    record_.define(cmd);
    return cmd;
  }

  int run() override;

 private:
  /// Runs one input (`input` as given; empty: the published device with --directory, or the
  /// bundled sample) to its end, a failure or an interruption, results to `emit`.
  InputOutcome runInput(const std::string& input, bool given, const std::string& file, RunLog& log,
                        const std::function<void(const Result&)>& emit);
  std::function<void()> begin_;  // the output's header, before the first input starts

  RunOptions o_;
  PipelineConfig base_;
  ZR::ZRExtractorRegistry registry_;
  bool remote_ = false, toFile_ = false, several_ = false;
  std::atomic<bool> outputFailed_{false};
  CLI::Option* cmdOption(const std::string& name) { return cmd_->get_option(name); }
  CLI::App* cmd_ = nullptr;
  CLI::Option* input_ = nullptr;
  CLI::Option* precision_ = nullptr;
  DirectoryOptions directory_;
  ListenOptions listen_;
  RecordOptions record_;
  std::unique_ptr<Recorder> recorder_;
};

InputOutcome RunCommand::runInput(const std::string& input, bool given, const std::string& file,
                                  RunLog& log, const std::function<void(const Result&)>& emit) {
  InputOutcome outcome;
  PipelineConfig config = base_;
  std::optional<TimeOrder> order;
  std::mutex orderMutex;
  try {
    if (!remote_) {
      config.device = resolveInput(input, given);
      config.device.sampleRate = base_.device.sampleRate;
      config.device.channelCount = base_.device.channelCount;
      config.device.samplesPerBuffer = base_.device.samplesPerBuffer;
      config.device.realtime = base_.device.realtime;
      config.device.injectedGaps = base_.device.injectedGaps;
      config.device.clockSkewPpm = base_.device.clockSkewPpm;
      const std::string notice = rawInputNotice(config.device);
      if (!notice.empty()) std::fprintf(stderr, "%s\n", notice.c_str());
    }
    using Source = ZR::ZRAudioDeviceOptions::Source;
    const bool offlineFile = !remote_ && (config.device.source == Source::File ||
                                          config.device.source == Source::Recording);
    const double total = offlineFile ? fileDuration(config.device.path) : 0.0;
    // A file is read as fast as the extractors go: what they say can wait for the slowest of
    // them, and comes out in time order. Live input is shown as it comes.
    if (offlineFile && !config.device.realtime) order.emplace(config.extractors, emit);
    const auto sink = [&](Result& r) {
      if (recorder_) recorder_->event(r.fullName, r.extractor, r.value, r.captureNs);
      r.file = file;
      if (!order) return emit(r);
      std::lock_guard<std::mutex> lock(orderMutex);
      order->add(std::move(r));
    };
    const auto drive = [&](auto& pipeline) {
      // The bar shares the terminal with the results only when they go elsewhere.
      const ProgressReporter progress(total,
                                      isatty(STDERR_FILENO) && (toFile_ || !isatty(STDOUT_FILENO)));
      begin_();
      pipeline.start();
      outcome.started = true;
      while (!gInterrupted && !outputFailed_ && !log.extractorFailed() &&
             !(recorder_ && !recorder_->failure().empty())) {
        if (pipeline.waitForEnd(100)) break;
        progress.show(pipeline.audioSeconds(total));
      }
      progress.show(pipeline.audioSeconds(total), true);
      outcome.processed = pipeline.audioSeconds(total);
      // After a failed extractor or write the input stops where it is: the broker's shutdown
      // stops the rest. Otherwise what the extractors still hold comes out.
      if (!log.extractorFailed() && !outputFailed_) pipeline.finish();
      outcome.wall = progress.elapsed();
      outcome.interrupted = gInterrupted;
    };
    Pipeline::SoundSink sound;
    if (recorder_ && record_.withSound())
      sound = [this](const std::string& device, int rate, int channels, int frames,
                     const ZR::ZRValue& t, const ZR::ZRValue& b) {
        recorder_->sound(device, rate, channels, frames, t, b);
      };
    Pipeline pipeline(
        config, remote_ ? onNetwork(config, directory_, listen_) : inProcess(config, registry_),
        sink, sound);
    drive(pipeline);
  } catch (const ZR::ZRError& e) {
    outcome.failure = innermost(e.what());
  } catch (const NoDirectory&) {
    throw;  // the run's, not the input's
  } catch (const CLI::Error&) {
    throw;
  } catch (const std::runtime_error& e) {
    outcome.failure = e.what();
  }
  const auto [logged, failedAt] = log.takeFailure();
  if (order) {
    // What the others found from where an extractor failed on is left out, as if the input
    // had stopped there.
    std::lock_guard<std::mutex> lock(orderMutex);
    order->flush(failedAt);
  }
  if (outcome.failure.empty() && !logged.empty()) {
    char after[64] = "";
    if (std::isinf(failedAt))
      std::snprintf(after, sizeof after, " after %.2f s of audio", outcome.processed);
    outcome.failure = logged + after;
  }
  // Among several inputs, every failure names the one it happened on.
  if (!file.empty() && !outcome.failure.empty() && outcome.failure.find(file) == std::string::npos)
    outcome.failure = file + ": " + outcome.failure;
  if (outcome.started && !outcome.failure.empty() && !several_)
    outcome.failure += " (the results before it were written)";
  return outcome;
}

int RunCommand::run() {
  const RunOptions& o = o_;
  vo::LogLevel level;
  if (!vo::log::parseLogLevel(o.logLevel, level))
    throw CLI::ValidationError(
        "--log-level",
        "unknown level " + o.logLevel + " (silent, fatal, error, warning, info, verbose, debug)");
  vo::log::setLogLevel(level);

  // Across processes the device is the published one: its input is its host's business.
  remote_ = directory_.directoryOption->count() > 0;
  if (CLI::Option* listen = listen_.given(cmd_); listen && !remote_)
    throw CLI::ValidationError(listen->get_name(),
                               "is where events from running hosts reach zr run: give it with "
                               "--directory");
  if (remote_)
    for (const char* device : {"INPUT", "--rate", "--channels", "--buffer", "--realtime",
                               "--inject-gap", "--clock-skew"})
      if (cmdOption(device)->count() > 0)
        throw CLI::ValidationError(
            device,
            std::string("with --directory the published ZRAudioDevice is the input: give ") +
                device + " to zr host --device instead");
  // Several inputs, or a directory: each sound file in turn, in one stream of results.
  struct stat st {};
  several_ = o.inputs.size() > 1 ||
             (o.inputs.size() == 1 && stat(o.inputs[0].c_str(), &st) == 0 && S_ISDIR(st.st_mode));
  const bool several = several_;
  InputList inputs;
  if (several) {
    if (!o.plot.empty())
      throw CLI::ValidationError("--plot", "draws one input; give one INPUT with --plot");
    inputs = expandInputs(o.inputs);
    if (inputs.skipped)
      std::fprintf(stderr, "zr: %zu sound file(s) to run; %zu other file(s) left out\n",
                   inputs.files.size(), inputs.skipped);
  } else {
    inputs.files = o.inputs.empty() ? std::vector<std::string>{""} : o.inputs;
  }
  if (!o.plot.empty()) checkPlotOutput(o.plot);
  if (record_.wanted()) {
    if (several)
      throw CLI::ValidationError("--record", "records one input; give one INPUT with --record");
    std::error_code same;
    if (!o.inputs.empty() && std::filesystem::equivalent(o.inputs[0], record_.path, same))
      throw CLI::ValidationError("--record", "would write over its own input " + o.inputs[0]);
    recorder_ = std::make_unique<Recorder>(record_);
  }

  PipelineConfig& config = base_;
  o.device.apply(config.device);
  if (o.periodGiven) config.period = o.period;
  if (precision_->count() > 0) config.precision = o.precision;
  config.extractors = o.extractors;
  if (config.extractors.empty()) config.extractors = {"SoundLevel", "VoiceActivity"};

  registry_ = ZR::ZRExtractorRegistry::withStockExtractors(o.period);
  for (const std::string& lib : o.libraries) registry_.loadPlugin(lib);
  if (!remote_)
    for (const std::string& e : config.extractors) registry_.require(e);
  if (!o.array.empty()) {
    if (remote_)
      throw CLI::ValidationError("--array",
                                 "with --directory the published extractors have "
                                 "their array: give --array to zr host instead");
    config.options["array"] = checkedArray(o.array, registry_, config.extractors);
  }

  toFile_ = !o.output.empty() && o.output != "-";
  const std::string outputName = toFile_ ? o.output : "standard output";
  std::FILE* out = stdout;
  if (toFile_) {
    out = std::fopen(o.output.c_str(), "w");
    if (!out) throw std::runtime_error("cannot write " + o.output + ": " + std::strerror(errno));
  }
  // Closed on every way out; a failed close is a failed write too.
  auto closeOutput = [&out, this] {
    const bool ok = !toFile_ || !out || std::fclose(out) == 0;
    out = nullptr;
    return ok;
  };
  std::vector<std::string> failures;
  std::string writeFailure;
  std::vector<std::string> summaries;
  try {
    std::unique_ptr<ResultWriter> writer = ResultWriter::create(o.format, out, several);
    PlotData plot;
    RunLog log(level);
    GapWarnings gapWarnings(stderr);
    const auto emit = [&](const Result& r) {
      if (isGap(r) && level >= vo::LogLevel_Warning) gapWarnings.add(r);
      if (outputFailed_) return;
      writer->write(r);
      if (!writer->check()) outputFailed_ = true;  // nothing more can be shown: every input stops
      if (!o.plot.empty()) plot.add(r);
    };
    // Nothing is delivered before an input starts: the header still comes first, and does not
    // come before an error of the input the run cannot start with.
    bool begun = false;
    begin_ = [&] {
      if (std::exchange(begun, true)) return;
      writer->begin();
      if (!writer->check()) outputFailed_ = true;
    };
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    const bool given = input_->count() > 0;
    for (std::size_t i = 0; i < inputs.files.size() && !gInterrupted && !outputFailed_; ++i) {
      const std::string& input = inputs.files[i];
      const InputOutcome r = runInput(input, given, several ? input : "", log, emit);
      if (!r.failure.empty()) {
        // Said at once, in its turn among the inputs.
        if (several && !outputFailed_) std::fprintf(stderr, "zr: error: %s\n", r.failure.c_str());
        failures.push_back(r.failure);
      } else if (several) {
        std::fprintf(stderr, "zr: %s: %s\n", input.c_str(),
                     summaryLine(r.processed, r.wall, r.interrupted).substr(4).c_str());
      } else {
        summaries.push_back(summaryLine(r.processed, r.wall, r.interrupted));
      }
    }
    writer->end();
    gapWarnings.finish();
    if (recorder_) {
      try {
        recorder_->close();
      } catch (const ZR::ZRError& e) {
        failures.push_back(innermost(e.what()));
      }
    }
    if (!writer->flush() || !closeOutput()) {
      const int error = writer->error() ? writer->error() : errno;
      writeFailure = "cannot write " + outputName + ": " + std::strerror(error);
    }
    if (!o.plot.empty() && (failures.empty() || !plot.empty()))
      plot.render(o.plot, "zr run " + (remote_            ? directory_.address()
                                       : o.inputs.empty() ? base_.device.path
                                                          : o.inputs[0]));
  } catch (...) {
    closeOutput();
    throw;
  }
  if (!writeFailure.empty()) {
    std::fprintf(stderr, "zr: error: %s\n", writeFailure.c_str());
    return 1;
  }
  if (!several && !failures.empty()) {
    std::fprintf(stderr, "zr: error: %s\n", failures[0].c_str());
    return 1;
  }
  if (several && !failures.empty()) {
    std::fprintf(stderr, "zr: error: %zu of %zu inputs failed\n", failures.size(),
                 inputs.files.size());
    return 1;
  }
  for (const std::string& s : summaries) std::fprintf(stderr, "%s\n", s.c_str());
  if (several && gInterrupted) std::fprintf(stderr, "zr: interrupted\n");
  return 0;
}

}  // namespace

std::unique_ptr<Command> makeRunCommand() {
  return std::make_unique<RunCommand>();
}

}  // namespace zr
