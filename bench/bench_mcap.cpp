// Recording throughput: write and read MB/s of the container in each codec, and the size of the
// file against the messages' bytes, on messages as a recorder makes them: JSON carrying base64 of
// 16 kHz int16 speech (data/sample.wav, 10.2 s, played six times with a different +-1 LSB dither
// each time so that no pass repeats the one before), 512 samples (32 ms) per message.

#include <sndfile.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <zrmcap/zrbase64.h>
#include <zrmcap/zrmcap.h>

namespace {

constexpr int kRate = 16000;
constexpr std::size_t kBuffer = 512;

std::vector<short> speech() {
  SF_INFO info{};
  SNDFILE* f = sf_open(ZR_SAMPLE, SFM_READ, &info);
  if (f == nullptr || info.channels != 1 || info.samplerate != kRate) {
    throw std::runtime_error(std::string("need 16 kHz mono sound in ") + ZR_SAMPLE);
  }
  std::vector<short> pcm(static_cast<std::size_t>(info.frames));
  pcm.resize(static_cast<std::size_t>(sf_readf_short(f, pcm.data(), info.frames)));
  sf_close(f);
  return pcm;
}

struct Recording {
  std::vector<std::string> messages;
  std::vector<std::uint64_t> times;
  std::uint64_t bytes = 0;
};

const Recording& recording() {
  static const Recording r = [] {
    Recording out;
    const auto pcm = speech();
    std::mt19937 random(1);
    std::vector<short> buffer(kBuffer);
    std::uint64_t sample = 0;
    for (int pass = 0; pass < 6; ++pass) {
      for (std::size_t at = 0; at + kBuffer <= pcm.size(); at += kBuffer, sample += kBuffer) {
        for (std::size_t i = 0; i < kBuffer; ++i) {
          buffer[i] = static_cast<short>(pcm[at + i] + static_cast<int>(random() % 3) - 1);
        }
        const std::uint64_t t = 1'700'000'000'000'000'000ull + sample * 1'000'000'000ull / kRate;
        const std::string json =
            "{\"timestamp\":{\"sec\":" + std::to_string(t / 1'000'000'000) +
            ",\"nsec\":" + std::to_string(t % 1'000'000'000) +
            "},\"format\":\"pcm-s16\",\"sample_rate\":16000,\"number_of_channels\":1,\"sample\":" +
            std::to_string(sample) + ",\"sequence\":" + std::to_string(out.messages.size()) +
            ",\"data\":\"" + ZR::zrBase64Encode(buffer.data(), buffer.size() * 2) + "\"}";
        out.bytes += json.size();
        out.messages.push_back(json);
        out.times.push_back(t);
      }
    }
    return out;
  }();
  return r;
}

std::string fileFor(ZR::ZRMcapCompression c) {
  return "/tmp/zr-bench-mcap-" + std::to_string(::getpid()) + "-" +
         std::to_string(static_cast<int>(c)) + ".mcap";
}

std::uint64_t write(const std::string& file, ZR::ZRMcapCompression compression) {
  const auto& r = recording();
  ZR::ZRMcapWriter::Options options;
  options.compression = compression;
  options.library = "zr bench";
  ZR::ZRMcapWriter w(file, options);
  const auto schema = w.addSchema("foxglove.RawAudio", "jsonschema", "{}");
  const auto channel = w.addChannel(schema, "ZRAudioDevice/Sound", "json",
                                    {{"zr.kind", "sound"}, {"zr.module", "ZRAudioDevice"}});
  for (std::size_t i = 0; i < r.messages.size(); ++i) {
    w.write(channel, r.times[i], r.times[i], r.messages[i].data(), r.messages[i].size());
  }
  w.close();
  return w.bytesWritten();
}

void BM_McapWrite(benchmark::State& state) {
  const auto compression = static_cast<ZR::ZRMcapCompression>(state.range(0));
  const auto& r = recording();
  const auto file = fileFor(compression);
  std::uint64_t size = 0;
  for (auto _ : state) size = write(file, compression);
  std::remove(file.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * r.bytes));
  state.counters["file_per_message_bytes"] = static_cast<double>(size) / r.bytes;
  state.counters["file_per_pcm_bytes"] =
      static_cast<double>(size) / (r.messages.size() * kBuffer * 2);
}

void BM_McapRead(benchmark::State& state) {
  const auto compression = static_cast<ZR::ZRMcapCompression>(state.range(0));
  const auto& r = recording();
  const auto file = fileFor(compression);
  write(file, compression);
  std::uint64_t seen = 0;
  for (auto _ : state) {
    ZR::ZRMcapReader reader(file);
    reader.forEachMessage([&](const ZR::ZRMcapMessage& m) {
      seen += m.size;
      benchmark::DoNotOptimize(m.data[m.size / 2]);
      return true;
    });
  }
  std::remove(file.c_str());
  if (seen != state.iterations() * r.bytes) state.SkipWithError("messages lost");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * r.bytes));
}

// What the recorder spends turning one buffer of sound into its text.
void BM_Base64Sound(benchmark::State& state) {
  std::vector<short> buffer(kBuffer, 1234);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ZR::zrBase64Encode(buffer.data(), buffer.size() * 2));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBuffer * 2));
}

// 0: none, 1: zstd, 2: lz4 (ZRMcapCompression's order).
BENCHMARK(BM_McapWrite)
    ->ArgName("codec")
    ->DenseRange(0, 2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_McapRead)
    ->ArgName("codec")
    ->DenseRange(0, 2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_Base64Sound);

}  // namespace

BENCHMARK_MAIN();
