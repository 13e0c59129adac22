// PeakMeter: the smallest useful sound extractor. It publishes, for each buffer, the loudest
// sample of all channels, as a fraction of full scale.
//
//   cmake -S . -B build -DCMAKE_PREFIX_PATH=<install prefix> && cmake --build build
//   zr run --load build/libpeakmeter.so --extractor PeakMeter

#include <atomic>
#include <cstdlib>

#include <boost/make_shared.hpp>

#include <vo/log.h>
#include <zrcommon/zrsamples.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrextractors/zrrecord.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrsoundextractor/zrsoundextractor.h>

/// Publishes "<name>/Peak" with [["time", s], ["peak", fraction]] for every buffer. Buffers
/// arrive from the device one at a time; a buffer whose counts its samples do not hold is
/// ignored and counted, never read.
class PeakMeter : public ZR::ZRSoundExtractor {
 public:
  PeakMeter(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRSoundExtractor(broker, name), memory_(boost::make_shared<ZR::ZRMemoryProxy>(broker)) {
    setModuleDescription("Loudest sample of each buffer.");
    // Outputs are declared once, before anyone can subscribe.
    declareEvent(name + "/Peak");
  }

  // Called for every buffer while somebody is subscribed; the samples are only valid here.
  void process(const int& channels, const int& samplesPerChannel, const short* samples,
               const ZR::ZRValue& timestamp) override {
    // The counts are the sender's word: check them against the samples before reading any.
    if (!ZR::samplesFit(channels, samplesPerChannel, samples)) {
      if (ignored_++ == 0)
        VO_LOG(vo::LogLevel_Warning, "PeakMeter")
            << getName() << ": ignoring buffers whose counts do not fit their samples";
      return;
    }
    int peak = 0;
    for (int i = 0; i < channels * samplesPerChannel; ++i)
      peak = std::max(peak, std::abs(int(samples[i])));
    const float seconds = timestamp[0].toInt() + timestamp[1].toInt() * 1e-6f;
    memory_->raiseEvent(
        getName() + "/Peak",
        ZR::makeRecord({{"time", ZR::ZRValue(seconds)}, {"peak", ZR::ZRValue(peak / 32768.0f)}}));
  }

 private:
  boost::shared_ptr<ZR::ZRMemoryProxy> memory_;
  std::atomic<long> ignored_{0};
};

ZR_EXTRACTOR_PLUGIN(registry) {
  registry.add<PeakMeter>("PeakMeter", "Loudest sample of each buffer.");
}
