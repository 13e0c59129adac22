#pragma once

namespace ZR {

/// Whether `samples` may be read as `channels` × `samplesPerChannel` interleaved 16-bit values.
///
/// A delivery's counts reach a sound extractor exactly as its sender wrote them, unchecked, so
/// every consumer of the samples calls this before reading them: the counts must be positive,
/// their product must fit an int, `samples` must not be null, and when `samples` is the binary
/// argument of a remote call this thread is running (the usual case: "processRemote" from the
/// audio device or from any other module), that binary must hold at least that many samples.
/// A pointer handed over directly by the host's own code cannot be checked against a size and
/// is trusted. Cheap (a few comparisons), safe from any thread.
bool samplesFit(int channels, int samplesPerChannel, const short* samples);

}  // namespace ZR
