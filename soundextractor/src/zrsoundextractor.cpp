#include "zrsoundextractor/zrsoundextractor.h"

#include <vo/log.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrservicenames.h>

namespace ZR {

namespace {
const char* const kCategory = "audio.zrsoundextractor";
const char* const kDescription = "enable/disable the printing of some debug information";
}  // namespace

ZRSoundExtractor::ZRSoundExtractor(boost::shared_ptr<ZRBroker> pBroker, std::string pName)
    : ZRExtractor(pBroker, pName),
      isStarted(false),
      debugMode(false),
      audioDeviceProxy(),
      auxiliaryValue() {
  functionName("setDebugMode", "ZRSoundExtractor", kDescription, 0);
  addParam("bSetOrUnset", "enable the functionnality when true.");
  objectBuilder().advertiseMethod(methodBuilder(), this, &ZRSoundExtractor::setDebugMode, 0);

  functionName("processRemote", "ZRSoundExtractor", kDescription, 0);
  addParam("nbOfChannels", "Provides the number of channels of the buffer.");
  addParam("nbOfSamplesByChannel", "Provides the number of samples by channel.");
  addParam("timestamp", "Provides the timestamp of the buffer.");
  addParam("buffer", "Provides the audio buffer as an ZRValue.");
  objectBuilder().advertiseMethod(methodBuilder(), this, &ZRSoundExtractor::processRemote, 0);

  functionName("processSoundRemote", "ZRSoundExtractor", kDescription, 0);
  addParam("nbOfChannels", "Provides the number of channels of the buffer.");
  addParam("nbOfSamplesByChannel", "Provides the number of samples by channel.");
  addParam("buffer", "Provides the audio buffer as an ZRValue.");
  objectBuilder().advertiseMethod(methodBuilder(), this, &ZRSoundExtractor::processSoundRemote, 0);

  try {
    boost::shared_ptr<ZRBroker> broker = getParentBroker();
    audioDeviceProxy = broker->getProxy(kAudioDeviceServiceName, 0);
  } catch (const ZRError& e) {
    // Capture is tried again at the first subscription.
    vo::log::LogStream(vo::LogLevel_Warning, "", "ZRSoundExtractor", kCategory, 0)
        << e.what() << " Sound capture will not work." << std::endl;
  }

  const int zero = 0;
  auxiliaryValue.arrayReserve(2);
  auxiliaryValue.arrayPush(ZRValue(zero));
  auxiliaryValue.arrayPush(ZRValue(zero));
}

ZRSoundExtractor::~ZRSoundExtractor() {
  // Deliberately unguarded: an unsubscribe that fails while destroying ends the process rather
  // than leaving the device delivering to a dead module unnoticed.
  ZRSoundExtractor::stopDetection();
}

void ZRSoundExtractor::setDebugMode(const bool& bSetOrUnset) {
  vo::log::LogStream(vo::LogLevel_Warning, "", "setDebugMode", kCategory, 0)
      << "The call to setDebugMode() is now deprectated. This functionnality is now handled by "
         "vo/log"
      << std::endl;
  debugMode = bSetOrUnset;
}

std::string ZRSoundExtractor::version() {
  return std::string();
}

void ZRSoundExtractor::xStartDetection(int /*period*/, float /*precision*/) {
  startDetection();
}

void ZRSoundExtractor::xUpdateParameters(int /*period*/, float /*precision*/) {}

void ZRSoundExtractor::xStopDetection() {
  stopDetection();
}

std::vector<std::string> ZRSoundExtractor::getOutputNames() {
  boost::shared_ptr<ZRProxy> memory = getParentBroker()->getProxy(kMemoryServiceName, 0);
  return memory->call<std::vector<std::string> >("getExtractorEvent", getName());
}

void ZRSoundExtractor::startDetection() {
  if (isStarted) return;
  vo::log::LogStream(vo::LogLevel_Verbose, "", "startDetection", kCategory, 0)
      << "ZRSoundExtractor : startDetection" << std::endl;
  try {
    if (!audioDeviceProxy) {
      boost::shared_ptr<ZRBroker> broker = getParentBroker();
      audioDeviceProxy = broker->getProxy(kAudioDeviceServiceName, 0);
    }
    audioDeviceProxy->call<void>("subscribe", getName());
    isStarted = true;
  } catch (const ZRError& e) {
    isStarted = false;
    throw ZRError(getName(), "startDetection", e.what(), static_cast<const char*>(nullptr), 0);
  }
}

void ZRSoundExtractor::stopDetection() {
  if (!isStarted) return;
  vo::log::LogStream(vo::LogLevel_Verbose, "", "stopDetection", kCategory, 0)
      << "ZRSoundExtractor : stopDetection" << std::endl;
  // Cleared first: a failed unsubscribe still leaves this module not subscribed.
  isStarted = false;
  audioDeviceProxy->call<void>("unsubscribe", getName());
}

void ZRSoundExtractor::process(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                               const short* buffer, const ZRValue& /*timestamp*/) {
  processSound(nbOfChannels, nbOfSamplesByChannel, buffer);
}

void ZRSoundExtractor::processSound(int /*nbOfChannels*/, int /*nbOfSamplesByChannel*/,
                                    const short* /*buffer*/) {}

void ZRSoundExtractor::processSoundRemote(const int& /*nbOfChannels*/,
                                          const int& /*nbOfSamplesByChannel*/,
                                          const ZRValue& /*buffer*/) {}

void ZRSoundExtractor::processRemote(const int& nbOfChannels, const int& nbOfSamplesByChannel,
                                     const ZRValue& timestamp, const ZRValue& buffer) {
  // Samples are read where they lie in the received value: no copy, no conversion.
  const short* samples = static_cast<const short*>(buffer.GetBinary());
  process(nbOfChannels, nbOfSamplesByChannel, samples, timestamp);
  // processSoundRemote gets whether the buffer held data, not the buffer itself.
  const ZRValue hasData(buffer.GetBinary() != nullptr);
  processSoundRemote(nbOfChannels, nbOfSamplesByChannel, hasData);
}

}  // namespace ZR
