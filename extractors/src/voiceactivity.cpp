#include "zrextractors/voiceactivity.h"

#include <algorithm>
#include <cmath>

#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrsamples.h>

#include "extractorutil.h"
#include "speechdetector.h"
#include "zrextractors/zrrecord.h"

namespace ZR {

static_assert(VoiceActivity::kFrameMs == SpeechDetector::kHopMs &&
                  VoiceActivity::kHangoverMs == SpeechDetector::kHangoverMs &&
                  VoiceActivity::kMinSegmentMs == SpeechDetector::kMinSegmentMs,
              "the documented timing is the detector's");

namespace {
// A sender that gets its counts wrong usually does so on every buffer: one line now and then
// says it without flooding the log.
constexpr auto kWarningInterval = std::chrono::seconds(5);
}  // namespace

VoiceActivity::VoiceActivity(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRSoundExtractor(broker, name), memory_(boost::make_shared<ZRMemoryProxy>(broker)) {
  setModuleDescription(
      "Speech segments detected from voiced sound in the speech band against a tracked noise "
      "background.");
  functionName("flush", "VoiceActivity",
               "Ends a speech segment still open, as at the end of a stream.", 0);
  bindMethod(&VoiceActivity::flush);
  declareEvent(speechEvent());
  declareEvent(segmentEvent());
}

VoiceActivity::~VoiceActivity() = default;

void VoiceActivity::startDetection() {
  {
    // Each run starts afresh: the last run's frames, noise estimate and segment are not this
    // one's.
    std::lock_guard<std::mutex> lock(mutex_);
    detector_.reset();
  }
  // Frame and window lengths are in samples: learn the device's rate before its first buffer.
  sampleRate_ = deviceSampleRate(*this, sampleRate_.load());
  ZRSoundExtractor::startDetection();
}

void VoiceActivity::xStartDetection(int period, float precision) {
  // The first subscriber's precision arrives here, not through xUpdateParameters.
  setPrecision(precision);
  ZRSoundExtractor::xStartDetection(period, precision);
}

void VoiceActivity::xUpdateParameters(int /*period*/, float precision) {
  setPrecision(precision);
}

void VoiceActivity::setPrecision(float precision) {
  // -1 means no subscriber is left: keep the last value for deliveries still on their way.
  if (!std::isfinite(precision) || precision < 0.0f) return;
  precision_ = std::min(precision, 1.0f);
}

void VoiceActivity::warnBadBuffer(int channels, int samples) {
  const auto now = std::chrono::steady_clock::now();
  ++ignoredBuffers_;
  if (lastWarning_ != std::chrono::steady_clock::time_point{} &&
      now - lastWarning_ < kWarningInterval)
    return;
  VO_LOG(vo::LogLevel_Warning, "zrextractors.VoiceActivity")
      << getName() << ": ignored " << ignoredBuffers_ << " buffer(s) whose counts do not fit "
      << "their samples (last: " << channels << " channel(s) x " << samples << " samples)";
  lastWarning_ = now;
  ignoredBuffers_ = 0;
}

void VoiceActivity::process(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                            const short* buffer, const ZRValue& timestamp) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!samplesFit(nbOfChannels, nbOfSamplesByChannel, buffer)) {
    warnBadBuffer(nbOfChannels, nbOfSamplesByChannel);
    return;
  }
  const int rate = sampleRate_.load();
  if (!detector_ || detector_->sampleRate() != rate) {
    detector_ = std::make_unique<SpeechDetector>(rate);
    // Times come from the buffers' positions (lost samples included), so a time in double
    // precision is the position to the sample.
    auto position = [rate](double time) {
      return zrSampleValue(std::llround(time * static_cast<double>(rate)));
    };
    detector_->onChange = [this, position](bool speech, double time) {
      memory_->raiseEvent(speechEvent(), makeRecord({{"time", ZRValue(static_cast<float>(time))},
                                                     {"speech", ZRValue(speech)},
                                                     {"sample", position(time)}}));
    };
    detector_->onSegment = [this, position](double start, double end) {
      memory_->raiseEvent(segmentEvent(), makeRecord({{"start", ZRValue(static_cast<float>(start))},
                                                      {"end", ZRValue(static_cast<float>(end))},
                                                      {"sample", position(start)}}));
    };
  }
  detector_->setSensitivity(precision_.load());
  detector_->feed(nbOfChannels, nbOfSamplesByChannel, buffer, timestampSeconds(timestamp));
}

void VoiceActivity::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (detector_) detector_->flush();
}

}  // namespace ZR
