#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrvalue/zrvalue.h>

namespace ZR {

/// How the host configures the audio device's source at creation.
struct ZRAudioDeviceOptions {
  enum class Source {
    File,        ///< a sound file read with libsndfile (WAV, FLAC, OGG, ...): `path`
    Microphone,  ///< ALSA capture: `path` is the device name, "default" when empty
    Tone,        ///< a sine wave at `frequency`
    Noise,       ///< uniform white noise
    Silence,     ///< zeros
    RawPcm,      ///< interleaved native-endian int16: `fileDescriptor`, or `path` ("-": stdin)
    Host,        ///< no source of its own: the host pushes buffers with ZRAudioDevice::deliver
    /// the sound of a recording (docs/recording.md): `path`, replayed as it was recorded, with
    /// its buffers, positions, gaps and capture times
    Recording,
  };

  Source source = Source::Silence;
  std::string path;
  /// RawPcm: read from this descriptor (not closed by the device) instead of opening `path`.
  int fileDescriptor = -1;
  /// Tone: in Hz, below half the sample rate.
  double frequency = 440.0;
  /// Tone and noise: peak level as a fraction of full scale, 0 to 1.
  double amplitude = 0.5;
  /// Unset: a file's own rate (resampled with libsamplerate when set and different),
  /// kDefaultSampleRate (zrerror/zrdefaults.h) for the other sources.
  std::optional<int> sampleRate;
  /// Unset: a file's own channel count, 1 for the other sources. A file is converted only from
  /// mono to any count, or from any count to mono. At most 32.
  std::optional<int> channelCount;
  /// Samples per channel in each buffer. Unset: 100 ms at the sample rate.
  std::optional<int> samplesPerBuffer;
  /// Paces a file, raw or synthetic source at real time; it then behaves as a live source.
  bool realtime = false;
  /// Live sources: buffers that may wait for one subscriber before the oldest is dropped.
  /// Other sources: how far the source may run ahead of its slowest subscriber.
  int queueCapacity = 32;
  /// Synthetic sources end after this many seconds; unset: they never end.
  std::optional<double> durationSeconds;
  /// Samples dropped on purpose, as a capture overrun would drop them: `samples` samples per
  /// channel at stream position `at` (any source). For tests and drills of loss handling.
  struct InjectedGap {
    std::int64_t at = 0;
    std::int64_t samples = 0;
  };
  std::vector<InjectedGap> injectedGaps;
  /// A source paced by the device (not a microphone) runs this many parts per million fast
  /// (positive) or slow, as a sound card's clock would; at most 100000 either way.
  double clockSkewPpm = 0.0;
  /// As if hold() were called before every start: the first subscriber opens the source, but
  /// nothing is delivered before the host calls release(), so that several subscribers all get
  /// a file from its first sample.
  bool held = false;

  /// "tone" or "tone:440", "noise", "silence", "mic" or "mic:hw:1", "-" (raw PCM on standard
  /// input), "raw:PATH", "fd:N", a path ending in ".mcap" (a recording), anything else a sound
  /// file path. Throws ZRError for an empty
  /// text or a malformed tone frequency or descriptor.
  static ZRAudioDeviceOptions fromInput(const std::string& input);

  /// True for sources that never wait for a subscriber: a microphone, or anything paced at real
  /// time.
  bool isLive() const { return source == Source::Microphone || realtime; }
  /// One line for logs and tools, e.g. "tone 440 Hz".
  std::string describe() const;
};

/// One subscriber's delivery counts, kept after it unsubscribes.
struct ZRAudioDeliveryStats {
  std::int64_t delivered = 0;   ///< buffers handed to its "processRemote"
  std::int64_t dropped = 0;     ///< buffers dropped because its queue was full (live sources)
  std::int64_t failed = 0;      ///< deliveries whose "processRemote" threw (not delivered)
  std::int64_t mostQueued = 0;  ///< the most buffers that waited for it at once
};

/// One subscriber's delivery latency: from the capture of a buffer's first sample to the start of
/// the subscriber's "processRemote", over its last 1000 deliveries. For a subscriber on another
/// host: to the start there of the message that carried the buffer (the first of a batch), told
/// back with its credit, through the real-time clocks of both hosts.
struct ZRAudioLatency {
  double p50Ms = 0, p99Ms = 0, maxMs = 0;
  std::int64_t count = 0;  ///< deliveries measured since the device was created
};

/// The source's real sample rate against the host's monotonic clock, over the current run of a
/// live source: `ppm` off the nominal rate, with its standard error. Not `known` before a few
/// buffers, nor for a source that is not live.
struct ZRAudioDrift {
  bool known = false;
  double ppm = 0, uncertaintyPpm = 0;
  std::int64_t points = 0;  ///< buffers the estimate rests on
};

/// The audio device module, registered as "ZRAudioDevice". It captures from its source on a
/// thread of its own while it has subscribers, and delivers each buffer to every subscriber's
/// "processRemote"(int channels, int samplesPerChannel, ZRValue timestamp, ZRValue binary of
/// interleaved native-endian int16), in order, on the subscriber's own strand of the broker's
/// pool. The binary block of a buffer is filled once and shared by every subscriber.
///
/// The timestamp (zrcommon/zraudiotimestamp.h, docs/timestamps.md) starts with [seconds,
/// microseconds] from the first sample of the stream, for every source (results read as times
/// into the input, and fit a float), then gives the 64-bit index of the buffer's first sample in
/// the stream, its capture time on the host's monotonic and real-time clocks in ns, and the
/// buffer's sequence number. Positions are honest: samples lost at capture (an overrun, or an
/// injected gap) advance the position by as many samples, and a subscriber that misses buffers
/// sees the sequence jump.
///
/// Every loss is counted and announced through the memory service as the event
/// "ZRAudioDevice/Gap" (zrservicenames.h), whose value is a record [["start", position],
/// ["samples", n], ["cause", "capture" or the subscriber's name], ["reason", text], ["time",
/// seconds]]: a position is an int, or [high, low] past 32 bits (zrReadSample).
///
/// A live source never waits: each subscriber has a bounded queue whose oldest buffer is dropped
/// (counted, and warned about) when it overflows. Other sources wait for the slowest subscriber
/// and lose nothing; none of them lets a queue grow past `queueCapacity`. A subscriber whose
/// "processRemote" throws keeps receiving; one that was destroyed is unsubscribed. A device
/// destroyed while modules are still subscribed logs one warning per module.
///
/// Concurrency: every method may be called from any thread, a subscriber's own "processRemote"
/// included. subscribe and unsubscribe serialise with each other and with the destructor; the
/// first subscribe opens the source (a file, a microphone) on the caller's thread, and the last
/// unsubscribe joins the capture thread, which stops within one read of the source. deliver waits
/// for the slowest subscriber (non-live host source only); waitUntilIdle and waitForEndOfStream
/// wait as long as they are told; every other method returns at once.
class ZRAudioDevice : public ZRModule {
 public:
  /// Throws ZRError for invalid options. A file that cannot be opened is not an error yet: the
  /// subscribe that would start it fails instead.
  ZRAudioDevice(boost::shared_ptr<ZRBroker> broker, const std::string& name,
                const ZRAudioDeviceOptions& options = ZRAudioDeviceOptions());
  ~ZRAudioDevice() override;

