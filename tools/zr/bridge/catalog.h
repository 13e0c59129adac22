#pragma once

// What the bridge offers viewers, read from the directory: a channel per event the modules
// declared to the memory service, a service per remote method of each module; and the JSON a
// viewer's service call becomes a call with, and back.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <zrcommon/zrbroker.h>
#include <zrvalue/zrvalue.h>

#include "remote.h"

namespace zr::bridge {

struct Channel {
  std::uint32_t id = 0;
  std::string topic, producer, schema;
  bool knowsFields = false;  // the schema comes from a value of the event
};

struct Service {
  std::uint32_t id = 0;
  std::string module, method, endpoint;
  std::vector<MethodInfo> overloads;
};

/// Used from one thread (the bridge's discovery); each round asks the directory once, and a
/// module's methods once per appearance.
class Catalog {
 public:
  /// `hidden`: a prefix of module names not offered (the bridge's own viewers).
  Catalog(const ZR::ZRBrokerOptions& directory, std::string hidden);
  ~Catalog();

  struct Changes {
    std::vector<Channel> added;  // new, or advertised again with the fields of a first value
    std::vector<std::uint32_t> removed;
    std::vector<Service> servicesAdded;
    std::vector<std::uint32_t> servicesRemoved;
    bool empty() const {
      return added.empty() && removed.empty() && servicesAdded.empty() && servicesRemoved.empty();
    }
  };
  /// The channels that changed since the previous round, from the directory asked afresh.
  /// ZRError when the directory does not answer.
  Changes refreshChannels();
  /// The services that changed, of the modules the last refreshChannels() listed. Asking a
  /// module that is gone or stuck costs the round one call of at most kAskLimit.
  Changes refreshServices();

  static constexpr std::chrono::milliseconds kAskLimit{2000};

 private:
  // The schema of `c`'s event from its last value, when the memory service has one.
  void learnFields(Channel& c);
  // A method's overloads as its module describes them; none when the module did not answer.
  std::optional<std::vector<MethodInfo>> overloadsOf(const std::string& module,
                                                     const std::string& method);

  const std::string hidden_;
  std::unique_ptr<DirectoryView> view_;
  std::vector<std::pair<ZR::ZRDirectoryEntry, ZR::ZRModuleInfo>> infos_;  // of the last round
  std::map<std::string, Channel> channels_;                               // by topic
  std::map<std::pair<std::string, std::string>, Service> services_;       // by (module, method)
  std::uint32_t nextChannel_ = 1, nextService_ = 1;
};

/// The advertisement of channels and services, as the protocol has them.
std::string advertiseJson(const std::vector<Channel>& channels);
std::string advertiseServicesJson(const std::vector<Service>& services);
std::string removalJson(const char* op, const char* field, const std::vector<std::uint32_t>& ids);

/// A service call's JSON request (an object of the parameters by name, or an array of them) as
/// arguments; std::runtime_error saying what is wrong with it.
std::vector<ZR::ZRValue> requestArguments(const Service& s, const std::string& json);

}  // namespace zr::bridge
