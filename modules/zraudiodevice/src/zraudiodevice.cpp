#include "zraudiodevice/zraudiodevice.h"

#include <sndfile.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <deque>
#include <map>
#include <thread>

#include <vo/log.h>
#include <zrcommon/zrproxy.h>
#include <zrproxies/zrmemoryproxy.h>

#include "zraudiosource.h"

namespace ZR {

namespace {

const char* kCategory = "zraudiodevice";
const char* kClassName = "ZRAudioDevice";
const char* kEndOfStreamEvent = "ZRAudioDevice/EndOfStream";
const int kMaxChannels = 32;

using Clock = std::chrono::steady_clock;

int clampToInt(std::int64_t v) {
  return static_cast<int>(std::min<std::int64_t>(v, INT_MAX));
}

// A slow or failing subscriber would otherwise flood the log with one line per buffer.
class WarningLimiter {
 public:
  /// True when a warning may go out now; `heldBack` is how many were suppressed since the last.
  bool allow(std::int64_t& heldBack) {
    const Clock::time_point now = Clock::now();
    if (used_ && now - last_ < std::chrono::seconds(1)) {
      ++heldBack_;
      return false;
    }
    used_ = true;
    last_ = now;
    heldBack = heldBack_;
    heldBack_ = 0;
    return true;
  }

 private:
  bool used_ = false;
  Clock::time_point last_;
  std::int64_t heldBack_ = 0;
};

// Blocks are recycled, so that a running source does not allocate one per buffer. A block goes
// back to the pool when the last value sharing it is gone, possibly after the device itself.
class BlockPool {
 public:
  using Block = std::vector<std::int16_t>;

  std::shared_ptr<Block> acquire(std::size_t samples) {
    Block* block = nullptr;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      if (!state_->free.empty()) {
        block = state_->free.back().release();
        state_->free.pop_back();
      }
    }
    std::unique_ptr<Block> owned(block ? block : new Block);
    owned->resize(samples);
    std::weak_ptr<State> pool = state_;
    return std::shared_ptr<Block>(owned.release(), [pool](Block* b) {
      if (std::shared_ptr<State> s = pool.lock()) {
        std::lock_guard<std::mutex> lock(s->mutex);
        if (s->free.size() < kKept) {
          s->free.emplace_back(b);  // reserved: cannot throw
          return;
        }
      }
      delete b;
    });
  }

 private:
  static constexpr std::size_t kKept = 64;
  struct State {
    State() { free.reserve(kKept); }
    std::mutex mutex;
    std::vector<std::unique_ptr<Block>> free;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

struct Counters {
  std::atomic<std::int64_t> delivered{0}, dropped{0}, failed{0};
};

struct Pending {
  int channels = 0;
  int samplesPerChannel = 0;
  ZRValue timestamp;
  ZRValue buffer;
};

struct Subscriber {
  std::string name;
  boost::shared_ptr<ZRProxy> proxy;
  ZRStrand strand;
  std::shared_ptr<Counters> counters;
  // Guarded by Core::mutex.
  std::deque<Pending> queue;
  bool scheduled = false;  // a delivery task is posted on its strand
  bool inFlight = false;   // its "processRemote" is running
  bool active = true;
  WarningLimiter dropWarnings, failureWarnings;
};

void warn(const char* function, const std::string& message) {
  vo::log::LogStream(vo::LogLevel_Warning, "", function, kCategory, 0) << message;
}

}  // namespace

// Shared by the device, its capture thread and the delivery tasks, so that none of them needs the
// device object itself: the last reference to the device may be dropped on any of those threads.
struct ZRAudioDevice::Core : std::enable_shared_from_this<ZRAudioDevice::Core> {
  std::string name;
  boost::weak_ptr<ZRBroker> broker;
  ZRAudioDeviceOptions options;
  bool live = false;

