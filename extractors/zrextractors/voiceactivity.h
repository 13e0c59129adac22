#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

#include <zrproxies/zrmemoryproxy.h>
#include <zrsoundextractor/zrsoundextractor.h>

namespace ZR {

/// Speech segments, from the energy of 10 ms frames (channels mixed) against an adaptive noise
/// floor: the lowest smoothed energy of the last few seconds. A frame is loud when its energy
/// exceeds the floor by a margin; speech starts after a few loud frames in a row and ends when
/// no frame has been loud for a hangover, so that short pauses do not split a phrase.
///
/// The precision tunes sensitivity: 0 (default) asks for 10 dB above the floor, 1 for 5 dB.
///
/// Outputs, for a module registered as N:
/// - event "N/SpeechDetected", raised on each change: [["time", s], ["speech", bool]];
/// - event "N/Segment", raised per finished segment: [["start", s], ["end", s]], in seconds
///   from the start of the stream; the end is that of the last loud frame.
/// The remote "flush" closes a segment still open at the end of a stream.
class VoiceActivity : public ZRSoundExtractor {
 public:
  static constexpr int kFrameMs = 10;
  static constexpr int kOnsetFrames = 3;
  static constexpr int kHangoverMs = 300;
  static constexpr float kAbsoluteFloorDb = -65.0f;

  VoiceActivity(boost::shared_ptr<ZRBroker> broker, const std::string& name);
  ~VoiceActivity() override;

  void startDetection() override;
  void xUpdateParameters(int period, float precision) override;
  void process(const int& nbOfChannels, const int& nbOfSamplesByChannel, const short* buffer,
               const ZRValue& timestamp) override;

  /// Remote: ends an open segment at its last loud frame.
  void flush();
  std::string speechEvent() const { return getName() + "/SpeechDetected"; }
  std::string segmentEvent() const { return getName() + "/Segment"; }

 private:
  void endFrame();
  void closeSegment();

  boost::shared_ptr<ZRMemoryProxy> memory_;
  std::atomic<int> sampleRate_{16000};
  std::atomic<float> marginDb_{10.0f};

  // Delivery state, guarded because flush may come from another thread than deliveries.
  std::mutex mutex_;
  long long frameSamples_ = 160;
  long long filled_ = 0;
  double energy_ = 0.0;
  double frameStart_ = 0.0;
  double smoothedDb_ = -120.0;
  std::deque<double> history_;  // smoothed energies of the floor window
  bool speech_ = false;
  int loudRun_ = 0;
  double runStart_ = 0.0;
  double segmentStart_ = 0.0;
  double lastLoudEnd_ = 0.0;
};

}  // namespace ZR
