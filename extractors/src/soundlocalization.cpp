// SoundLocalization: the module around the localizer, the tracker and the channel check.

#include "zrextractors/soundlocalization.h"

#include <algorithm>
#include <cmath>

#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/zrsamples.h>

#include "channelcheck.h"
#include "extractorutil.h"
#include "localizer.h"
#include "sourcetracker.h"
#include "zrextractors/zrrecord.h"

namespace ZR {

namespace {

constexpr const char* kCategory = "zrextractors.SoundLocalization";
// A block with a smaller share of its bins above the noise (and not reverberation) holds no
// sound worth a look; one with this share or more is clear.
constexpr float kMinWeight = 0.005f;
constexpr float kClearWeight = 0.07f;
constexpr int kMaxSources = 8;
// Longest stretch analysed at once (the default period).
constexpr double kBlockMs = 100.0;

}  // namespace

SoundLocalization::SoundLocalization(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                                     std::optional<ZRMicArray> array, int maxSources)
    : ZRSoundExtractor(broker, name),
      memory_(boost::make_shared<ZRMemoryProxy>(broker)),
      maxSources_(std::clamp(maxSources, 1, kMaxSources)),
      array_(std::move(array)) {
  setModuleDescription(
      "Directions of up to N simultaneous sound sources around a microphone array, tracked over "
      "time.");
  functionName("setArray", "SoundLocalization",
               "Sets the microphone array: a shape such as circular4-r32mm or linear4-d40mm, JSON "
               "text {\"name\": ..., \"mics\": [[x, y, z], ...]} in metres, or the path of a JSON "
               "file on this host.",
               0);
  addParam("array", "Shape name, JSON text or file path.");
  bindMethod(&SoundLocalization::setArray);
  functionName("getArray", "SoundLocalization", "The microphone array in use, as JSON.", 0);
  setReturn("array", "JSON text, empty when no array is set.");
  bindMethod(&SoundLocalization::getArray);
  functionName("setMaxSources", "SoundLocalization",
               "Sets how many sources are reported at most at once.", 0);
  addParam("count", "1 to 8 (default 2).");
  bindMethod(&SoundLocalization::setMaxSources);
  functionName("flush", "SoundLocalization",
               "Publishes the period still open, as at the end of a stream.", 0);
  bindMethod(&SoundLocalization::flush);
  declareEvent(sourcesEvent());
}

SoundLocalization::~SoundLocalization() = default;

void SoundLocalization::setArray(const std::string& given) {
  ZRMicArray parsed;
  try {
    parsed = ZRMicArray::parse(given);
  } catch (const ZRError& e) {
    throw ZRError(getName(), "setArray", e.getDescription());
  }
  std::lock_guard<std::mutex> lock(mutex_);
  array_ = std::move(parsed);
  localizer_.reset();  // rebuilt for the new geometry at the next buffer
  tracker_.reset();
  check_.reset();
  warned_.clear();
}

std::string SoundLocalization::getArray() {
  std::lock_guard<std::mutex> lock(mutex_);
  return array_ ? array_->toJson() : std::string();
}

void SoundLocalization::setMaxSources(const int& count) {
  if (count < 1 || count > kMaxSources)
    throw ZRError(
        getName(), "setMaxSources",
        "the count must be 1 to " + std::to_string(kMaxSources) + ", not " + std::to_string(count));
  maxSources_ = count;
}

void SoundLocalization::startDetection() {
  std::optional<ZRMicArray> array;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    array = array_;
  }
  if (!array)
    throw ZRError(getName(), "subscribe",
                  "no microphone array: give one with --array FILE.json|SHAPE (zr run, zr host) "
                  "or the remote method setArray");
  // Geometry and device must agree before the first buffer: a wrong channel count would give
  // directions that look fine and are not.
  int channels = array->size();
  int rate = sampleRate_.load();
  try {
    auto device = getParentBroker()->getProxy(kAudioDeviceServiceName, 0);
    channels = device->call<int>("getChannelCount");
    rate = device->call<int>("getSampleRate");
  } catch (const ZRError&) {
    // No device yet: the base's subscription says so, and buffers are checked as they come.
  }
  try {
    array->checkFor(channels, rate);
  } catch (const ZRError& e) {
    throw ZRError(getName(), "subscribe", e.getDescription());
  }
  if (rate > 0) sampleRate_ = rate;
  ZRSoundExtractor::startDetection();
}

void SoundLocalization::xStartDetection(int period, float precision) {
  // The first subscriber's values arrive here, not through xUpdateParameters.
  xUpdateParameters(period, precision);
  ZRSoundExtractor::xStartDetection(period, precision);
}

void SoundLocalization::xUpdateParameters(int period, float precision) {
  if (period > 0) periodMs_ = period;
  setPrecision(precision);
}

void SoundLocalization::setPrecision(float precision) {
  // -1 means no subscriber is left: keep the last value for deliveries still on their way.
  if (!std::isfinite(precision) || precision < 0.0f) return;
  precision_ = std::min(precision, 1.0f);
}

void SoundLocalization::warnOnce(const std::string& text) {
  if (!warned_.insert(text).second) return;
  VO_LOG(vo::LogLevel_Warning, kCategory) << getName() << ": " << text;
}

