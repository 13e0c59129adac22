#pragma once

// The platform's defaults, each written once with why it is what it is. Every layer reads them
// from here, the transport included, which is why they live in the lowest library; `zr`'s help
// texts and the documentation give these values (a test holds the documentation to them).

#include <chrono>
#include <cstddef>

namespace ZR {

/// Where hosts and tools find the directory when given no address: loopback, so that nothing is
/// reachable from the network until someone asks for it, on a fixed port, so that the processes
/// of one machine find each other with no configuration at all.
inline constexpr const char* kDefaultDirectory = "tcp://127.0.0.1:7470";

/// Where a host or a tool takes calls when not told: loopback, so that only this machine reaches
/// it until someone asks for more, on any free port, so that any number of them can run at once.
inline constexpr const char* kDefaultListen = "tcp://127.0.0.1:0";

/// How often hosts show each other they are alive: a dead peer is then noticed in well under a
/// second (see kHeartbeatsToDeath), while a beat costs one small message per peer. A whole
/// network uses one value: each host judges the others by its own.
inline constexpr std::chrono::milliseconds kDefaultHeartbeat{250};

/// A peer silent for this many heartbeats is dead: one lost or late beat on a loaded machine is
/// not a death, and three still tell a pipeline within a second that a host is gone.
inline constexpr int kHeartbeatsToDeath = 3;

/// The largest message a host accepts: a bound on what one malformed or hostile message can make
/// it allocate, far above what the platform sends (a full batch of 8 one-second buffers of 32
/// channels at 48 kHz is 24 MiB).
inline constexpr std::size_t kDefaultMaxMessageSize = std::size_t{64} << 20;

/// A lost connection is tried again after this, then ever less often up to kReconnectDelayMax: a
/// host that restarts is reached again at once, one that stays away costs a try every 2 s.
inline constexpr std::chrono::milliseconds kReconnectDelay{100};
inline constexpr std::chrono::milliseconds kReconnectDelayMax{2000};

/// The sample rate of a source that does not carry one (raw PCM, tone, noise, silence), and what
/// an extractor assumes until the device tells it: the speech band the stock extractors analyse
/// (up to 4 kHz) with room, at a third of the bytes of 48 kHz.
inline constexpr int kDefaultSampleRate = 16000;

/// How long a service waits for a module that was named to it but is not known on its host yet:
/// a module of another host that registered a moment ago arrives with the directory's next
/// change, normally within a heartbeat; this covers a loaded machine, and a name that never comes
/// fails the call after it.
inline constexpr std::chrono::milliseconds kPublishWait{5000};

/// How long a tool waits for the directory before it says that none answers: a live directory
/// answers in milliseconds, and a person at a terminal waits no longer than this.
inline constexpr std::chrono::milliseconds kDirectoryWait{3000};

}  // namespace ZR
