// The fan-out: every buffer goes to every subscriber's "processRemote", in order, through the
// shared delivery line, with the device's own warnings.

#include <algorithm>
#include <climits>
#include <cstdio>

#include <zrcommon/zrproxy.h>

#include "zraudiodevicecore.h"

namespace ZR {

namespace {
// A file's buffers go to another host at least this many to a message while one is on its way:
// a message costs both hosts far more than the bytes of a buffer.
const int kFileMessageMinimum = 4;
}  // namespace

std::shared_ptr<ZRAudioLine> makeAudioLine(const std::string& deviceName,
                                           const ZRAudioDeviceOptions& options,
                                           const std::weak_ptr<ZRAudioDevice::Core>& core) {
  ZRAudioLine::Options o;
  // A dropped buffer is a gap in that subscriber's stream: where it starts and how long it is
  // are in the call itself.
  o.onDrop = [core](const std::string& sub, const detail::ZRDelivery& call) {
    std::shared_ptr<ZRAudioDevice::Core> c = core.lock();
    ZRAudioTimestamp t;
    bool full = false;
    if (!c || call.args.size() != 4 || !ZRAudioTimestamp::read(call.args[2], t, &full) || !full)
      return;
    const std::string who = ZRAudioRemoteSubscribers::isEntry(sub) ? sub.substr(1) : sub;
    c->announceGap(t.sample, call.args[1].toInt(), who, "queue full");
  };
  o.policy =
      options.isLive() ? detail::ZRDeliveryPolicy::DropOldest : detail::ZRDeliveryPolicy::Lossless;
  o.capacity = static_cast<std::size_t>(options.queueCapacity);
  o.resumeAt = o.capacity / 2;
  // A file's buffers are delivered losslessly: what a subscriber raises from them is never
  // dropped, and paces the file back. Buffers that waited go to another host several at a time.
  o.losslessDeliveries = !options.isLive();
  o.messageBatch = 32;
  o.messageMinimum = options.isLive() ? 1 : kFileMessageMinimum;
  o.category = kAudioDeviceCategory;
  o.publishFunction = "publish";
  o.deliverFunction = "deliver";
  const std::string name = deviceName;
  // A host's entry stands for all of its subscribers.
  auto who = [](const std::string& sub) {
    return ZRAudioRemoteSubscribers::isEntry(sub) ? "the subscribers on " + sub.substr(1)
                                                  : "subscriber \"" + sub + "\"";
  };
  o.texts.dropped = [name, who](const std::string& sub, std::int64_t dropped,
                                std::int64_t heldBack) {
    return name + ": " + who(sub) + " does not keep up: its oldest buffer was dropped (" +
           std::to_string(dropped) + " dropped so far, " + std::to_string(heldBack) +
           " warnings held back)";
  };
  // Where in the stream it failed tells a module writer which sound to look at (a call on its
  // way to another host is known by its method and first argument only).
  o.texts.failed = [name](const std::string& sub, const detail::ZRDelivery& item,
                          const std::string& failure, std::int64_t heldBack) {
    char at[48] = "";
    const ZRValue* timestamp = item.args.size() == 4 ? &item.args[2] : nullptr;
    ZRAudioTimestamp t;
    if (timestamp && ZRAudioTimestamp::read(*timestamp, t))
      std::snprintf(at, sizeof at, " on the buffer at %.3f s", t.time());
    return name + ": \"processRemote\" of \"" + sub + "\" failed" + at + ": " + failure + " (" +
           std::to_string(heldBack) + " warnings held back)";
  };
  o.texts.gone = [name](const std::string& sub) {
    if (ZRAudioRemoteSubscribers::isEntry(sub))
      return name + ": the host " + sub.substr(1) + " is gone; its subscribers are unsubscribed";
    return name + ": subscriber \"" + sub + "\" is gone; it is unsubscribed";
  };
  o.texts.refused = [name](const std::string& sub, const std::string&, std::int64_t) {
    return name + ": cannot deliver to \"" + sub + "\": the broker is shut down";
  };
  return std::make_shared<ZRAudioLine>(std::move(o));
}

void ZRAudioDevice::Core::setFormat(const ZRAudioFormat& f) {
  format = f;
  samplesPerBuffer = options.samplesPerBuffer.value_or(
      f.samplesPerBuffer > 0 ? f.samplesPerBuffer : std::max(1, f.sampleRate / 10));
}

bool ZRAudioDevice::Core::publish(const ZRValue& buffer, std::size_t frames, std::int64_t captureNs,
                                  std::int64_t realtimeNs) {
  int channels = 0, rate = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    channels = format.channels;
    rate = format.sampleRate;
  }
  ZRAudioTimestamp t = ZRAudioTimestamp::at(position, rate);
  t.monotonicNs = captureNs;
  t.realtimeNs = realtimeNs > 0 ? realtimeNs : zrRealtimeNs() - (zrMonotonicNs() - captureNs);
  t.sequence = sequence++;
  position += static_cast<std::int64_t>(frames);
  recorder.record(buffer, frames, name);
  return line->publish(
      detail::ZRDelivery{"processRemote",
                         zrValues(channels, static_cast<int>(frames), t.toValue(), buffer),
                         captureNs},
      &stop);
}

}  // namespace ZR