  std::mutex mutex;
  // Two conditions, so that a delivery wakes only who can go on: the producer waits for room
  // (and for release, its pace and stop), hosts wait for idle, the end, or stop.
  std::condition_variable room;
  std::condition_variable settled;
  bool producerWaiting = false;
  ZRAudioFormat format;  // zero until known
  int samplesPerBuffer = 0;
  std::map<std::string, std::shared_ptr<Subscriber>> subscribers;
  std::map<std::string, std::shared_ptr<Counters>> counters;  // every module that ever subscribed
  bool capturing = false;
  bool ended = false;
  bool held = false;
  std::atomic<bool> stop{false};
  std::thread thread;  // touched only under the device's control mutex

  // Stream position; touched only by the one producer (capture thread, or a host under
  // producerMutex).
  std::mutex producerMutex;
  std::int64_t position = 0;
  BlockPool blocks;

  std::mutex recordingMutex;
  SNDFILE* recording = nullptr;
  std::int64_t recordedFrames = 0;

  void setFormat(const ZRAudioFormat& f) {
    format = f;
    samplesPerBuffer = options.samplesPerBuffer.value_or(std::max(1, f.sampleRate / 10));
  }

  bool anyQueueAbove(std::size_t size) const {
    for (const auto& entry : subscribers)
      if (entry.second->queue.size() > size) return true;
    return false;
  }

  bool idleLocked() const {
    for (const auto& entry : subscribers)
      if (!entry.second->queue.empty() || entry.second->inFlight) return false;
    return true;
  }

  // Timestamps come from the cumulative sample index, so rounding never accumulates.
  ZRValue timestampOf(std::int64_t index) const {
    const std::int64_t us = index * 1000000 / format.sampleRate;
    ZRValue t;
    t.arraySetSize(2);
    t[0] = clampToInt(us / 1000000);
    t[1] = static_cast<int>(us % 1000000);
    return t;
  }

  void record(const ZRValue& buffer, std::size_t frames) {
    std::lock_guard<std::mutex> lock(recordingMutex);
    if (!recording) return;
    const auto* samples = static_cast<const short*>(buffer.GetBinary());
    const sf_count_t written = sf_writef_short(recording, samples, static_cast<sf_count_t>(frames));
    recordedFrames += written;
    if (written != static_cast<sf_count_t>(frames))
      warn("record", name + ": recording lost samples: " + sf_strerror(recording));
  }

  // Must hold `mutex`. False when the strand refused the task (the broker is shut down).
  bool schedule(const std::shared_ptr<Subscriber>& sub) {
    sub->scheduled = true;
    try {
      sub->strand.post([core = shared_from_this(), sub] { core->deliverNext(sub); });
      return true;
    } catch (const ZRError&) {
      sub->scheduled = false;
      sub->active = false;
      sub->queue.clear();
      return false;
    }
  }

  void removeLocked(const std::shared_ptr<Subscriber>& sub) {
    auto it = subscribers.find(sub->name);
    if (it != subscribers.end() && it->second == sub) subscribers.erase(it);
  }

