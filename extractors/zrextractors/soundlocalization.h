#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <zrerror/zrdefaults.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrsoundextractor/zrsoundextractor.h>

#include "zrextractors/micarray.h"

namespace ZR {

class Localizer;
class SourceTracker;
struct TrackedSource;
class ChannelCheck;

/// Where the sound comes from, for a microphone array of known geometry (ZRMicArray): up to
/// getMaxSources() simultaneous sources per period, tracked over time.
///
/// Each period, the phase differences of every mic pair (weighted by how far each frequency
/// stands above the tracked noise floor) are steered over a grid of directions; the strongest
/// direction is refined, its pattern taken out, and the next one looked for. A tracker keeps an
/// id per source while it moves, starts one only on sound seen in two periods (or one very
/// clear), and ends it a few hundred ms after its sound stops. Silence and diffuse noise give no
/// source.
///
/// Conventions: azimuth in degrees counter-clockwise from the array's +x axis, in (-180, 180];
/// elevation in degrees above the x-y plane, >= 0 for a planar array (whose up and down sound
/// alike). A line array along x gives the angle from +x in [0, 180] as azimuth and elevation 0
/// (front and back sound alike).
///
/// The precision (0 to 1, default 0.5) trades angular resolution for CPU: grids of 8 to 3
/// degrees refined to 2 to 0.25 degrees, delays to a quarter to a sixteenth of a sample, frames
/// without or with overlap.
///
/// Outputs, for a module registered as N: event "N/Sources" once per period:
/// [["time", s], ["sources", [[["id", n], ["azimuth", deg], ["elevation", deg],
/// ["energy", dBFS]], ...]]], strongest first, an empty list when nothing is heard; time is the
/// period's first sample. Energy is the source's share of the power above the noise floor.
///
/// Without an array (setArray, or the registry's "array" option) a subscription is refused, as
/// is one whose device has another channel count than the array has mics, or a sample rate at
/// which the array resolves nothing. The channel check warns once if a channel is dead (and
/// leaves it out) or if the delays between channels do not fit the geometry, naming the
/// suspects.
///
/// Concurrency: deliveries, "flush", "setArray" and parameter changes may come from any thread;
/// deliveries and flushes are serialised on one mutex, held for the analysis of one buffer.
class SoundLocalization : public ZRSoundExtractor {
 public:
  static constexpr int kDefaultPeriodMs = 100;
  static constexpr float kDefaultPrecision = 0.5f;
  static constexpr int kDefaultMaxSources = 2;

  SoundLocalization(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                    std::optional<ZRMicArray> array = std::nullopt,
                    int maxSources = kDefaultMaxSources);
  ~SoundLocalization() override;

  int getDefaultPeriod() override { return kDefaultPeriodMs; }
  int getMinimumPeriod() override { return 20; }
  float getDefaultPrecision() override { return kDefaultPrecision; }
  void startDetection() override;
  void xStartDetection(int period, float precision) override;
  void xUpdateParameters(int period, float precision) override;
  void process(const int& nbOfChannels, const int& nbOfSamplesByChannel, const short* buffer,
               const ZRValue& timestamp) override;

  /// Remote: the array, as a shape name, JSON text or a JSON file on this host.
  void setArray(const std::string& given);
  /// Remote: the array in use as JSON, "" when none.
  std::string getArray();
  /// Remote: most sources reported at once (1 to 8).
  void setMaxSources(const int& count);
  int getMaxSources() { return maxSources_.load(); }
  /// Remote: publishes the period still open, as at the end of a stream.
  void flush();

  std::string sourcesEvent() const { return getName() + "/Sources"; }
  /// Periods analysed since construction (what a test of "no subscriber, no work" counts).
  std::int64_t analysedPeriods() const { return analysed_.load(); }

 private:
  void setPrecision(float precision);
  void analyseBlock();
  int candidateCount() const;
  void publish();
  void warnOnce(const std::string& text);

  boost::shared_ptr<ZRMemoryProxy> memory_;
  std::atomic<int> periodMs_{kDefaultPeriodMs};
  std::atomic<float> precision_{kDefaultPrecision};
  std::atomic<int> maxSources_;
  std::atomic<int> sampleRate_{kDefaultSampleRate};
  std::atomic<std::int64_t> analysed_{0};

  std::mutex mutex_;
  std::optional<ZRMicArray> array_;
  std::unique_ptr<Localizer> localizer_;
  std::unique_ptr<SourceTracker> tracker_;
  std::unique_ptr<ChannelCheck> check_;
  float builtPrecision_ = -1.0f;
  int builtRate_ = 0;
  long long periodSamples_ = 0, periodFilled_ = 0, blockFilled_ = 0;
  std::vector<TrackedSource> sources_;
  double periodStart_ = 0.0;
  std::set<std::string> warned_;
};

}  // namespace ZR
