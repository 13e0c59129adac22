#pragma once

// Subscribers on other hosts. For a file, each such host gets one stream and one entry in the
// delivery line: a buffer is sent once per host, whatever the number of its subscribers, that
// host fans it out, and its credits pace the file. A live source gives each remote subscriber a
// stream and an entry of its own, under its name, that drops its oldest buffer when it does not
// keep up.

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zrcommon/detail/zrdeliveryline.h>
#include <zrcommon/detail/zrlatencywindow.h>
#include <zrcommon/detail/zrstream.h>

namespace ZR {

class ZRBroker;
using ZRAudioLine = detail::ZRDeliveryLine;

class ZRAudioRemoteSubscribers : public std::enable_shared_from_this<ZRAudioRemoteSubscribers> {
 public:
  ZRAudioRemoteSubscribers(std::string deviceName, bool live);
  ~ZRAudioRemoteSubscribers();

  /// Adds `module` of the host at `endpoint` to `line`, its buffers' delays from capture to
  /// their start on that host going to `latency`. False when it is subscribed already. Throws
  /// ZRError when `broker` is in no network.
  bool add(const std::shared_ptr<ZRAudioLine>& line, ZRBroker& broker, const std::string& module,
           const std::string& endpoint, std::shared_ptr<detail::ZRLatencyWindow> latency);
  /// Removes `module`; its host leaves the line with its last subscriber. False when `module`
  /// is no remote subscriber.
  bool remove(ZRAudioLine& line, const std::string& module);
  bool has(const std::string& module) const;
  std::vector<std::string> modules() const;
  /// The name under which `module`'s host is (or was last) in the line; empty when never.
  std::string entryOf(const std::string& module) const;
  static bool isEntry(const std::string& lineName);

  /// Ends every stream: what waits for an answer fails (the device is going away).
  void close();

 private:
  struct Host;

  const std::string deviceName_;
  const bool live_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Host>> hosts_;  // by endpoint, or module (live)
  std::map<std::string, std::string> lastEntry_;        // module -> line entry, kept after leaving
};

}  // namespace ZR