  /// Queues one buffer for every subscriber. Returns false when nobody is subscribed any more or
  /// the device is stopping.
  bool publish(const ZRValue& buffer, std::size_t frames) {
    const ZRValue timestamp = timestampOf(position);
    position += static_cast<std::int64_t>(frames);
    record(buffer, frames);

    std::vector<std::string> warnings;
    bool anyone = true;
    {
      std::unique_lock<std::mutex> lock(mutex);
      const std::size_t capacity = static_cast<std::size_t>(options.queueCapacity);
      if (!live && anyQueueAbove(capacity - 1)) {
        // Resume only once the slowest is half way down: one wake-up per half queue, not one
        // per buffer.
        producerWaiting = true;
        room.wait(lock, [&] { return stop || !anyQueueAbove(capacity / 2); });
        producerWaiting = false;
      }
      if (stop) return false;
      std::vector<std::shared_ptr<Subscriber>> refused;
      for (auto& entry : subscribers) {
        const std::shared_ptr<Subscriber>& sub = entry.second;
        if (live && sub->queue.size() >= capacity) {
          sub->queue.pop_front();
          const std::int64_t dropped = ++sub->counters->dropped;
          std::int64_t heldBack = 0;
          if (sub->dropWarnings.allow(heldBack)) {
            warnings.push_back(name + ": subscriber \"" + sub->name +
                               "\" does not keep up: its oldest buffer was dropped (" +
                               std::to_string(dropped) + " dropped so far, " +
                               std::to_string(heldBack) + " warnings held back)");
          }
        }
        sub->queue.push_back(Pending{format.channels, static_cast<int>(frames), timestamp, buffer});
        if (!sub->scheduled && !schedule(sub)) refused.push_back(sub);
      }
      for (const auto& sub : refused) {
        removeLocked(sub);
        warnings.push_back(name + ": cannot deliver to \"" + sub->name +
                           "\": the broker is shut down");
      }
      anyone = !subscribers.empty();
      if (!refused.empty()) settled.notify_all();
    }
    for (const std::string& w : warnings) warn("publish", w);
    return anyone;
  }

  void deliverNext(const std::shared_ptr<Subscriber>& sub) {
    Pending item;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (!sub->active || sub->queue.empty()) {
        sub->scheduled = false;
        settled.notify_all();
        return;
      }
      item = std::move(sub->queue.front());
      sub->queue.pop_front();
      sub->inFlight = true;
      if (producerWaiting &&
          sub->queue.size() <= static_cast<std::size_t>(options.queueCapacity / 2))
        room.notify_one();
    }

    std::string failure;
    try {
      const ZRValue args[4] = {ZRValue(item.channels), ZRValue(item.samplesPerChannel),
                               item.timestamp, item.buffer};
      sub->proxy->metaCall("processRemote", args, 4);
    } catch (const std::exception& e) {
      failure = e.what();
    } catch (...) {
      failure = "unknown exception";
    }
    item = Pending();  // the block goes back before anyone is told the delivery is over
    const bool gone = !failure.empty() && !sub->proxy->isValid();

    if (!failure.empty()) {
      // Warned about before the delivery counts as over, so that whoever waits for idle sees it.
      std::string warning;
      {
        std::lock_guard<std::mutex> lock(mutex);
        ++sub->counters->failed;
        std::int64_t heldBack = 0;
        if (gone) {
          warning = name + ": subscriber \"" + sub->name + "\" is gone; it is unsubscribed";
        } else if (sub->failureWarnings.allow(heldBack)) {
          warning = name + ": \"processRemote\" of \"" + sub->name + "\" failed: " + failure +
                    " (" + std::to_string(heldBack) + " warnings held back)";
        }
      }
      if (!warning.empty()) warn("deliver", warning);
    }
    bool nowIdle = false;
    {
      std::lock_guard<std::mutex> lock(mutex);
      sub->inFlight = false;
      if (failure.empty()) ++sub->counters->delivered;
      if (gone) {
        sub->active = false;
        sub->queue.clear();
        removeLocked(sub);
      }
      if (!sub->active || sub->queue.empty()) {
        sub->scheduled = false;
      } else if (!schedule(sub)) {
        removeLocked(sub);
      }
      if (gone && producerWaiting) room.notify_one();  // it may be the one waited for
      nowIdle = idleLocked();
    }
    if (nowIdle) settled.notify_all();
  }

