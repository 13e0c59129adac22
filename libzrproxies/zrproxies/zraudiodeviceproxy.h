#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrproxy.h>
#include <zrcommon/zrservicenames.h>

namespace ZR {

/// Typed access to the audio device "ZRAudioDevice" for the platform and tools: one method per
/// remote method of the device, with the same names, arguments and errors (every failure a
/// ZRError).
///
/// Concurrency: a proxy holds no state of its own beyond its target, so one may be shared by any
/// threads, and every method may run concurrently with any other. Each call is synchronous and
/// runs on the caller's thread without a time limit: subscribe may open a file or a microphone,
/// unsubscribe of the last subscriber waits for the capture thread to stop (within one read of
/// the source); the others return at once.
class ZRAudioDeviceProxy {
 public:
  /// Throws ZRError when the broker hosts no module under `moduleName`.
  explicit ZRAudioDeviceProxy(boost::shared_ptr<ZRBroker> broker,
                              const std::string& moduleName = kAudioDeviceServiceName);

  /// Starts delivering to `moduleName`'s "processRemote"; subscribing twice does nothing.
  void subscribe(const std::string& moduleName);
  /// Stops delivering to `moduleName`; a module that is not subscribed is ignored.
  void unsubscribe(const std::string& moduleName);
  /// Holds the next start of the source until release.
  void hold();
  void release();
  /// Subscribed modules, sorted.
  std::vector<std::string> getSubscribers();
  int getSampleRate();
  int getChannelCount();
  int getSamplesPerBuffer();
  /// ZRError for a module that never subscribed.
  int getDeliveredBufferCount(const std::string& moduleName);
  /// ZRError for a module that never subscribed.
  int getDroppedBufferCount(const std::string& moduleName);
  bool isEndOfStream();
  std::string getSourceDescription();
  /// ZRError when already recording or when the file cannot be created.
  void startRecording(const std::string& path);
  /// Samples per channel written; 0 when nothing was being recorded.
  int stopRecording();

  /// The generic proxy underneath.
  const boost::shared_ptr<ZRProxy>& getGenericProxy() const { return proxy_; }

 private:
  boost::shared_ptr<ZRProxy> proxy_;
};

}  // namespace ZR
