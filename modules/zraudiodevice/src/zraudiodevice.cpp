// The audio device module: its remote methods, subscriptions and host-side API. The capture
// loop, the fan-out, the block pool and the recorder live beside it.

#include "zraudiodevice/zraudiodevice.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <optional>
#include <set>

#include <vo/log.h>
#include <zrcommon/zrproxy.h>
#include <zrerror/zrdefaults.h>

#include "zraudiodevicecore.h"

namespace ZR {

namespace {

int clampToInt(std::int64_t v) {
  return static_cast<int>(std::min<std::int64_t>(v, INT_MAX));
}

}  // namespace

ZRAudioDevice::ZRAudioDevice(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                             const ZRAudioDeviceOptions& options)
    : ZRModule(broker, name), options_(options), core_(std::make_shared<Core>()) {
  validateAudioDeviceOptions(options_, name);
  core_->name = name;
  core_->broker = broker;
  core_->options = options_;
  core_->line = makeAudioLine(name, options_, core_);
  core_->remote = std::make_shared<ZRAudioRemoteSubscribers>(name, options_.isLive());
  if (readsFormatFromFile(options_)) {
    // Known now when the file is there; otherwise when a subscribe first opens it.
    ZRAudioFormat f;
    if (probeFileFormat(options_, f))
      core_->setFormat(f);
    else if (options_.sampleRate && options_.channelCount)
      core_->setFormat({*options_.sampleRate, *options_.channelCount});
  } else {
    core_->setFormat(
        {options_.sampleRate.value_or(kDefaultSampleRate), options_.channelCount.value_or(1)});
  }
  if (core_->format.channels > kMaxAudioChannels)
    throw ZRError(name, kAudioDeviceClassName,
                  "\"" + options_.path + "\" has " + std::to_string(core_->format.channels) +
                      " channels; at most " + std::to_string(kMaxAudioChannels) + " are supported");
  setModuleDescription("Audio device: delivers the sound of " + options_.describe() +
                       " to its subscribers' \"processRemote\".");
  registerMethods();
  core_->declareGapEvent();
}

void ZRAudioDevice::registerMethods() {
  functionName("subscribe", kAudioDeviceClassName,
               "Starts delivering audio buffers to a module's \"processRemote\"(nbOfChannels, "
               "nbOfSamplesByChannel, timestamp [seconds, microseconds], buffer of interleaved "
               "16-bit samples). The first subscriber starts the source; a source that cannot "
               "open fails this call. Subscribing twice does nothing.",
               0);
  addParam("module", "Name of the subscribing module, which must exist on the broker.");
  bindMethod(&ZRAudioDevice::subscribe);

  functionName("unsubscribe", kAudioDeviceClassName,
               "Stops delivering to a module and discards its pending buffers. The last one to "
               "leave stops the source. A module that is not subscribed is ignored.",
               0);
  addParam("module", "Name of the module.");
  bindMethod(&ZRAudioDevice::unsubscribe);

  functionName("hold", kAudioDeviceClassName,
               "Holds the next start of the source (or the current one, before its first buffer) "
               "until release, so that several subscribers all get the stream from its start.",
               0);
  bindMethod(&ZRAudioDevice::hold);

  functionName("release", kAudioDeviceClassName,
               "Lets a held source deliver. A device created held holds every new start of its "
               "source, each until released; releasing one that is not held does nothing.",
               0);
  bindMethod(&ZRAudioDevice::release);

  functionName("getSubscribers", kAudioDeviceClassName, "Lists the subscribed modules.", 0);
  setReturn("modules", "Names of the subscribed modules, sorted.");
  bindMethod(&ZRAudioDevice::getSubscribers);

  functionName("getSampleRate", kAudioDeviceClassName,
               "Gives the sample rate of the delivered buffers.", 0);
  setReturn("rate", "Samples per second and channel; 0 while a file not opened yet decides it.");
  bindMethod(&ZRAudioDevice::getSampleRate);

  functionName("getChannelCount", kAudioDeviceClassName,
               "Gives the channel count of the delivered buffers.", 0);
  setReturn("channels",
            "Interleaved channels per buffer; 0 while a file not opened yet decides it.");
  bindMethod(&ZRAudioDevice::getChannelCount);

  functionName("getSamplesPerBuffer", kAudioDeviceClassName,
               "Gives how many samples per channel a full buffer holds (the last buffer of a "
               "stream may hold fewer).",
               0);
  setReturn("samples", "Samples per channel in a full buffer.");
  bindMethod(&ZRAudioDevice::getSamplesPerBuffer);

  functionName("getDeliveredBufferCount", kAudioDeviceClassName,
               "Gives how many buffers a module's \"processRemote\" has processed without error.",
               0);
  addParam("module", "Name of a module that has subscribed at least once.");
  setReturn("count", "Buffers delivered since the device was created.");
  bindMethod(&ZRAudioDevice::getDeliveredBufferCount);

  functionName("getDroppedBufferCount", kAudioDeviceClassName,
               "Gives how many buffers a live source dropped for a module because it did not keep "
               "up.",
               0);
  addParam("module", "Name of a module that has subscribed at least once.");
  setReturn("count", "Buffers dropped since the device was created.");
  bindMethod(&ZRAudioDevice::getDroppedBufferCount);

  functionName("isEndOfStream", kAudioDeviceClassName,
               "Tells whether the source has ended and \"ZRAudioDevice/EndOfStream\" was raised.",
               0);
  setReturn("ended", "True once the stream has ended; a new first subscriber restarts it.");
  bindMethod(&ZRAudioDevice::isEndOfStream);

  functionName("getSourceDescription", kAudioDeviceClassName, "Describes the device's source.", 0);
  setReturn("description", "For example: tone 440 Hz, paced at real time.");
  bindMethod(&ZRAudioDevice::getSourceDescription);

  functionName("getLatency", kAudioDeviceClassName,
               "Gives a module's delivery latency, from the capture of a buffer's first sample to "
               "the start of its \"processRemote\", over its last 1000 deliveries.",
               0);
  addParam("module", "Name of a module of this host that has subscribed at least once.");
  setReturn("latency",
            "[p50, p99, max] in milliseconds (floats), then the deliveries measured (int).");
  bindMethod(&ZRAudioDevice::getLatency);

  functionName("getDrift", kAudioDeviceClassName,
               "Gives how far a live source's real sample rate is off its nominal rate, measured "
               "against the host's monotonic clock since the source started.",
               0);
  setReturn("drift",
            "[ppm, uncertainty in ppm] (floats) and the buffers it rests on (int); empty while "
            "unknown (a source that is not live, or too few buffers yet).");
  bindMethod(&ZRAudioDevice::getDrift);

  functionName("getLostSampleCount", kAudioDeviceClassName,
               "Gives how many samples per channel were lost at capture (overruns, injected "
               "gaps); each loss is also raised as \"ZRAudioDevice/Gap\".",
               0);
  setReturn("samples", "Samples lost since the device was created.");
  bindMethod(&ZRAudioDevice::getLostSampleCount);

  functionName("startRecording", kAudioDeviceClassName,
               "Writes every buffer delivered from now on to a 16-bit WAV file.", 0);
  addParam("path", "The WAV file to create or overwrite.");
  bindMethod(&ZRAudioDevice::startRecording);

  functionName("stopRecording", kAudioDeviceClassName,
               "Closes the recording started by startRecording.", 0);
  setReturn("samples", "Samples per channel written; 0 when nothing was being recorded.");
  bindMethod(&ZRAudioDevice::stopRecording);
}

ZRAudioDevice::~ZRAudioDevice() {
  std::unique_lock<std::mutex> control(controlMutex_);
  stopCapture(control);
  // A module still subscribed will call "unsubscribe" on a device that is gone; say so now, while
  // both names are known, before whatever the module does about it.
  for (const std::string& module : getSubscribers()) {
    VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
        << getName() << ": going away while \"" << module << "\" is still subscribed; its later "
        << "unsubscribe from \"" << getName() << "\" will fail";
  }
  core_->line->clear(true);
  core_->remote->close();
  core_->recorder.stop();
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
  // A module of another host that registered a moment ago may not have reached this host yet.
  if (!broker->endpoint().empty() && !broker->session()->hasService(module))
    broker->session()->waitForService(module).async().wait(static_cast<int>(kPublishWait.count()));
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

  // Subscribing twice does nothing: one stream per module, its counts kept.
  if (core_->line->has(module) || core_->remote->has(module)) return;
  const std::optional<vo::Session::RemoteService> where = broker->session()->remoteService(module);
  const bool first = core_->line->subscribers().empty();

  std::unique_ptr<ZRAudioSource> source;
  if (first && options_.source != ZRAudioDeviceOptions::Source::Host) {
    stopCapture(control);  // a previous run that ended or lost its subscribers
    if (readsFormatFromFile(options_)) {
      ZRAudioFormat f;
      std::lock_guard<std::mutex> lock(core_->mutex);
      if (core_->format.sampleRate == 0 && probeFileFormat(options_, f)) {
        if (f.channels > kMaxAudioChannels)
          throw ZRError(getName(), "subscribe",
                        "\"" + options_.path + "\" has " + std::to_string(f.channels) +
                            " channels; at most " + std::to_string(kMaxAudioChannels) +
                            " are supported");
        core_->setFormat(f);
      }
    }
    ZRAudioFormat format;
    {
      std::lock_guard<std::mutex> lock(core_->mutex);
      format = core_->format;
    }
    source = openAudioSource(options_, format, getName(), "subscribe");
  }

  if (where) {
    core_->remote->add(core_->line, *broker, module, where->address, core_->latency.of(module));
  } else {
    ZRStrand strand = broker->makeStrand();
    std::shared_ptr<ZRLatencyWindow> latency = core_->latency.of(module);
    core_->line->add(
        module, [strand](std::function<void()> work) { strand.post(std::move(work)); },
        [proxy, latency](detail::ZRDelivery& call) {
          if (call.captureNs) latency->add(zrMonotonicNs() - call.captureNs);
          // What the subscriber raises from this buffer is timed from its capture too.
          const detail::ZRCaptureScope capture(call.captureNs);
          proxy->metaCall(call.method, call.args.data(), call.args.size());
        },
        // In a network, a gone subscriber stays until the broker's reaper unsubscribes it, so
        // that the last one leaving stops the source here, in unsubscribe, as always.
        [proxy, networked = !broker->endpoint().empty()] {
          return !networked && !proxy->isValid();
        });
  }
  if (!source) return;
  source = withInjectedGaps(std::move(source), options_, core_->format);
  core_->declareGapEvent();  // the memory service may have come after the device
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    core_->stop = false;
    core_->ended = false;
    core_->held = core_->held || options_.held;  // a hold() before the start stands
    core_->capturing = true;
  }
  VO_LOG(vo::LogLevel_Info, kAudioDeviceCategory)
      << getName() << ": starting " << options_.describe() << " for \"" << module << "\"";
  core_->thread = std::thread(&Core::run, core_, std::move(source));
}

