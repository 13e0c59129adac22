#include <cctype>
#include <cmath>
#include <sstream>

#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrservicenames.h>
#include <zrerror/zrdefaults.h>

#include "zraudiodevicecore.h"

namespace ZR {

namespace {

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWithNoCase(const std::string& text, const std::string& suffix) {
  if (text.size() < suffix.size()) return false;
  for (std::size_t i = 0; i < suffix.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(text[text.size() - suffix.size() + i])) !=
        suffix[i])
      return false;
  return true;
}

// The whole text must be the number: "440Hz" or "3x" is a typo, not 440 or 3.
template <class T>
T parseNumber(const std::string& text, const std::string& input, const char* what) {
  std::istringstream in(text);
  T value{};
  if (!(in >> value) || !in.eof())
    throw ZRError(kAudioDeviceServiceName, "fromInput",
                  "\"" + input + "\": \"" + text + "\" is not a valid " + what);
  return value;
}

}  // namespace

ZRAudioDeviceOptions ZRAudioDeviceOptions::fromInput(const std::string& input) {
  using S = Source;
  ZRAudioDeviceOptions o;
  if (input.empty())
    throw ZRError(kAudioDeviceServiceName, "fromInput",
                  "empty input: give a sound file, \"mic\", \"tone:440\", \"noise\", \"silence\" "
                  "or \"-\"");
  if (input == "tone") {
    o.source = S::Tone;
  } else if (startsWith(input, "tone:")) {
    o.source = S::Tone;
    o.frequency = parseNumber<double>(input.substr(5), input, "frequency in Hz");
  } else if (input == "noise") {
    o.source = S::Noise;
  } else if (input == "silence") {
    o.source = S::Silence;
  } else if (input == "mic") {
    o.source = S::Microphone;
    o.path = "default";
  } else if (startsWith(input, "mic:")) {
    o.source = S::Microphone;
    o.path = input.substr(4);
  } else if (input == "-") {
    o.source = S::RawPcm;
    o.path = "-";
  } else if (startsWith(input, "raw:")) {
    o.source = S::RawPcm;
    o.path = input.substr(4);
  } else if (startsWith(input, "fd:")) {
    o.source = S::RawPcm;
    o.fileDescriptor = parseNumber<int>(input.substr(3), input, "file descriptor");
    if (o.fileDescriptor < 0)
      throw ZRError(kAudioDeviceServiceName, "fromInput",
                    "\"" + input + "\": negative file descriptor");
  } else {
    o.source = endsWithNoCase(input, ".mcap") ? S::Recording : S::File;
    o.path = input;
  }
  return o;
}

std::string ZRAudioDeviceOptions::describe() const {
  std::ostringstream out;
  switch (source) {
    case Source::File:
      out << "file \"" << path << "\"";
      break;
    case Source::Microphone:
      out << "microphone \"" << (path.empty() ? "default" : path) << "\"";
      break;
    case Source::Tone:
      out << "tone " << frequency << " Hz";
      break;
    case Source::Noise:
      out << "white noise";
      break;
    case Source::Silence:
      out << "silence";
      break;
    case Source::RawPcm:
      if (fileDescriptor >= 0)
        out << "raw PCM on descriptor " << fileDescriptor;
      else if (path.empty() || path == "-")
        out << "raw PCM on standard input";
      else
        out << "raw PCM file \"" << path << "\"";
      break;
    case Source::Host:
      out << "buffers pushed by the host";
      break;
    case Source::Recording:
      out << "recording \"" << path << "\"";
      break;
  }
  if (realtime) out << ", paced at real time";
  if (clockSkewPpm != 0) out << " " << (clockSkewPpm > 0 ? "+" : "") << clockSkewPpm << " ppm";
  return out.str();
}

void validateAudioDeviceOptions(const ZRAudioDeviceOptions& o, const std::string& name) {
  using S = ZRAudioDeviceOptions::Source;
  auto fail = [&](const std::string& why) { throw ZRError(name, kAudioDeviceClassName, why); };
  if (o.sampleRate && *o.sampleRate <= 0)
    fail("the sample rate must be positive, not " + std::to_string(*o.sampleRate));
  if (o.channelCount && (*o.channelCount <= 0 || *o.channelCount > kMaxAudioChannels))
    fail("the channel count must be between 1 and " + std::to_string(kMaxAudioChannels) + ", not " +
         std::to_string(*o.channelCount));
  if (o.samplesPerBuffer && *o.samplesPerBuffer <= 0)
    fail("the samples per buffer must be positive, not " + std::to_string(*o.samplesPerBuffer));
  if (o.queueCapacity < 1)
    fail("the queue capacity must be at least 1, not " + std::to_string(o.queueCapacity));
  if (o.durationSeconds && !(*o.durationSeconds > 0))
    fail("the duration must be positive, not " + std::to_string(*o.durationSeconds));
  if ((o.source == S::File || o.source == S::Recording) && o.path.empty())
    fail("a file source needs a path");
  for (const ZRAudioDeviceOptions::InjectedGap& g : o.injectedGaps)
    if (g.at < 0 || g.samples <= 0)
      fail("an injected gap needs a position of at least 0 and at least 1 sample, not " +
           std::to_string(g.samples) + " at " + std::to_string(g.at));
  if (!(std::fabs(o.clockSkewPpm) <= 100000))
    fail("the clock skew must be within +-100000 ppm, not " + std::to_string(o.clockSkewPpm));
  if (o.clockSkewPpm != 0 && !(o.realtime && o.source != S::Microphone))
    fail(
        "a clock skew needs a source the device paces at real time (not a microphone, which "
        "has a clock of its own)");
  if (o.source == S::Tone || o.source == S::Noise) {
    if (!(o.amplitude >= 0 && o.amplitude <= 1))
      fail("the amplitude must be between 0 and 1, not " + std::to_string(o.amplitude));
  }
  if (o.source == S::Tone) {
    const int rate = o.sampleRate.value_or(kDefaultSampleRate);
    if (!(o.frequency > 0 && o.frequency < rate / 2.0))
      fail("the tone frequency must be above 0 and below half the sample rate (" +
           std::to_string(rate / 2) + " Hz), not " + std::to_string(o.frequency));
  }
  switch (o.source) {
    case S::File:
    case S::Microphone:
    case S::Tone:
    case S::Noise:
    case S::Silence:
    case S::RawPcm:
    case S::Host:
    case S::Recording:
      return;
  }
  fail("unknown source kind " + std::to_string(static_cast<int>(o.source)));
}

}  // namespace ZR
