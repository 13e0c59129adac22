#include "zrextractors/voiceactivity.h"

#include <algorithm>
#include <cmath>

#include <boost/make_shared.hpp>

#include "extractorutil.h"
#include "zrextractors/zrrecord.h"

namespace ZR {

namespace {
// How far back the noise floor looks: longer than any pause between words, shorter than the
// time it takes for the background to change noticeably.
constexpr int kFloorWindowFrames = 300;
}  // namespace

VoiceActivity::VoiceActivity(boost::shared_ptr<ZRBroker> broker, const std::string& name)
    : ZRSoundExtractor(broker, name), memory_(boost::make_shared<ZRMemoryProxy>(broker)) {
  setModuleDescription("Speech segments detected from energy against an adaptive noise floor.");
  functionName("flush", "VoiceActivity",
               "Ends a speech segment still open, as at the end of a stream.", 0);
  bindMethod(&VoiceActivity::flush);
  declareEvent(speechEvent());
  declareEvent(segmentEvent());
}

VoiceActivity::~VoiceActivity() = default;

void VoiceActivity::startDetection() {
  sampleRate_ = deviceSampleRate(*this, sampleRate_.load());
  ZRSoundExtractor::startDetection();
}

void VoiceActivity::xUpdateParameters(int /*period*/, float precision) {
  const float p = std::isfinite(precision) ? std::clamp(precision, 0.0f, 1.0f) : 0.0f;
  marginDb_ = 10.0f - 5.0f * p;
}

void VoiceActivity::process(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                            const short* buffer, const ZRValue& timestamp) {
  if (!buffer || nbOfChannels <= 0 || nbOfSamplesByChannel <= 0) return;
  std::lock_guard<std::mutex> lock(mutex_);
  const int rate = sampleRate_.load();
  frameSamples_ = std::max(1, rate * kFrameMs / 1000);
  const double bufferTime = timestampSeconds(timestamp);
  for (int i = 0; i < nbOfSamplesByChannel; ++i) {
    if (filled_ == 0) frameStart_ = bufferTime + static_cast<double>(i) / rate;
    const short* frame = buffer + static_cast<std::size_t>(i) * nbOfChannels;
    double mix = 0.0;
    for (int c = 0; c < nbOfChannels; ++c) mix += frame[c];
    mix /= nbOfChannels;
    energy_ += mix * mix;
    if (++filled_ == frameSamples_) endFrame();
  }
}

void VoiceActivity::endFrame() {
  const double meanSquare = energy_ / static_cast<double>(filled_);
  const double frameDb = meanSquare > 0.0 ? 10.0 * std::log10(meanSquare / (32768.0 * 32768.0)) : -120.0;
  const double frameEnd = frameStart_ + static_cast<double>(filled_) / sampleRate_.load();
  energy_ = 0.0;
  filled_ = 0;

  // A little smoothing keeps single quiet frames inside words from dragging the floor down.
  smoothedDb_ = history_.empty() ? frameDb : 0.7 * smoothedDb_ + 0.3 * frameDb;
  history_.push_back(smoothedDb_);
  if (history_.size() > static_cast<std::size_t>(kFloorWindowFrames)) history_.pop_front();
  const double floorDb = *std::min_element(history_.begin(), history_.end());
  const bool loud = frameDb > floorDb + marginDb_.load() && frameDb > kAbsoluteFloorDb;

  if (loud) {
    if (loudRun_ == 0) runStart_ = frameStart_;
    ++loudRun_;
    lastLoudEnd_ = frameEnd;
    if (!speech_ && loudRun_ >= kOnsetFrames) {
      speech_ = true;
      segmentStart_ = runStart_;
      memory_->raiseEvent(speechEvent(), makeRecord({{"time", ZRValue(static_cast<float>(segmentStart_))},
                                                     {"speech", ZRValue(true)}}));
    }
  } else {
    loudRun_ = 0;
    if (speech_ && frameEnd - lastLoudEnd_ >= kHangoverMs / 1000.0) closeSegment();
  }
}

void VoiceActivity::closeSegment() {
  speech_ = false;
  memory_->raiseEvent(speechEvent(), makeRecord({{"time", ZRValue(static_cast<float>(lastLoudEnd_))},
                                                 {"speech", ZRValue(false)}}));
  memory_->raiseEvent(segmentEvent(), makeRecord({{"start", ZRValue(static_cast<float>(segmentStart_))},
                                                  {"end", ZRValue(static_cast<float>(lastLoudEnd_))}}));
}

void VoiceActivity::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (speech_) closeSegment();
  loudRun_ = 0;
}

}  // namespace ZR