  void markEnded() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      ended = true;
    }
    settled.notify_all();
  }

  void raiseEndOfStream(float seconds) {
    try {
      boost::shared_ptr<ZRBroker> b = broker.lock();
      if (b && b->hasModule("ZRMemory")) ZRMemoryProxy(b).raiseEvent(kEndOfStreamEvent, seconds);
    } catch (const ZRError& e) {
      warn("endOfStream", name + ": cannot raise \"" + kEndOfStreamEvent + "\": " + e.what());
    }
    markEnded();
  }

  /// Once every buffer is processed, raises the end of the stream. The event is raised from the
  /// broker's pool, never from the producer, so that whoever reacts to it may unsubscribe (and
  /// so join the capture thread) without waiting for itself.
  void finishStream() {
    {
      std::unique_lock<std::mutex> lock(mutex);
      settled.wait(lock, [&] { return stop || idleLocked(); });
      if (stop) return;
    }
    const float seconds = static_cast<float>(static_cast<double>(position) / format.sampleRate);
    vo::log::LogStream(vo::LogLevel_Info, "", "finishStream", kCategory, 0)
        << name << ": end of " << options.describe() << " after " << seconds << " s";
    try {
      boost::shared_ptr<ZRBroker> b = broker.lock();
      if (!b) throw ZRError(name, "finishStream", "no broker");
      b->post([core = shared_from_this(), seconds] { core->raiseEndOfStream(seconds); });
    } catch (const ZRError&) {
      markEnded();
    }
  }

  void run(std::unique_ptr<ZRAudioSource> source) {
    {
      std::unique_lock<std::mutex> lock(mutex);
      room.wait(lock, [&] { return stop || !held; });
    }
    const bool hardware = source->isHardware();
    const bool paced = options.realtime && !hardware;
    const Clock::time_point clockStart = Clock::now();
    position = 0;
    const std::size_t spb = static_cast<std::size_t>(samplesPerBuffer);
    const int channels = format.channels;
    bool finished = false;
    try {
      for (;;) {
        std::shared_ptr<BlockPool::Block> block = blocks.acquire(spb * channels);
        const std::size_t frames = source->read(block->data(), spb, stop);
        if (stop) break;
        if (frames == 0) {
          finished = true;
          break;
        }
        if (paced) {
          const auto due = clockStart + std::chrono::microseconds(
                                            (position + static_cast<std::int64_t>(frames)) *
                                            1000000 / format.sampleRate);
          std::unique_lock<std::mutex> lock(mutex);
          if (room.wait_until(lock, due, [&] { return stop.load(); })) break;
        }
        const ZRValue buffer(block->data(), frames * channels * sizeof(std::int16_t), block);
        block.reset();
        if (!publish(buffer, frames)) break;
      }
    } catch (const std::exception& e) {
      vo::log::LogStream(vo::LogLevel_Error, "", "run", kCategory, 0)
          << name << ": " << options.describe() << " failed, the stream ends: " << e.what();
      finished = true;
    }
    source.reset();  // the file or microphone is free before anyone may open it again
    if (finished) finishStream();
    {
      std::lock_guard<std::mutex> lock(mutex);
      capturing = false;
    }
    settled.notify_all();
  }

  void requestStop() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stop = true;
    }
    room.notify_all();
    settled.notify_all();
  }
};

namespace {

void validate(const ZRAudioDeviceOptions& o, const std::string& name) {
  using S = ZRAudioDeviceOptions::Source;
  auto fail = [&](const std::string& why) { throw ZRError(name, kClassName, why); };
  if (o.sampleRate && *o.sampleRate <= 0)
    fail("the sample rate must be positive, not " + std::to_string(*o.sampleRate));
  if (o.channelCount && (*o.channelCount <= 0 || *o.channelCount > kMaxChannels))
    fail("the channel count must be between 1 and " + std::to_string(kMaxChannels) + ", not " +
         std::to_string(*o.channelCount));
  if (o.samplesPerBuffer && *o.samplesPerBuffer <= 0)
    fail("the samples per buffer must be positive, not " + std::to_string(*o.samplesPerBuffer));
  if (o.queueCapacity < 1)
    fail("the queue capacity must be at least 1, not " + std::to_string(o.queueCapacity));
  if (o.durationSeconds && !(*o.durationSeconds > 0))
    fail("the duration must be positive, not " + std::to_string(*o.durationSeconds));
  if (o.source == S::File && o.path.empty()) fail("a file source needs a path");
  if (o.source == S::Tone || o.source == S::Noise) {
    if (!(o.amplitude >= 0 && o.amplitude <= 1))
      fail("the amplitude must be between 0 and 1, not " + std::to_string(o.amplitude));
  }
  if (o.source == S::Tone) {
    const int rate = o.sampleRate.value_or(16000);
    if (!(o.frequency > 0 && o.frequency < rate / 2.0))
      fail("the tone frequency must be above 0 and below half the sample rate (" +
           std::to_string(rate / 2) + " Hz), not " + std::to_string(o.frequency));
  }
  switch (o.source) {
    case S::File:
    case S::Microphone:
    case S::Tone:
    case S::Noise:
    case S::Silence:
    case S::RawPcm:
    case S::Host:
      return;
  }
  fail("unknown source kind " + std::to_string(static_cast<int>(o.source)));
}

}  // namespace

