// zr run: extractors on an input, results streamed as they come.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>

#include <vo/log.h>

#include "arrayoption.h"
#include "command.h"
#include "input.h"
#include "pipeline.h"
#include "plot.h"
#include "progress.h"
#include "remote_pipeline.h"

namespace zr {
namespace {

std::atomic<bool> gInterrupted{false};
extern "C" void onInterrupt(int) {
  gInterrupted = true;
}

/// The log during a run: records print as the console handler prints them, except that the
/// first error (a source that failed mid-stream, say) is kept back, to become the run's own
/// closing error line. Restores the console handler when it goes.
class RunLog {
 public:
  explicit RunLog(vo::LogLevel level) : level_(level) {
    vo::log::setLogLevel(level);
    vo::log::removeHandler(vo::log::kConsoleHandlerName);
    // Errors are wanted even when the user silenced the log: they decide the exit status.
    vo::log::addHandler(
        kName, [this](const vo::log::Record& r) { print(r); }, std::max(level, vo::LogLevel_Error));
  }
  ~RunLog() {
    vo::log::removeHandler(kName);
    vo::log::addConsoleHandler();
  }
  std::string firstError() {
    std::lock_guard<std::mutex> lock(mutex_);
    return firstError_;
  }

 private:
  void print(const vo::log::Record& r) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (r.level <= vo::LogLevel_Error && firstError_.empty()) {
      firstError_ = r.message.empty() ? r.category + " failed" : r.message;
      return;
    }
    if (r.level > level_) return;
    std::fprintf(stderr, "[%s] %s: %s\n", vo::log::logLevelName(r.level), r.category.c_str(),
                 r.message.c_str());
  }
  static constexpr const char* kName = "zr-run";
  const vo::LogLevel level_;
  std::mutex mutex_;
  std::string firstError_;
};

struct RunOptions {
  std::string input;
  std::vector<std::string> extractors;
  int period = 100;
  bool periodGiven = false;
  float precision = 0.0f;
  std::string format = "table";
  std::string output;
  std::string plot;
  bool realtime = false;
  int rate = 0;
  int channels = 0;
  int buffer = 0;
  std::vector<std::string> libraries;
  std::string logLevel = "warning";
  std::string array;
};

class RunCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    RunOptions& o = o_;
    CLI::App* cmd =
        app.add_subcommand("run", "Run extractors on an input and print their results.");
    cmd_ = cmd;
    input_ = cmd->add_option(
        "INPUT", o.input,
        "A sound file (WAV, FLAC, OGG), - for raw 16-bit PCM on standard input, mic or "
        "mic:DEVICE, tone:HZ, noise or silence. Default: the bundled speech sample.");
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
    cmd->add_flag("--realtime", o.realtime,
                  "Pace the input at real time (drops when extractors lag).");
    cmd->add_option("--rate", o.rate, "Sample rate in Hz (a file is resampled).")
        ->check(CLI::Range(1000, 384000));
    cmd->add_option("--channels", o.channels, "Channel count.")->check(CLI::Range(1, 32));
    cmd->add_option("--buffer", o.buffer, "Samples per channel in each buffer.")
        ->check(CLI::Range(1, 1 << 20));
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
    return cmd;
  }

  int run() override;

 private:
  RunOptions o_;
  CLI::Option* cmdOption(const std::string& name) { return cmd_->get_option(name); }
  CLI::App* cmd_ = nullptr;
  CLI::Option* input_ = nullptr;
  CLI::Option* precision_ = nullptr;
  DirectoryOptions directory_;
};

