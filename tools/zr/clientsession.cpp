// What the tool's clients of a running system share: the name they take, and how they wait for
// the signal that ends them.

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>

#include "remote.h"

namespace zr {

std::string clientName(const std::string& command) {
  char host[256] = "host";
  gethostname(host, sizeof host - 1);
  return "zr-" + command + "-" + host + "-" + std::to_string(getpid());
}

sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

bool waitForStop(const sigset_t& signals, double seconds) {
  if (seconds <= 0) {
    while (sigwaitinfo(&signals, nullptr) < 0 && errno == EINTR) {
    }
    return true;
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    const double left =
        std::chrono::duration<double>(end - std::chrono::steady_clock::now()).count();
    if (left <= 0) return false;
    const timespec wait{static_cast<time_t>(left),
                        static_cast<long>((left - std::floor(left)) * 1e9)};
    if (sigtimedwait(&signals, nullptr, &wait) >= 0) return true;  // else a timeout or EINTR
  }
}

}  // namespace zr