ZRAudioDevice::ZRAudioDevice(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                             const ZRAudioDeviceOptions& options)
    : ZRModule(broker, name), options_(options), core_(std::make_shared<Core>()) {
  validate(options_, name);
  core_->name = name;
  core_->broker = broker;
  core_->options = options_;
  core_->live = options_.isLive();
  if (options_.source == ZRAudioDeviceOptions::Source::File) {
    // Known now when the file is there; otherwise when a subscribe first opens it.
    ZRAudioFormat f;
    if (probeFileFormat(options_, f))
      core_->setFormat(f);
    else if (options_.sampleRate && options_.channelCount)
      core_->setFormat({*options_.sampleRate, *options_.channelCount});
  } else {
    core_->setFormat({options_.sampleRate.value_or(16000), options_.channelCount.value_or(1)});
  }
  if (core_->format.channels > kMaxChannels)
    throw ZRError(name, kClassName,
                  "\"" + options_.path + "\" has " + std::to_string(core_->format.channels) +
                      " channels; at most " + std::to_string(kMaxChannels) + " are supported");
  setModuleDescription("Audio device: delivers the sound of " + options_.describe() +
                       " to its subscribers' \"processRemote\".");
  registerMethods();
}

void ZRAudioDevice::registerMethods() {
  functionName("subscribe", kClassName,
               "Starts delivering audio buffers to a module's \"processRemote\"(nbOfChannels, "
               "nbOfSamplesByChannel, timestamp [seconds, microseconds], buffer of interleaved "
               "16-bit samples). The first subscriber starts the source; a source that cannot "
               "open fails this call. Subscribing twice does nothing.",
               0);
  addParam("module", "Name of the subscribing module, which must exist on the broker.");
  bindMethod(&ZRAudioDevice::subscribe);

  functionName("unsubscribe", kClassName,
               "Stops delivering to a module and discards its pending buffers. The last one to "
               "leave stops the source. A module that is not subscribed is ignored.",
               0);
  addParam("module", "Name of the module.");
  bindMethod(&ZRAudioDevice::unsubscribe);

  functionName("hold", kClassName,
               "Holds the next start of the source (or the current one, before its first buffer) "
               "until release, so that several subscribers all get the stream from its start.",
               0);
  bindMethod(&ZRAudioDevice::hold);

  functionName("release", kClassName,
               "Lets a held source deliver. A device created held holds every new start of its "
               "source, each until released; releasing one that is not held does nothing.",
               0);
  bindMethod(&ZRAudioDevice::release);

  functionName("getSubscribers", kClassName, "Lists the subscribed modules.", 0);
  setReturn("modules", "Names of the subscribed modules, sorted.");
  bindMethod(&ZRAudioDevice::getSubscribers);

  functionName("getSampleRate", kClassName, "Gives the sample rate of the delivered buffers.", 0);
  setReturn("rate", "Samples per second and channel; 0 while a file not opened yet decides it.");
  bindMethod(&ZRAudioDevice::getSampleRate);

  functionName("getChannelCount", kClassName, "Gives the channel count of the delivered buffers.",
               0);
  setReturn("channels",
            "Interleaved channels per buffer; 0 while a file not opened yet decides it.");
  bindMethod(&ZRAudioDevice::getChannelCount);

  functionName("getSamplesPerBuffer", kClassName,
               "Gives how many samples per channel a full buffer holds (the last buffer of a "
               "stream may hold fewer).",
               0);
  setReturn("samples", "Samples per channel in a full buffer.");
  bindMethod(&ZRAudioDevice::getSamplesPerBuffer);

  functionName("getDeliveredBufferCount", kClassName,
               "Gives how many buffers a module's \"processRemote\" has processed without error.",
               0);
  addParam("module", "Name of a module that has subscribed at least once.");
  setReturn("count", "Buffers delivered since the device was created.");
  bindMethod(&ZRAudioDevice::getDeliveredBufferCount);

  functionName("getDroppedBufferCount", kClassName,
               "Gives how many buffers a live source dropped for a module because it did not keep "
               "up.",
               0);
  addParam("module", "Name of a module that has subscribed at least once.");
  setReturn("count", "Buffers dropped since the device was created.");
  bindMethod(&ZRAudioDevice::getDroppedBufferCount);

  functionName("isEndOfStream", kClassName,
               "Tells whether the source has ended and \"ZRAudioDevice/EndOfStream\" was raised.",
               0);
  setReturn("ended", "True once the stream has ended; a new first subscriber restarts it.");
  bindMethod(&ZRAudioDevice::isEndOfStream);

  functionName("getSourceDescription", kClassName, "Describes the device's source.", 0);
  setReturn("description", "For example: tone 440 Hz, paced at real time.");
  bindMethod(&ZRAudioDevice::getSourceDescription);

  functionName("startRecording", kClassName,
               "Writes every buffer delivered from now on to a 16-bit WAV file.", 0);
  addParam("path", "The WAV file to create or overwrite.");
  bindMethod(&ZRAudioDevice::startRecording);

  functionName("stopRecording", kClassName, "Closes the recording started by startRecording.", 0);
  setReturn("samples", "Samples per channel written; 0 when nothing was being recorded.");
  bindMethod(&ZRAudioDevice::stopRecording);
}