  // Remote methods.
  /// Starts delivering to `module`; the first subscriber opens and starts the source. ZRError
  /// when the module is unknown or the source cannot be opened.
  void subscribe(const std::string& module);
  /// Stops delivering to `module` (its pending buffers are discarded); the last one stops the
  /// source. Unsubscribing a module that is not subscribed does nothing.
  void unsubscribe(const std::string& module);
  std::vector<std::string> getSubscribers();
  /// 0 while a file source whose rate was not asked for has not been opened yet.
  int getSampleRate();
  int getChannelCount();
  int getSamplesPerBuffer();
  /// ZRError for a module that never subscribed.
  int getDeliveredBufferCount(const std::string& module);
  int getDroppedBufferCount(const std::string& module);
  bool isEndOfStream();
  std::string getSourceDescription();
  /// [p50, p99, max] delivery latency in ms (floats) and the deliveries measured (int) of a
  /// module; ZRError for a module that never subscribed.
  ZRValue getLatency(const std::string& module);
  /// [ppm, uncertainty in ppm] (floats) and the buffers it rests on (int); an empty array while
  /// unknown.
  ZRValue getDrift();
  /// Samples per channel lost at capture since the device was created (clamped to an int).
  int getLostSampleCount();
  /// Writes every buffer delivered from now on to a 16-bit WAV file. ZRError when already
  /// recording or when the file cannot be created.
  void startRecording(const std::string& path);
  /// Closes the recording; returns the samples per channel written (0 when not recording).
  int stopRecording();
  /// Holds the next start of the source (or the current one, before its first buffer) until
  /// release(): subscribe everyone, then release.
  void hold();
  /// Lets a held source deliver; does nothing otherwise.
  void release();

  // Host side.
  const ZRAudioDeviceOptions& options() const { return options_; }
  ZRAudioDeliveryStats getDeliveryStats(const std::string& module);
  /// False when `module` never had a delivery measured here.
  bool getLatencyFigures(const std::string& module, ZRAudioLatency& out);
  ZRAudioDrift getDriftEstimate();
  std::int64_t lostSamples();
  /// True while the capture thread runs.
  bool isCapturing();
  /// Waits until the producer (capture thread or deliver) is held back by a subscriber's full
  /// queue, which only a non-live source does; false when `timeoutMs` passed first.
  bool waitUntilHeldBack(int timeoutMs);
  /// Waits until the capture thread has ended (at once when none runs); timeoutMs < 0 waits
  /// forever. True when it has.
  bool waitUntilStopped(int timeoutMs);
  /// Waits until no buffer is waiting for or inside a subscriber; timeoutMs < 0 waits forever.
  bool waitUntilIdle(int timeoutMs);
  /// Waits until the source has ended, "ZRAudioDevice/EndOfStream" has been raised and every
  /// buffer has been processed; timeoutMs < 0 waits forever.
  bool waitForEndOfStream(int timeoutMs);

  /// Host source only: pushes one buffer of `samplesPerChannel` interleaved samples through the
  /// delivery path, copied once into a block of the device's own, and returns the value queued
  /// for the subscribers. Waits for the slowest subscriber unless the device is live.
  ZRValue deliver(const std::int16_t* interleaved, int samplesPerChannel);
  /// Host source only: delivers a binary value the host filled, without copying it.
  void deliver(const ZRValue& buffer, int samplesPerChannel);
  /// Host source only: ends the stream once every delivered buffer has been processed.
  void endStream();

  struct Core;

 private:
  void registerMethods();
  void stopCapture(std::unique_lock<std::mutex>& control);

  ZRAudioDeviceOptions options_;
  std::shared_ptr<Core> core_;
  // Serialises subscribe, unsubscribe and the destructor: starting and stopping the source.
  std::mutex controlMutex_;
};

}  // namespace ZR
