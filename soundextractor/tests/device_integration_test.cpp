#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrmemory/zrmemory.h>
#include <zrsoundextractor/zrsoundextractor.h>

namespace {

using Stamp = std::pair<int, int>;  // seconds, microseconds of a buffer's first sample

Stamp stampOf(const ZR::ZRValue& timestamp) {
  return {timestamp[0].toInt(), timestamp[1].toInt()};
}

class Recorder : public ZR::ZRSoundExtractor {
 public:
  Recorder(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRSoundExtractor(broker, name) {}
  void process(const int& channels, const int& frames, const short* buffer,
               const ZR::ZRValue& timestamp) override {
    // Holds the first buffer until released, so that a second subscriber can join while the file
    // is still far from its end.
    if (gate.valid()) gate.wait_for(std::chrono::seconds(10));
    {
      std::lock_guard<std::mutex> lock(mutex);
      current = stampOf(timestamp);
    }
    ZRSoundExtractor::process(channels, frames, buffer, timestamp);
  }
  void processSound(int channels, int frames, const short* buffer) override {
    std::lock_guard<std::mutex> lock(mutex);
    samples.insert(samples.end(), buffer, buffer + channels * frames);
    pointers[current] = buffer;
  }
  std::shared_future<void> gate;
  std::mutex mutex;
  Stamp current;
  std::vector<short> samples;
  std::map<Stamp, const short*> pointers;
};

// Subscribes to the device on its own, to see the values the device hands out.
class RawSubscriber : public ZR::ZRModule {
 public:
  RawSubscriber(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name)
      : ZRModule(broker, name) {
    functionName("processRemote", "RawSubscriber", "Records where each buffer lies.", 0);
    addParam("channels", "");
    addParam("frames", "");
    addParam("timestamp", "");
    addParam("buffer", "");
    bindMethod(&RawSubscriber::processRemote);
  }
  void processRemote(const int&, const int&, const ZR::ZRValue& timestamp,
                     const ZR::ZRValue& buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    pointers[stampOf(timestamp)] = static_cast<const short*>(buffer.GetBinary());
  }
  std::mutex mutex;
  std::map<Stamp, const short*> pointers;
};

// A module that uses the extractor the way any client does: by name, through a proxy.
class Client : public ZR::ZRModule {
 public:
  using ZRModule::ZRModule;
  void start(const std::string& extractor) {
    getParentBroker()->getProxy(extractor, 0)->call<void>("subscribe", getName(), 100, 0.5f);
  }
  void stop(const std::string& extractor) {
    getParentBroker()->getProxy(extractor, 0)->call<void>("unsubscribe", getName());
  }
};

class DeviceIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = std::filesystem::temp_directory_path() /
          ("zrsoundextractor-" + std::to_string(::getpid()) + "-" +
           ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir);
    broker = ZR::ZRBroker::createBroker("device-test", 2);
    ZR::ZRModule::createModule<ZR::ZRMemory>(broker, "ZRMemory");
  }
  void TearDown() override {
    broker->shutdown();
    std::filesystem::remove_all(dir);
  }

  // A stereo 16 kHz WAV of `frames` frames that no two samples share by accident.
  std::vector<short> writeWav(const std::string& path, int frames) {
    std::vector<short> samples(static_cast<std::size_t>(frames) * 2);
    for (std::size_t i = 0; i < samples.size(); ++i)
      samples[i] = static_cast<short>((i * 7919) % 65536 - 32768);
    SF_INFO info{};
    info.samplerate = 16000;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    EXPECT_NE(file, nullptr) << sf_strerror(nullptr);
    if (!file) return {};
    EXPECT_EQ(sf_writef_short(file, samples.data(), frames), frames);
    sf_close(file);
    return samples;
  }

  std::filesystem::path dir;
  boost::shared_ptr<ZR::ZRBroker> broker;
};

TEST_F(DeviceIntegrationTest, FileSamplesReachTheExtractorInPlaceAndUnsubscribeEmptiesTheDevice) {
  const std::string path = (dir / "input.wav").string();
  const std::vector<short> expected = writeWav(path, 16000 + 123);  // a short last buffer too
  ZR::ZRAudioDeviceOptions options;
  options.source = ZR::ZRAudioDeviceOptions::Source::File;
  options.path = path;
  options.samplesPerBuffer = 800;
  options.queueCapacity = 2;
  auto device = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, "ZRAudioDevice", options);
  auto recorder = ZR::ZRModule::createModule<Recorder>(broker, "Recorder");
  auto raw = ZR::ZRModule::createModule<RawSubscriber>(broker, "Raw");
  auto client = ZR::ZRModule::createModule<Client>(broker, "Client");

  std::promise<void> release;
  recorder->gate = release.get_future().share();
  client->start("Recorder");
  device->subscribe("Raw");
  release.set_value();
  ASSERT_TRUE(device->waitForEndOfStream(20000));

  {
    std::lock_guard<std::mutex> lock(recorder->mutex);
    EXPECT_EQ(recorder->samples, expected);
  }
  // The device runs at most two buffers ahead of the held recorder, so most buffers went to
  // both: each must lie at one address for both subscribers.
  std::size_t shared = 0;
  {
    std::lock_guard<std::mutex> a(recorder->mutex), b(raw->mutex);
    for (const auto& [stamp, pointer] : raw->pointers) {
      auto it = recorder->pointers.find(stamp);
      if (it == recorder->pointers.end()) continue;
      ++shared;
      EXPECT_EQ(it->second, pointer) << "buffer at " << stamp.first << "s " << stamp.second << "us";
    }
  }
  EXPECT_GE(shared, 10u);

  device->unsubscribe("Raw");
  EXPECT_EQ(device->getSubscribers(), std::vector<std::string>{"Recorder"});
  client->stop("Recorder");
  EXPECT_TRUE(device->getSubscribers().empty());
}

TEST_F(DeviceIntegrationTest, ShutdownWhileSubscribedUnsubscribesFirst) {
  ZR::ZRAudioDeviceOptions options;
  options.source = ZR::ZRAudioDeviceOptions::Source::Tone;  // never ends: buffers in flight
  options.samplesPerBuffer = 160;
  boost::weak_ptr<ZR::ZRAudioDevice> device;
  {
    auto d = ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, "ZRAudioDevice", options);
    device = d;
    ZR::ZRModule::createModule<Recorder>(broker, "Recorder");
    ZR::ZRModule::createModule<Client>(broker, "Client")->start("Recorder");
    ASSERT_EQ(d->getSubscribers(), std::vector<std::string>{"Recorder"});
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));

  // Nobody but the broker holds the modules: the recorder's destructor must still find the
  // device to unsubscribe from, or the process ends.
  broker->shutdown();
  EXPECT_TRUE(device.expired());
}

}  // namespace