ZRAudioDevice::~ZRAudioDevice() {
  std::unique_lock<std::mutex> control(controlMutex_);
  core_->requestStop();
  stopCapture(control);
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    for (auto& entry : core_->subscribers) {
      entry.second->active = false;
      entry.second->queue.clear();
    }
    core_->subscribers.clear();
  }
  core_->room.notify_all();
  core_->settled.notify_all();
  stopRecording();
}

void ZRAudioDevice::stopCapture(std::unique_lock<std::mutex>&) {
  core_->requestStop();
  // Never the capture thread itself: it calls out to nobody (subscribers and the memory service
  // are called from the pool), so it cannot end up in here.
  if (core_->thread.joinable()) core_->thread.join();
}

void ZRAudioDevice::subscribe(const std::string& module) {
  std::unique_lock<std::mutex> control(controlMutex_);
  boost::shared_ptr<ZRBroker> broker = getParentBroker();
  boost::shared_ptr<ZRProxy> proxy;
  try {
    proxy = broker->getProxy(module, 0);
  } catch (const ZRError& e) {
    throw ZRError(getName(), "subscribe",
                  "cannot subscribe \"" + module + "\": " + e.getDescription() +
                      "; create the module before subscribing it");
  }
  boost::shared_ptr<vo::DynamicObject> object = broker->session()->service(module);
  if (object && !object->hasMethod("processRemote"))
    throw ZRError(getName(), "subscribe",
                  "module \"" + module + "\" has no \"processRemote\" method to receive buffers");

  bool first = false;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    if (core_->subscribers.count(module)) return;
    first = core_->subscribers.empty();
  }

  std::unique_ptr<ZRAudioSource> source;
  if (first && options_.source != ZRAudioDeviceOptions::Source::Host) {
    stopCapture(control);  // a previous run that ended or lost its subscribers
    if (options_.source == ZRAudioDeviceOptions::Source::File) {
      ZRAudioFormat f;
      std::lock_guard<std::mutex> lock(core_->mutex);
      if (core_->format.sampleRate == 0 && probeFileFormat(options_, f)) {
        if (f.channels > kMaxChannels)
          throw ZRError(getName(), "subscribe",
                        "\"" + options_.path + "\" has " + std::to_string(f.channels) +
                            " channels; at most " + std::to_string(kMaxChannels) +
                            " are supported");
        core_->setFormat(f);
      }
    }
    source = openAudioSource(options_, core_->format, getName(), "subscribe");
  }

  auto sub = std::make_shared<Subscriber>();
  sub->name = module;
  sub->proxy = proxy;
  sub->strand = broker->makeStrand();
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    std::shared_ptr<Counters>& counters = core_->counters[module];
    if (!counters) counters = std::make_shared<Counters>();
    sub->counters = counters;
    core_->subscribers[module] = sub;
    if (source) {
      core_->stop = false;
      core_->ended = false;
      core_->held = core_->held || options_.held;  // a hold() before the start stands
      core_->capturing = true;
    }
  }
  if (source) {
    vo::log::LogStream(vo::LogLevel_Info, "", "subscribe", kCategory, 0)
        << getName() << ": starting " << options_.describe() << " for \"" << module << "\"";
    core_->thread = std::thread(&Core::run, core_, std::move(source));
  }
}

