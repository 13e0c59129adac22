// The capture loop: one thread per run of the source, from the first subscriber to the end of
// the stream or the last unsubscribe.

#include <chrono>

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
  int channels = 0;
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return stop || !held; });
    channels = format.channels;
  }
  const bool paced = options.realtime && !source->isHardware();
  const Clock::time_point clockStart = Clock::now();
  position = 0;
  const std::size_t spb = static_cast<std::size_t>(samplesPerBuffer);
  bool finished = false;
  try {
    for (;;) {
      std::shared_ptr<ZRAudioBlockPool::Block> block =
          blocks.acquire(spb * static_cast<std::size_t>(channels));
      const std::size_t frames = source->read(block->data(), spb, stop);
      if (stop) break;
      if (frames == 0) {
        finished = true;
        break;
      }
      if (paced) {
        const auto due =
            clockStart + std::chrono::microseconds((position + static_cast<std::int64_t>(frames)) *
                                                   1000000 / format.sampleRate);
        std::unique_lock<std::mutex> lock(mutex);
        if (changed.wait_until(lock, due, [&] { return stop.load(); })) break;
      }
      const ZRValue buffer(block->data(), frames * static_cast<std::size_t>(channels) * 2, block);
      block.reset();
      if (!publish(buffer, frames)) break;
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

void ZRAudioDevice::Core::requestStop() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  changed.notify_all();
  line->wake();
}

}  // namespace ZR
