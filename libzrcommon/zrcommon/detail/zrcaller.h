#pragma once

// Which host a call or message that runs on this thread came from, as the transport vouches for
// it: what lets a module tell its own host's calls from another's (the memory service takes an
// event only from its producer's host). Not installed.

#include <string>

namespace ZR {
namespace detail {

struct ZRCaller {
  /// The calling host's name and the endpoint it gave in its hello.
  std::string host, endpoint;
  /// The CURVE public key its connection authenticated with; empty without CURVE.
  std::string key;

  /// The caller of the call running on this thread: only for the module that call reached, not
  /// for the modules it calls in turn; null for a call of this process.
  static const ZRCaller* current();
};

/// Makes `caller` the current one of this thread for the scope's life, for the module that the
/// next proxy call on this thread reaches.
class ZRCallerScope {
 public:
  explicit ZRCallerScope(const ZRCaller& caller);
  ~ZRCallerScope();
  ZRCallerScope(const ZRCallerScope&) = delete;
  ZRCallerScope& operator=(const ZRCallerScope&) = delete;

 private:
  const ZRCaller* previous_;
  int previousDepth_;
};

}  // namespace detail
}  // namespace ZR