void ZRAudioDevice::unsubscribe(const std::string& module) {
  std::unique_lock<std::mutex> control(controlMutex_);
  bool last = false;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    auto it = core_->subscribers.find(module);
    if (it == core_->subscribers.end()) return;
    it->second->active = false;
    it->second->queue.clear();
    core_->subscribers.erase(it);
    last = core_->subscribers.empty();
  }
  core_->room.notify_all();
  core_->settled.notify_all();
  if (last && options_.source != ZRAudioDeviceOptions::Source::Host) {
    stopCapture(control);
    vo::log::LogStream(vo::LogLevel_Info, "", "unsubscribe", kCategory, 0)
        << getName() << ": stopped " << options_.describe();
  }
}

std::vector<std::string> ZRAudioDevice::getSubscribers() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  std::vector<std::string> names;
  for (const auto& entry : core_->subscribers) names.push_back(entry.first);
  return names;
}

int ZRAudioDevice::getSampleRate() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->format.sampleRate;
}

int ZRAudioDevice::getChannelCount() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->format.channels;
}

int ZRAudioDevice::getSamplesPerBuffer() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->samplesPerBuffer;
}

ZRAudioDeliveryStats ZRAudioDevice::getDeliveryStats(const std::string& module) {
  std::lock_guard<std::mutex> lock(core_->mutex);
  auto it = core_->counters.find(module);
  if (it == core_->counters.end())
    throw ZRError(getName(), "getDeliveryStats",
                  "module \"" + module + "\" never subscribed to this device");
  return {it->second->delivered, it->second->dropped, it->second->failed};
}

int ZRAudioDevice::getDeliveredBufferCount(const std::string& module) {
  return clampToInt(getDeliveryStats(module).delivered);
}

int ZRAudioDevice::getDroppedBufferCount(const std::string& module) {
  return clampToInt(getDeliveryStats(module).dropped);
}

bool ZRAudioDevice::isEndOfStream() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->ended;
}

std::string ZRAudioDevice::getSourceDescription() {
  return options_.describe();
}

bool ZRAudioDevice::isCapturing() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->capturing;
}

namespace {
template <class Predicate>
bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, int timeoutMs,
             Predicate done) {
  if (timeoutMs < 0) {
    cv.wait(lock, done);
    return true;
  }
  return cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
}
}  // namespace

