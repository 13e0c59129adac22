#pragma once

// The parts of the audio device that its capture thread and the delivery tasks share with it.
// The device object itself may go away on any of those threads, so they hold this instead.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <boost/weak_ptr.hpp>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/detail/zrdeliveryline.h>
#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrbroker.h>

#include "zraudioblockpool.h"
#include "zraudiorecorder.h"
#include "zraudioremote.h"
#include "zraudiosource.h"
#include "zraudiotiming.h"

namespace ZR {

inline constexpr int kMaxAudioChannels = 32;
/// The declaring class of the device's remote methods, and the operation its constructor names.
inline constexpr const char* kAudioDeviceClassName = "ZRAudioDevice";

/// Buffers on their way to the subscribers: calls of "processRemote"(channels,
/// samplesPerChannel, timestamp, buffer).
using ZRAudioLine = detail::ZRDeliveryLine;

/// Throws ZRError (module `name`) for options no source can run with.
void validateAudioDeviceOptions(const ZRAudioDeviceOptions& options, const std::string& name);

/// The fan-out of buffers to the subscribers: a live source drops the oldest buffer of a
/// subscriber that does not keep up, any other waits for the slowest and loses nothing.
/// Its drops are announced as gaps by `core`.
std::shared_ptr<ZRAudioLine> makeAudioLine(const std::string& deviceName,
                                           const ZRAudioDeviceOptions& options,
                                           const std::weak_ptr<ZRAudioDevice::Core>& core);

struct ZRAudioDevice::Core : std::enable_shared_from_this<ZRAudioDevice::Core> {
  std::string name;
  boost::weak_ptr<ZRBroker> broker;
  ZRAudioDeviceOptions options;
  std::shared_ptr<ZRAudioLine> line;
  std::shared_ptr<ZRAudioRemoteSubscribers> remote;

  // Guards what follows, up to `thread`; `changed` tells the capture thread about release and
  // stop, and hosts about the end of the stream and of the capture.
  std::mutex mutex;
  std::condition_variable changed;
  ZRAudioFormat format;  // zero until known
  int samplesPerBuffer = 0;
  bool capturing = false;
  bool ended = false;
  bool held = false;
  std::atomic<bool> stop{false};
  std::thread thread;  // touched only under the device's control mutex

  // The one producer (capture thread, or a host under producerMutex) owns the position (lost
  // samples included) and the sequence.
  std::mutex producerMutex;
  std::int64_t position = 0;
  std::int64_t sequence = 0;
  ZRAudioBlockPool blocks;
  ZRAudioRecorder recorder;

  std::atomic<std::int64_t> lostAtCapture{0};
  ZRLatencyTable latency;
  ZRDriftEstimator drift;
  // Gap events leave in the order the gaps happened; warnings about capture gaps are limited.
  ZRStrand gapStrand;
  std::mutex gapMutex;
  detail::ZRWarningLimiter gapWarnings;  // of the log lines about capture gaps

  void setFormat(const ZRAudioFormat& f);

  /// Records and queues one buffer for every subscriber, its first sample captured at
  /// `captureNs` on the monotonic clock. False when nobody is subscribed any more or the device
  /// is stopping.
  /// `realtimeNs`: the capture time the source knows (a recording's), else 0.
  bool publish(const ZRValue& buffer, std::size_t frames, std::int64_t captureNs,
               std::int64_t realtimeNs = 0);
  /// The host clocks' time when the first of `frames` samples that are there now was captured.
  std::int64_t captureTimeOf(std::size_t frames, std::int64_t nowNs) const;
  /// Counts and announces `samples` lost at stream position `start`.
  void announceGap(std::int64_t start, std::int64_t samples, const std::string& cause,
                   const std::string& reason);
  /// Declares "ZRAudioDevice/Gap" to the memory service, when there is one.
  void declareGapEvent();
  /// The capture thread: reads the source until it ends or the device stops.
  void run(std::unique_ptr<ZRAudioSource> source);
  /// Once every buffer is processed, raises the end of the stream from the broker's pool.
  void finishStream();
  void requestStop();
  bool isLive() const { return options.isLive(); }

 private:
  void raiseEndOfStream(float seconds);
  void markEnded();
};

}  // namespace ZR