void SoundLocalization::process(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                                const short* buffer, const ZRValue& timestamp) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!samplesFit(nbOfChannels, nbOfSamplesByChannel, buffer)) {
    warnOnce("ignored buffers whose counts do not fit their samples (" +
             std::to_string(nbOfChannels) + " channel(s) x " +
             std::to_string(nbOfSamplesByChannel) + " samples)");
    return;
  }
  if (!array_) return;
  if (nbOfChannels != array_->size()) {
    warnOnce("ignored buffers of " + std::to_string(nbOfChannels) + " channel(s): the array \"" +
             array_->name() + "\" has " + std::to_string(array_->size()) + " mics");
    return;
  }
  const int rate = sampleRate_.load();
  const float precision = precision_.load();
  if (!localizer_ || builtPrecision_ != precision || builtRate_ != rate) {
    try {
      array_->checkFor(nbOfChannels, rate);
    } catch (const ZRError& e) {
      warnOnce(e.getDescription());
      return;
    }
    localizer_ = std::make_unique<Localizer>(*array_, rate,
                                             LocalizerSettings::forPrecision(precision, rate));
    if (!tracker_)  // a line along x reports the angle from its axis, which does not wrap
      tracker_ = std::make_unique<SourceTracker>(array_->kind() == ZRMicArray::Kind::Linear &&
                                                 array_->axis()[0] > 0.999);
    localizer_->setCandidates(tracker_->candidates(candidateCount()));
    if (!check_) check_ = std::make_unique<ChannelCheck>(*array_);
    for (int c : check_->deadChannels()) localizer_->excludeChannel(c);
    builtPrecision_ = precision;
    builtRate_ = rate;
    periodFilled_ = blockFilled_ = 0;
  }
  const double bufferTime = timestampSeconds(timestamp);
  for (int pos = 0; pos < nbOfSamplesByChannel;) {
    if (periodFilled_ == 0) {
      periodStart_ = bufferTime + static_cast<double>(pos) / rate;
      // A new period takes effect at the next period.
      periodSamples_ = std::max<long long>(1, std::llround(rate * periodMs_.load() / 1000.0));
    }
    // A long period is analysed in blocks of kBlockMs: the tracker follows moving talkers, and
    // tells two talkers apart, at that pace whatever the period.
    const long long block = std::max<long long>(1, std::llround(rate * kBlockMs / 1000.0));
    const long long blockEnd = std::min(periodSamples_, (periodFilled_ / block + 1) * block);
    const int take =
        static_cast<int>(std::min<long long>(nbOfSamplesByChannel - pos, blockEnd - periodFilled_));
    localizer_->push(buffer + static_cast<std::size_t>(pos) * nbOfChannels, take);
    pos += take;
    periodFilled_ += take;
    blockFilled_ += take;
    if (periodFilled_ == blockEnd) analyseBlock();
    if (periodFilled_ == periodSamples_) {
      publish();
      periodFilled_ = 0;
    }
  }
}

void SoundLocalization::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (localizer_ && localizer_->pendingFrames() > 0) {
    analyseBlock();
    publish();
    periodFilled_ = 0;
  }
}

int SoundLocalization::candidateCount() const {
  // The tracks that may be reported, and one tentative or held track more.
  return std::min(maxSources_.load() + 1, Localizer::kMaxCandidates);
}

void SoundLocalization::analyseBlock() {
  const int maxSources = maxSources_.load();
  localizer_->measurePairPeaks(check_->judging());
  const LocalizedPeriod period = localizer_->analyse(maxSources);
  for (const std::string& w : check_->update(period, *localizer_)) warnOnce(w);
  for (int c : check_->deadChannels()) localizer_->excludeChannel(c);

  std::vector<SourceObservation> observations;
  if (period.weight >= kMinWeight) {
    const float reliability = std::min(1.0f, period.weight / kClearWeight);
    auto observe = [&](const LocalizedPeak& p) {
      if (p.coherence <= 0.0f) return;
      SourceObservation o{
          p.direction, p.azimuth,
          p.elevation, p.coherence,
          p.purity,    period.speechDb + 10.0f * std::log10(std::max(p.coherence, 1e-6f)),
          reliability, p.candidate};
      observations.push_back(o);
    };
    for (const LocalizedPeak& p : period.tracked) observe(p);
    for (const LocalizedPeak& p : period.peaks) observe(p);
  }
  const double seconds = static_cast<double>(blockFilled_) / builtRate_;
  blockFilled_ = 0;
  sources_ = tracker_->update(observations, seconds, maxSources);
  localizer_->setCandidates(tracker_->candidates(candidateCount()));
}

void SoundLocalization::publish() {
  ++analysed_;
  ZRValue list;
  list.arrayReserve(static_cast<int>(sources_.size()));
  for (const TrackedSource& s : sources_)
    list.arrayPush(makeRecord({{"id", ZRValue(s.id)},
                               {"azimuth", ZRValue(static_cast<float>(s.azimuth))},
                               {"elevation", ZRValue(static_cast<float>(s.elevation))},
                               {"energy", ZRValue(s.energyDb)}}));
  memory_->raiseEvent(
      sourcesEvent(),
      makeRecord({{"time", ZRValue(static_cast<float>(periodStart_))}, {"sources", list}}));
}

}  // namespace ZR