bool ZRAudioDevice::waitUntilIdle(int timeoutMs) {
  std::unique_lock<std::mutex> lock(core_->mutex);
  return waitFor(core_->settled, lock, timeoutMs, [&] { return core_->idleLocked(); });
}

bool ZRAudioDevice::waitForEndOfStream(int timeoutMs) {
  std::unique_lock<std::mutex> lock(core_->mutex);
  return waitFor(core_->settled, lock, timeoutMs,
                 [&] { return core_->ended && core_->idleLocked(); });
}

void ZRAudioDevice::startRecording(const std::string& path) {
  ZRAudioFormat f;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    f = core_->format;
  }
  if (f.sampleRate == 0)
    throw ZRError(getName(), "startRecording",
                  "the format is not known yet: " + options_.describe() + " could not be opened");
  std::lock_guard<std::mutex> lock(core_->recordingMutex);
  if (core_->recording)
    throw ZRError(getName(), "startRecording", "already recording; call stopRecording first");
  SF_INFO info{};
  info.samplerate = f.sampleRate;
  info.channels = f.channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!file)
    throw ZRError(getName(), "startRecording",
                  "cannot create \"" + path + "\": " + sf_strerror(nullptr));
  core_->recording = file;
  core_->recordedFrames = 0;
}

int ZRAudioDevice::stopRecording() {
  std::lock_guard<std::mutex> lock(core_->recordingMutex);
  if (!core_->recording) return 0;
  sf_close(core_->recording);
  core_->recording = nullptr;
  return clampToInt(core_->recordedFrames);
}

void ZRAudioDevice::hold() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  core_->held = true;
}

void ZRAudioDevice::release() {
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    core_->held = false;
  }
  core_->room.notify_all();
}

ZRValue ZRAudioDevice::deliver(const std::int16_t* interleaved, int samplesPerChannel) {
  int channels = 0;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    channels = core_->format.channels;
  }
  if (!interleaved || samplesPerChannel <= 0)
    throw ZRError(getName(), "deliver", "a buffer needs samples");
  const std::size_t count = static_cast<std::size_t>(samplesPerChannel) * channels;
  std::shared_ptr<BlockPool::Block> block = core_->blocks.acquire(count);
  std::copy(interleaved, interleaved + count, block->data());
  ZRValue buffer(block->data(), count * sizeof(std::int16_t), block);
  deliver(buffer, samplesPerChannel);
  return buffer;
}

void ZRAudioDevice::deliver(const ZRValue& buffer, int samplesPerChannel) {
  if (options_.source != ZRAudioDeviceOptions::Source::Host)
    throw ZRError(getName(), "deliver",
                  "only a device created with the Host source takes buffers from its host");
  int channels = 0;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    channels = core_->format.channels;
    if (core_->ended) throw ZRError(getName(), "deliver", "the stream has ended");
  }
  const std::size_t bytes =
      static_cast<std::size_t>(std::max(samplesPerChannel, 0)) * channels * sizeof(std::int16_t);
  if (samplesPerChannel <= 0 || !buffer.isBinary() || buffer.getBinarySize() != bytes)
    throw ZRError(getName(), "deliver",
                  "a buffer of " + std::to_string(samplesPerChannel) +
                      " samples per channel must be "
                      "a binary value of " +
                      std::to_string(bytes) + " bytes, not " + buffer.toString());
  std::lock_guard<std::mutex> producer(core_->producerMutex);
  core_->publish(buffer, static_cast<std::size_t>(samplesPerChannel));
}

void ZRAudioDevice::endStream() {
  if (options_.source != ZRAudioDeviceOptions::Source::Host)
    throw ZRError(getName(), "endStream", "only a device fed by its host ends when told to");
  std::lock_guard<std::mutex> producer(core_->producerMutex);
  core_->finishStream();
}

}  // namespace ZR
