#pragma once

#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zrcommon/zrproxy.h>
#include <zrextractor/zrextractor.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

class ZRBroker;

/// The base of every extractor that works on sound. While it has subscribers it is itself
/// subscribed to the audio device "ZRAudioDevice", which calls processRemote for each buffer;
/// the samples are handed, in place, to process (default: forwards to processSound), then
/// processSoundRemote is called with a flag telling whether the buffer held data.
///
/// A concrete extractor overrides process (to get the timestamp too) or processSound. The sample
/// pointer is valid only during the call: copy what must be kept.
///
/// Concurrency: the class takes no lock of its own. Its start and stop hooks run under the
/// extractor base's subscriptionMutex and make a synchronous call to the device without a time
/// limit, so a first subscribe or a last unsubscribe blocks for as long as the device takes to
/// answer, and so do other subscribes and unsubscribes of this extractor meanwhile. Buffers
/// arrive on the platform's threads without any lock taken, possibly while a start or stop runs
/// and, if the device delivers from several threads, alongside another buffer: an override that
/// shares state between processing and anything else guards it itself. Calling startDetection
/// or stopDetection directly bypasses the base's lock; racing the hooks is then the caller's
/// business. getOutputNames makes a synchronous call to "ZRMemory"; construction blocks until
/// "ZRMemory" exists, as the base's does. The destructor unsubscribes from the device
/// synchronously if still subscribed.
class ZRSoundExtractor : public ZRExtractor {
 public:
  ZRSoundExtractor(boost::shared_ptr<ZRBroker> pBroker, std::string pName);
  virtual ~ZRSoundExtractor();

  /// Deprecated: only stores the flag and warns.
  void setDebugMode(const bool& bSetOrUnset);
  /// Always "".
  virtual std::string version();

  virtual void xStartDetection(int period, float precision);
  using ZRExtractor::xUpdateParameters;
  /// The device subscription does not depend on the period or precision: nothing to do.
  virtual void xUpdateParameters(int period, float precision);
  virtual void xStopDetection();
  /// The events "ZRMemory" knows this extractor declared.
  virtual std::vector<std::string> getOutputNames();

  /// Subscribes this module to "ZRAudioDevice" unless it already is.
  virtual void startDetection();
  /// Unsubscribes this module from "ZRAudioDevice" if it is subscribed.
  virtual void stopDetection();

  /// `buffer` holds nbOfChannels * nbOfSamplesByChannel interleaved samples (null when the
  /// delivery carried no binary data); `timestamp` is [seconds, microseconds] of the first one.
  virtual void process(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                       const short* buffer, const ZRValue& timestamp);
  virtual void processSound(int nbOfChannels, int nbOfSamplesByChannel, const short* buffer);
  /// Called after process for every delivery, with a bool value telling whether the buffer held
  /// data; a remote caller may call it with a buffer itself.
  virtual void processSoundRemote(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                                  const ZRValue& buffer);

  /// The entry the audio device calls for each buffer.
  void processRemote(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                     const ZRValue& timestamp, const ZRValue& buffer);

 private:
  bool isStarted;

 protected:
  bool debugMode;

 private:
  boost::shared_ptr<ZRProxy> audioDeviceProxy;

 protected:
  ZRValue auxiliaryValue;
};

}  // namespace ZR
