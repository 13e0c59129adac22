#pragma once

// What the audio device's tests share: a subscriber that records what it is given, and sound
// files whose every sample differs from its neighbours.

#include <sndfile.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zrcommon/zraudiotimestamp.h>
#include <zrcommon/zrmodule.h>
#include <zrtest.h>

namespace zrtest {

struct Seen {
  int channels, samples, seconds, micros;
  const void* data;
  ZR::ZRAudioTimestamp ts;
  long long at() const { return seconds * 1000000LL + micros; }
};

// Copies what it is given, like a sound extractor's intake. `hook(n)` runs on the n-th buffer
// (from 1) and may block; while `shut`, a delivery waits for open(); `fail` makes every delivery
// throw.
class Sink : public ZR::ZRModule {
 public:
  Sink(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name, bool fail = false)
      : ZRModule(broker, name), fail_(fail) {
    functionName("processRemote", "Sink", "Takes a buffer.", 0);
    for (const char* p : {"nbOfChannels", "nbOfSamplesByChannel", "timestamp", "buffer"})
      addParam(p, "");
    bindMethod(&Sink::processRemote);
  }
  void processRemote(const int& channels, const int& samples, const ZR::ZRValue& timestamp,
                     const ZR::ZRValue& buffer) {
    const auto* p = static_cast<const std::int16_t*>(buffer.GetBinary());
    std::function<void(int)> h;
    int n = 0;
    {
      std::lock_guard<std::mutex> lock(mutex);
      ZR::ZRAudioTimestamp ts;
      ZR::ZRAudioTimestamp::read(timestamp, ts);
      seen.push_back({channels, samples, timestamp[0].toInt(), timestamp[1].toInt(), p, ts});
      data.insert(data.end(), p, p + channels * samples);
      n = static_cast<int>(seen.size());
      h = hook;
    }
    received.notify();
    if (h) h(n);
    {
      std::unique_lock<std::mutex> lock(mutex);
      opened.wait(lock, [&] { return !shut; });
    }
    if (fail_) throw ZR::ZRError("Sink", "processRemote", "deliberate failure");
  }
  void open() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      shut = false;
    }
    opened.notify_all();
  }
  std::mutex mutex;
  std::condition_variable opened;
  bool shut = false;
  std::vector<Seen> seen;
  std::vector<std::int16_t> data;
  std::function<void(int)> hook;
  Signal received;

 private:
  bool fail_;
};

// Every sample differs from its neighbours, so a lost, repeated or swapped one shows.
inline std::vector<std::int16_t> pattern(std::size_t count) {
  std::vector<std::int16_t> v(count);
  for (std::size_t i = 0; i < count; ++i) v[i] = static_cast<std::int16_t>(i * 7919 % 65521);
  return v;
}

inline void writeSound(const std::string& file, int rate, int channels,
                       const std::vector<std::int16_t>& samples,
                       int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16) {
  SF_INFO info{0, rate, channels, format, 0, 0};
  SNDFILE* f = sf_open(file.c_str(), SFM_WRITE, &info);
  ASSERT_NE(f, nullptr) << sf_strerror(nullptr);
  sf_writef_short(f, samples.data(), static_cast<sf_count_t>(samples.size() / channels));
  sf_close(f);
}

}  // namespace zrtest
