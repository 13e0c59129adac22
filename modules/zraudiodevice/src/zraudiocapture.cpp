// The capture loop: one thread per run of the source, from the first subscriber to the end of
// the stream or the last unsubscribe.

#include <chrono>
#include <climits>
#include <cmath>

#include <vo/log.h>
#include <zrcommon/zrservicenames.h>
#include <zrproxies/zrmemoryproxy.h>

#include "zraudiodevicecore.h"

namespace ZR {

namespace {
using Clock = std::chrono::steady_clock;
}

void ZRAudioDevice::Core::markEnded() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    ended = true;
  }
  changed.notify_all();
}

void ZRAudioDevice::Core::raiseEndOfStream(float seconds) {
  try {
    boost::shared_ptr<ZRBroker> b = broker.lock();
    if (b && b->hasModule(kMemoryServiceName))
      ZRMemoryProxy(b).raiseEvent(kEndOfStreamEvent, seconds);
  } catch (const ZRError& e) {
    VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
        << name << ": cannot raise \"" << kEndOfStreamEvent << "\": " << e.what();
  }
  markEnded();
}

// The event is raised from the broker's pool, never from the producer, so that whoever reacts to
// it may unsubscribe (and so join the capture thread) without waiting for itself.
void ZRAudioDevice::Core::finishStream() {
  // Idle once the other hosts have answered every buffer too.
  if (!line->waitUntilIdle(std::chrono::milliseconds(-1), &stop)) return;
  const float seconds = static_cast<float>(static_cast<double>(position) / format.sampleRate);
  VO_LOG(vo::LogLevel_Info, kAudioDeviceCategory)
      << name << ": end of " << options.describe() << " after " << seconds << " s";
  try {
    boost::shared_ptr<ZRBroker> b = broker.lock();
    if (!b) throw ZRError(name, "finishStream", "no broker");
    b->post([core = shared_from_this(), seconds] { core->raiseEndOfStream(seconds); });
  } catch (const ZRError&) {
    markEnded();
  }
}

void ZRAudioDevice::Core::run(std::unique_ptr<ZRAudioSource> source) {
  int channels = 0, rate = 0;
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return stop || !held; });
    channels = format.channels;
    rate = format.sampleRate;
  }
  const bool paced = options.realtime && !source->isHardware();
  // A skewed clock delivers rate * (1 + ppm) samples per second of the host's.
  const double pacedRate = rate * (1.0 + options.clockSkewPpm * 1e-6);
  const Clock::time_point clockStart = Clock::now();
  position = source->firstPosition();
  const std::int64_t paceFrom = position;
  sequence = 0;
  drift.reset(isLive() ? rate : 0);
  const std::size_t spb = static_cast<std::size_t>(samplesPerBuffer);
  bool finished = false;
  try {
    for (;;) {
      std::shared_ptr<ZRAudioBlockPool::Block> block =
          blocks.acquire(spb * static_cast<std::size_t>(channels));
      const std::size_t frames = source->read(block->data(), spb, stop);
      if (stop) break;
      const ZRAudioSource::Loss loss = source->takeLoss();
      if (loss.frames > 0) {
        announceGap(position, loss.frames, "capture", loss.reason);
        position += loss.frames;
      }
      if (frames == 0) {
        finished = true;
        break;
      }
      if (paced) {
        const auto due =
            clockStart + std::chrono::nanoseconds(std::llround(
                             static_cast<double>(position - paceFrom + frames) * 1e9 / pacedRate));
        std::unique_lock<std::mutex> lock(mutex);
        if (changed.wait_until(lock, due, [&] { return stop.load(); })) break;
      }
      const std::int64_t now = zrMonotonicNs();
      if (isLive()) drift.add(now, position + static_cast<std::int64_t>(frames));
      const ZRValue buffer(block->data(), frames * static_cast<std::size_t>(channels) * 2, block);
      block.reset();
      if (!publish(buffer, frames, captureTimeOf(frames, now), source->capturedRealtimeNs())) break;
    }
  } catch (const std::exception& e) {
    VO_LOG(vo::LogLevel_Error, kAudioDeviceCategory)
        << name << ": " << options.describe() << " failed, the stream ends: " << e.what();
    finished = true;
  }
  source.reset();  // the file or microphone is free before anyone may open it again
  if (finished) finishStream();
  {
    std::lock_guard<std::mutex> lock(mutex);
    capturing = false;
  }
  changed.notify_all();
}

std::int64_t ZRAudioDevice::Core::captureTimeOf(std::size_t frames, std::int64_t nowNs) const {
  // A live source's samples came in over the buffer's duration, the first one earliest; any
  // other source's are read at once.
  if (!isLive() || format.sampleRate <= 0) return nowNs;
  return nowNs - static_cast<std::int64_t>(frames) * 1000000000 / format.sampleRate;
}

void ZRAudioDevice::Core::declareGapEvent() {
  try {
    boost::shared_ptr<ZRBroker> b = broker.lock();
    if (b && b->session()->hasService(kMemoryServiceName))
      ZRMemoryProxy(b).declareEvent(kGapEvent, "");
  } catch (const ZRError& e) {
    VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
        << name << ": cannot declare \"" << kGapEvent << "\": " << e.what();
  }
}

void ZRAudioDevice::Core::announceGap(std::int64_t start, std::int64_t samples,
                                      const std::string& cause, const std::string& reason) {
  const int rate = format.sampleRate;
  const double seconds = rate > 0 ? static_cast<double>(start) / rate : 0.0;
  if (cause == "capture") {
    lostAtCapture += samples;
    std::int64_t heldBack = 0;
    bool say = false;
    {
      std::lock_guard<std::mutex> lock(gapMutex);
      say = gapWarnings.allow(heldBack);
    }
    // The event is the warning (a microphone's overrun warns by itself): this is for logs.
    if (say)
      VO_LOG(vo::LogLevel_Info, kAudioDeviceCategory)
          << name << ": " << samples << " samples lost at capture at " << seconds << " s ("
          << reason << "; " << heldBack << " warnings held back)";
  }
  ZRValue record;
  record.arraySetSize(5);
  auto field = [&](int i, const char* key, ZRValue value) {
    record[i].arraySetSize(2);
    record[i][0] = key;
    record[i][1] = std::move(value);
  };
  field(0, "start", zrSampleValue(start));
  field(1, "samples", ZRValue(static_cast<int>(std::min<std::int64_t>(samples, INT32_MAX))));
  field(2, "cause", ZRValue(cause));
  field(3, "reason", ZRValue(reason));
  field(4, "time", ZRValue(seconds));
  boost::shared_ptr<ZRBroker> b = broker.lock();
  if (!b) return;
  try {
    std::lock_guard<std::mutex> lock(gapMutex);
    if (!gapStrand.isValid()) gapStrand = b->makeStrand();
    // Raised from the pool: whoever hears it may call the device, and the producer never waits.
    gapStrand.post([weak = boost::weak_ptr<ZRBroker>(b), record, who = name] {
      try {
        boost::shared_ptr<ZRBroker> alive = weak.lock();
        if (alive && alive->session()->hasService(kMemoryServiceName))
          ZRMemoryProxy(alive).raiseEvent(kGapEvent, record);
      } catch (const ZRError& e) {
        VO_LOG(vo::LogLevel_Warning, kAudioDeviceCategory)
            << who << ": cannot raise \"" << kGapEvent << "\": " << e.what();
      }
    });
  } catch (const ZRError&) {
    // The broker is shutting down: nobody is left to tell.
  }
}

void ZRAudioDevice::Core::requestStop() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  changed.notify_all();
  line->wake();
}

}  // namespace ZR
