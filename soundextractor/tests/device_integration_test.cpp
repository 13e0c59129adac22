#include <thread>

#include <gtest/gtest.h>

#include <zraudiodevice/zraudiodevice.h>
#include <zrmemory/zrmemory.h>
#include <zrsoundextractor/zrsoundextractor.h>
#include <zrtest.h>

namespace {

using Options = ZR::ZRAudioDeviceOptions;

// Keeps every sample and the buffer each came in; holds its first buffer until `gate` opens.
class Recorder : public ZR::ZRSoundExtractor {
 public:
  using ZRSoundExtractor::ZRSoundExtractor;
  void process(const int& channels, const int& frames, const short* buffer,
               const ZR::ZRValue&) override {
    gate.waitFor();
    samples.insert(samples.end(), buffer, buffer + channels * frames);
    pointers.push_back(buffer);
  }
  zrtest::Signal gate;
  std::vector<short> samples;
  std::vector<const short*> pointers;
};

TEST(DeviceIntegration, HostSamplesReachTheExtractorInPlaceAndItsLeaveEmptiesTheDevice) {
  auto broker = ZR::ZRBroker::createBroker("device-test", 2);
  ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory");
  Options o;
  o.source = Options::Source::Host;
  o.channelCount = 2;
  o.queueCapacity = 2;
  auto device = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, "ZRAudioDevice", o);
  auto recorder = ZR::ZRModule::createModule<Recorder>(broker, "Recorder");
  ZR::ZRModule::createModule<ZR::ZRModule>(broker, "Client");
  // A client of the extractor, subscribing by name through a proxy as any module does.
  auto proxy = broker->getProxy("Recorder", 0);
  proxy->call<void>("subscribe", std::string("Client"), 100, 0.5f);
  EXPECT_EQ(device->getSubscribers(), std::vector<std::string>{"Recorder"});

  std::vector<short> expected;
  std::vector<ZR::ZRValue> sent;
  std::thread producer([&] {
    for (int i = 0; i < 20; ++i) {  // more than the queue holds: the host is held back
      std::vector<std::int16_t> block(2 * 800);
      for (std::size_t k = 0; k < block.size(); ++k)
        block[k] = static_cast<std::int16_t>((expected.size() + k) * 7919 % 65521);
      expected.insert(expected.end(), block.begin(), block.end());
      sent.push_back(device->deliver(block.data(), 800));
    }
  });
  recorder->gate.notify();
  producer.join();
  ASSERT_TRUE(device->waitUntilIdle(20000));
  EXPECT_EQ(recorder->samples, expected);
  ASSERT_EQ(recorder->pointers.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i)
    EXPECT_EQ(recorder->pointers[i], sent[i].GetBinary()) << "buffer " << i << " was copied";
  proxy->call<void>("unsubscribe", std::string("Client"));
  EXPECT_TRUE(device->getSubscribers().empty());
  broker->shutdown();
}

}  // namespace