void ZRAudioDevice::unsubscribe(const std::string& module) {
  std::unique_lock<std::mutex> control(controlMutex_);
  const bool remote = core_->remote->remove(*core_->line, module);
  if (!core_->line->remove(module) && !remote) return;
  if (core_->line->subscribers().empty() && options_.source != ZRAudioDeviceOptions::Source::Host) {
    stopCapture(control);
    VO_LOG(vo::LogLevel_Info, kAudioDeviceCategory)
        << getName() << ": stopped " << options_.describe();
  }
}

std::vector<std::string> ZRAudioDevice::getSubscribers() {
  std::set<std::string> all;  // a live source's remote subscribers are line entries too
  for (std::string& name : core_->remote->modules()) all.insert(std::move(name));
  for (std::string& name : core_->line->subscribers())
    if (!ZRAudioRemoteSubscribers::isEntry(name)) all.insert(std::move(name));
  return std::vector<std::string>(all.begin(), all.end());
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
  detail::ZRDeliveryCounts c;
  // A subscriber on another host shares the counts of its host's stream.
  const std::string entry = core_->remote->entryOf(module);
  if (!core_->line->counts(module, c) && (entry.empty() || !core_->line->counts(entry, c)))
    throw ZRError(getName(), "getDeliveryStats",
                  "module \"" + module + "\" never subscribed to this device");
  return {c.delivered, c.dropped, c.failed, c.mostQueued};
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

bool ZRAudioDevice::getLatencyFigures(const std::string& module, ZRAudioLatency& out) {
  return core_->latency.figures(module, out);
}

ZRValue ZRAudioDevice::getLatency(const std::string& module) {
  ZRAudioLatency l;
  if (!getLatencyFigures(module, l)) {
    getDeliveryStats(module);  // ZRError for a module that never subscribed
    throw ZRError(getName(), "getLatency",
                  "module \"" + module + "\" is on another host: its deliveries start there");
  }
  ZRValue v;
  v.arraySetSize(4);
  v[0] = static_cast<float>(l.p50Ms);
  v[1] = static_cast<float>(l.p99Ms);
  v[2] = static_cast<float>(l.maxMs);
  v[3] = clampToInt(l.count);
  return v;
}

ZRAudioDrift ZRAudioDevice::getDriftEstimate() {
  return core_->drift.estimate();
}

ZRValue ZRAudioDevice::getDrift() {
  const ZRAudioDrift d = getDriftEstimate();
  ZRValue v;
  v.arraySetSize(d.known ? 3 : 0);
  if (d.known) {
    v[0] = static_cast<float>(d.ppm);
    v[1] = static_cast<float>(d.uncertaintyPpm);
    v[2] = clampToInt(d.points);
  }
  return v;
}

std::int64_t ZRAudioDevice::lostSamples() {
  return core_->lostAtCapture.load();
}

int ZRAudioDevice::getLostSampleCount() {
  return clampToInt(lostSamples());
}

bool ZRAudioDevice::isCapturing() {
  std::lock_guard<std::mutex> lock(core_->mutex);
  return core_->capturing;
}

bool ZRAudioDevice::waitUntilHeldBack(int timeoutMs) {
  return core_->line->waitUntilProducerWaits(std::chrono::milliseconds(timeoutMs));
}

bool ZRAudioDevice::waitUntilStopped(int timeoutMs) {
  std::unique_lock<std::mutex> lock(core_->mutex);
  auto stopped = [&] { return !core_->capturing; };
  if (timeoutMs >= 0)
    return core_->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), stopped);
  core_->changed.wait(lock, stopped);
  return true;
}