int RunCommand::run() {
  const RunOptions& o = o_;
  vo::LogLevel level;
  if (!vo::log::parseLogLevel(o.logLevel, level))
    throw CLI::ValidationError(
        "--log-level",
        "unknown level " + o.logLevel + " (silent, fatal, error, warning, info, verbose, debug)");
  vo::log::setLogLevel(level);

  // Across processes the device is the published one: its input is its host's business.
  const bool remote = directory_.directoryOption->count() > 0;
  if (remote)
    for (const char* device : {"INPUT", "--rate", "--channels", "--buffer", "--realtime"})
      if (cmdOption(device)->count() > 0)
        throw CLI::ValidationError(
            device,
            std::string("with --directory the published ZRAudioDevice is the input: give ") +
                device + " to zr host --device instead");
  PipelineConfig config;
  if (!remote) config.device = resolveInput(o.input, input_->count() > 0);
  if (o.rate > 0) config.device.sampleRate = o.rate;
  if (o.channels > 0) config.device.channelCount = o.channels;
  if (o.buffer > 0) config.device.samplesPerBuffer = o.buffer;
  config.device.realtime = o.realtime;
  if (o.periodGiven) config.period = o.period;
  if (precision_->count() > 0) config.precision = o.precision;
  config.extractors = o.extractors;
  if (config.extractors.empty()) config.extractors = {"SoundLevel", "VoiceActivity"};

  ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors(o.period);
  for (const std::string& lib : o.libraries) registry.loadPlugin(lib);
  if (!remote)
    for (const std::string& e : config.extractors) registry.require(e);
  if (!o.array.empty()) {
    if (remote)
      throw CLI::ValidationError("--array",
                                 "with --directory the published extractors have "
                                 "their array: give --array to zr host instead");
    config.options["array"] = checkedArray(o.array, registry, config.extractors);
  }

  const bool toFile = !o.output.empty() && o.output != "-";
  const std::string outputName = toFile ? o.output : "standard output";
  std::FILE* out = stdout;
  if (toFile) {
    out = std::fopen(o.output.c_str(), "w");
    if (!out) throw std::runtime_error("cannot write " + o.output + ": " + std::strerror(errno));
  }
  // Closed on every way out; a failed close is a failed write too.
  auto closeOutput = [&out, toFile] {
    const bool ok = !toFile || !out || std::fclose(out) == 0;
    out = nullptr;
    return ok;
  };
  int exitStatus = 0;
  std::string failure;
  bool interrupted = false;
  double processed = 0.0, wall = 0.0;
  try {
    std::unique_ptr<ResultWriter> writer = ResultWriter::create(o.format, out);
    PlotData plot;
    std::atomic<bool> outputFailed{false};
    RunLog log(level);
    const double total = !remote && config.device.source == ZR::ZRAudioDeviceOptions::Source::File
                             ? fileDuration(config.device.path)
                             : 0.0;
    const auto sink = [&](const Result& r) {
      if (outputFailed) return;
      writer->write(r);
      if (!writer->check()) outputFailed = true;
      if (!o.plot.empty()) plot.add(r);
    };
    // The same run in process or on the modules of running hosts.
    const auto drive = [&](auto& pipeline) {
      // Nothing is delivered before start(): the header still comes first.
      writer->begin();
      if (!writer->check()) outputFailed = true;
      std::signal(SIGINT, onInterrupt);
      std::signal(SIGTERM, onInterrupt);
      // The bar shares the terminal with the results only when they go elsewhere.
      const ProgressReporter progress(total,
                                      isatty(STDERR_FILENO) && (toFile || !isatty(STDOUT_FILENO)));
      pipeline.start();
      while (!gInterrupted && !outputFailed) {
        if (pipeline.waitForEnd(100)) break;
        progress.show(pipeline.audioSeconds(total));
      }
      progress.show(pipeline.audioSeconds(total), true);
      // After a failed write nothing more can be shown: the broker's shutdown stops the rest.
      if (!outputFailed) pipeline.finish();
      wall = progress.elapsed();
      processed = pipeline.audioSeconds(total);
      interrupted = gInterrupted;
    };
    if (remote) {
      RemotePipeline pipeline(config, directory_, sink);
      drive(pipeline);
    } else {
      RunPipeline pipeline(config, registry, sink);
      drive(pipeline);
    }
    writer->end();
    if (!writer->flush() || !closeOutput()) {
      const int error = writer->error() ? writer->error() : errno;
      failure = "cannot write " + outputName + ": " + std::strerror(error);
    } else if (!log.firstError().empty()) {
      failure = log.firstError() + " (the results before it were written)";
    }
    if (!o.plot.empty())
      plot.render(o.plot, "zr run " + (remote            ? directory_.address()
                                       : o.input.empty() ? config.device.path
                                                         : o.input));
  } catch (...) {
    closeOutput();
    throw;
  }
  if (!failure.empty()) {
    std::fprintf(stderr, "zr: error: %s\n", failure.c_str());
    exitStatus = 1;
  } else {
    std::fprintf(stderr, "%s\n", summaryLine(processed, wall, interrupted).c_str());
  }
  return exitStatus;
}

}  // namespace

std::unique_ptr<Command> makeRunCommand() {
  return std::make_unique<RunCommand>();
}

}  // namespace zr
