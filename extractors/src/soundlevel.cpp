#include "zrextractors/soundlevel.h"

#include <cmath>
#include <cstdlib>

#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrsamples.h>
#include <zrproxies/zrmemoryproxy.h>

#include "extractorutil.h"
#include "zrextractors/zrrecord.h"

namespace ZR {

SoundLevel::SoundLevel(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                       int defaultPeriodMs)
    : ZRSoundExtractor(broker, name),
      memory_(boost::make_shared<ZRMemoryProxy>(broker)),
      defaultPeriodMs_(defaultPeriodMs > 0 ? defaultPeriodMs : 100),
      periodMs_(defaultPeriodMs_) {
  setModuleDescription(
      "Per-channel RMS and peak levels in dBFS over windows of the current period.");
  functionName("setThreshold", "SoundLevel",
               "Sets the RMS level at which a channel counts as loud, and how far below it the "
               "level must fall to count as quiet again.",
               0);
  addParam("thresholdDb", "Threshold in dBFS (default -30).");
  addParam("hysteresisDb", "Hysteresis in dB, non-negative (default 6).");
  bindMethod(&SoundLevel::setThreshold);
  functionName("flush", "SoundLevel",
               "Publishes the window still open, shorter than the period, as at the end of a "
               "stream.",
               0);
  bindMethod(&SoundLevel::flush);

  declareEvent(levelsEvent());
  declareEvent(thresholdEvent());
}

SoundLevel::~SoundLevel() = default;

float SoundLevel::toDb(double amplitude) {
  if (!(amplitude > 0.0)) return kFloorDb;
  const double db = 20.0 * std::log10(amplitude);
  return db < kFloorDb ? kFloorDb : static_cast<float>(db);
}

void SoundLevel::setThreshold(const float& thresholdDb, const float& hysteresisDb) {
  if (!(hysteresisDb >= 0.0f) || !std::isfinite(thresholdDb))
    throw ZRError(getName(), "setThreshold",
                  "the threshold must be finite and the hysteresis >= 0");
  thresholdDb_ = thresholdDb;
  hysteresisDb_ = hysteresisDb;
}

void SoundLevel::startDetection() {
  {
    // Each run starts afresh: a window or a loud channel of the last run is not this one's.
    std::lock_guard<std::mutex> lock(mutex_);
    channels_ = 0;
    filled_ = 0;
  }
  // The window length is in samples: learn the device's rate before its first buffer comes.
  sampleRate_ = deviceSampleRate(*this, sampleRate_.load());
  ZRSoundExtractor::startDetection();
}

void SoundLevel::xStartDetection(int period, float precision) {
  // The first subscriber's period arrives here, not through xUpdateParameters.
  xUpdateParameters(period, precision);
  ZRSoundExtractor::xStartDetection(period, precision);
}

void SoundLevel::xUpdateParameters(int period, float /*precision*/) {
  if (period > 0) periodMs_ = period;
}

void SoundLevel::process(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                         const short* buffer, const ZRValue& timestamp) {
  if (!samplesFit(nbOfChannels, nbOfSamplesByChannel, buffer)) {
    // Counts come from the sender unchecked; reading by them could run past the block.
    const std::int64_t n = ++ignored_;
    std::int64_t p = 1;
    while (p < n) p *= 10;
    if (p == n)
      VO_LOG(vo::LogLevel_Warning, "zrextractors.SoundLevel")
          << getName() << ": ignored a buffer of " << nbOfChannels << " x " << nbOfSamplesByChannel
          << " samples that its data does not hold (" << n << " so far)";
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  const int rate = sampleRate_.load();
  const double bufferTime = timestampSeconds(timestamp);
  // Where the buffer sits; from its time for a timestamp that does not say.
  ZRAudioTimestamp at;
  bool positioned = false;
  ZRAudioTimestamp::read(timestamp, at, &positioned);
  const std::int64_t bufferSample =
      positioned ? at.sample : std::llround(bufferTime * static_cast<double>(rate));
  if (nbOfChannels != channels_) {
    // A new channel layout starts afresh: levels of different layouts don't mix.
    channels_ = nbOfChannels;
    sumSquares_.assign(channels_, 0.0);
    peak_.assign(channels_, 0);
    loud_.assign(channels_, false);
    filled_ = 0;
  }
  for (int i = 0; i < nbOfSamplesByChannel; ++i) {
    if (filled_ == 0) {
      windowStart_ = bufferTime + static_cast<double>(i) / rate;
      windowStartSample_ = bufferSample + i;
      // A new period takes effect at the next window.
      windowSamples_ = std::max<long long>(
          1, std::llround(static_cast<double>(rate) * periodMs_.load() / 1000.0));
    }
    const short* frame = buffer + static_cast<std::size_t>(i) * channels_;
    for (int c = 0; c < channels_; ++c) {
      const int s = frame[c];
      sumSquares_[c] += static_cast<double>(s) * s;
      const int a = std::abs(s);
      if (a > peak_[c]) peak_[c] = a;
    }
    if (++filled_ == windowSamples_) emitWindow();
  }
}

void SoundLevel::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (filled_ > 0) emitWindow();
}

void SoundLevel::emitWindow() {
  std::vector<float> rms(channels_), peak(channels_);
  for (int c = 0; c < channels_; ++c) {
    rms[c] = toDb(std::sqrt(sumSquares_[c] / static_cast<double>(filled_)) / 32768.0);
    peak[c] = toDb(peak_[c] / 32768.0);
  }
  ZRValue record = makeRecord({{"time", ZRValue(static_cast<float>(windowStart_))},
                               {"sample", zrSampleValue(windowStartSample_)},
                               {"rms", floatArray(rms.data(), channels_)},
                               {"peak", floatArray(peak.data(), channels_)}});
  std::vector<ZRValue> crossings;
  const float threshold = thresholdDb_.load(), hysteresis = hysteresisDb_.load();
  for (int c = 0; c < channels_; ++c) {
    const bool wasLoud = loud_[c];
    if (!wasLoud && rms[c] >= threshold)
      loud_[c] = true;
    else if (wasLoud && rms[c] < threshold - hysteresis)
      loud_[c] = false;
    if (loud_[c] != wasLoud) {
      crossings.push_back(makeRecord({{"time", ZRValue(static_cast<float>(windowStart_))},
                                      {"sample", zrSampleValue(windowStartSample_)},
                                      {"channel", ZRValue(c)},
                                      {"state", ZRValue(loud_[c] ? "loud" : "quiet")},
                                      {"rms", ZRValue(rms[c])}}));
    }
  }
  std::fill(sumSquares_.begin(), sumSquares_.end(), 0.0);
  std::fill(peak_.begin(), peak_.end(), 0);
  filled_ = 0;

  memory_->raiseEvent(levelsEvent(), std::move(record));
  for (ZRValue& c : crossings) memory_->raiseEvent(thresholdEvent(), std::move(c));
}

}  // namespace ZR