bool ZRAudioDevice::waitUntilIdle(int timeoutMs) {
  return core_->line->waitUntilIdle(std::chrono::milliseconds(timeoutMs));
}

bool ZRAudioDevice::waitForEndOfStream(int timeoutMs) {
  const auto start = std::chrono::steady_clock::now();
  {
    std::unique_lock<std::mutex> lock(core_->mutex);
    auto ended = [&] { return core_->ended; };
    if (timeoutMs < 0)
      core_->changed.wait(lock, ended);
    else if (!core_->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ended))
      return false;
  }
  if (timeoutMs < 0) return core_->line->waitUntilIdle();
  const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  return core_->line->waitUntilIdle(
      std::max(std::chrono::milliseconds(0), std::chrono::milliseconds(timeoutMs) - spent));
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
  core_->recorder.start(path, f, getName());
}

int ZRAudioDevice::stopRecording() {
  return clampToInt(core_->recorder.stop());
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
  core_->changed.notify_all();
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
  std::shared_ptr<ZRAudioBlockPool::Block> block = core_->blocks.acquire(count);
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
  core_->publish(
      buffer, static_cast<std::size_t>(samplesPerChannel),
      core_->captureTimeOf(static_cast<std::size_t>(samplesPerChannel), zrMonotonicNs()));
}

void ZRAudioDevice::endStream() {
  if (options_.source != ZRAudioDeviceOptions::Source::Host)
    throw ZRError(getName(), "endStream", "only a device fed by its host ends when told to");
  std::lock_guard<std::mutex> producer(core_->producerMutex);
  core_->finishStream();
}

}  // namespace ZR
