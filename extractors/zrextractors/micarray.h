#pragma once

// A microphone array's geometry: where each channel's microphone sits, read from a JSON file or
// named by a built-in shape, and checked before any sound is localised with it.

#include <array>
#include <string>
#include <vector>

namespace ZR {

/// Positions in metres, array-centred, one per channel in channel order; the array's x-y plane
/// is horizontal and azimuths count counter-clockwise from +x.
///
/// JSON: {"name": "...", "mics": [[x, y, z], ...]} (z may be left out: 0). Built-in shapes are
/// named by shape, count and size: "circularN-rXmm" (N mics on a circle of radius X mm, mic 0 on
/// +x, then counter-clockwise) and "linearN-dXmm" (N mics X mm apart along x, mic 0 at the -x
/// end); typicalShapes() lists the common ones, but any N and size is accepted.
///
/// A plain value: const members are safe from any thread.
class ZRMicArray {
 public:
  enum class Kind { Linear, Planar, Volumetric };
  using Point = std::array<double, 3>;

  /// Speed of sound in m/s (air at about 20 degrees C).
  static constexpr double kSpeedOfSound = 343.0;

  ZRMicArray() = default;
  /// Checks the positions (see parse); throws ZRError naming the fault.
  ZRMicArray(std::string name, std::vector<Point> mics);

  /// `given` is a shape name, JSON text (starting with '{') or the path of a JSON file. Throws
  /// ZRError with a line for the user for an unknown shape, an unreadable or malformed file, or
  /// a geometry that cannot work: fewer than 2 or more than 64 mics, coordinates that are not
  /// finite or too large for metres, two mics closer than 1 mm, or a vertical line of mics
  /// (which cannot tell azimuths apart).
  static ZRMicArray parse(const std::string& given);
  /// A built-in shape by name, or ZRError listing the typical ones.
  static ZRMicArray shape(const std::string& name);
  static std::vector<std::string> typicalShapes();

  /// Refuses (ZRError) a device whose channel count differs from the mic count, or a sample rate
  /// at which the widest pair spans less than half a sample of delay (nothing to resolve).
  void checkFor(int channels, int sampleRate) const;

  const std::string& name() const { return name_; }
  const std::vector<Point>& mics() const { return mics_; }
  int size() const { return static_cast<int>(mics_.size()); }
  Kind kind() const { return kind_; }
  /// Linear: the line's unit direction (horizontal part first); Planar: the plane's unit normal,
  /// pointing up (or to +y, +x for a vertical plane); Volumetric: unused.
  const Point& axis() const { return axis_; }
  /// The largest distance between two mics, in metres.
  double aperture() const;
  /// The geometry as JSON, in the file format.
  std::string toJson() const;

 private:
  void classify();

  std::string name_;
  std::vector<Point> mics_;
  Kind kind_ = Kind::Volumetric;
  Point axis_{0.0, 0.0, 1.0};
};

}  // namespace ZR
