#include <cmath>
#include <sstream>

#include <zraudiodevice/zraudiodevice.h>

namespace ZR {

namespace {

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The whole text must be the number: "440Hz" or "3x" is a typo, not 440 or 3.
template <class T>
T parseNumber(const std::string& text, const std::string& input, const char* what) {
  std::istringstream in(text);
  T value{};
  if (!(in >> value) || !in.eof())
    throw ZRError("ZRAudioDevice", "fromInput",
                  "\"" + input + "\": \"" + text + "\" is not a valid " + what);
  return value;
}

}  // namespace

ZRAudioDeviceOptions ZRAudioDeviceOptions::fromInput(const std::string& input) {
  using S = Source;
  ZRAudioDeviceOptions o;
  if (input.empty())
    throw ZRError("ZRAudioDevice", "fromInput",
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
      throw ZRError("ZRAudioDevice", "fromInput", "\"" + input + "\": negative file descriptor");
  } else {
    o.source = S::File;
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
  }
  if (realtime) out << ", paced at real time";
  return out.str();
}

}  // namespace ZR
