#pragma once

#include <signal.h>

// What the subcommands that talk to a running directory share: where the directory is, the
// CURVE keys, the exit statuses, and the rules for reading arguments and printing results.

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrservicenames.h>
#include <zrerror/zrdefaults.h>
#include <zrnet/zrdirectory.h>
#include <zrnet/zrtransport.h>
#include <zrproxies/zrmemoryproxy.h>
#include <zrvalue/zrvalue.h>

namespace zr {

/// Exit statuses every subcommand keeps: usage errors 2, a ZRError from a call 1, no directory
/// answering 3.
constexpr int kExitError = 1, kExitUsage = 2, kExitNoDirectory = 3;
constexpr const char* kDefaultDirectory = "tcp://127.0.0.1:7470";
/// How long a subcommand waits for the directory before it gives up with kExitNoDirectory.
constexpr int kDirectoryWaitMs = 3000;

/// Thrown when no directory answers; main prints its text and exits with kExitNoDirectory.
class NoDirectory : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A key pair as `zr keygen` writes it (NAME.key: the public key, then the secret key, Z85).
struct KeyPair {
  std::string publicKey, secretKey;
};
/// Reads a key pair file; std::runtime_error naming the file when it is missing or malformed.
KeyPair readKeyPair(const std::string& path);
/// The Z85 keys of a file, one a line (a NAME.pub, an --allow list); blank lines and lines
/// starting with # are skipped. std::runtime_error for a missing file or a line that is no key.
std::vector<std::string> readPublicKeys(const std::string& path);

/// --directory, --curve-keys and --server-key, and the rule that picks the address: the option,
/// else ZR_DIRECTORY, else kDefaultDirectory.
/// --heartbeat MS, for every subcommand that joins a network.
void defineHeartbeat(CLI::App* cmd, int& ms);

/// `address` when it is one the transport can use; CLI::ValidationError naming `source` (the
/// option or variable it came from) and the forms it takes otherwise.
std::string checkedAddress(const std::string& address, const std::string& source);

struct DirectoryOptions {
  std::string directory, curveKeys, serverKey;
  int heartbeatMs = 0;  // 0: the broker's default
  CLI::Option* directoryOption = nullptr;

  void define(CLI::App* cmd);
  /// True when --directory was given or ZR_DIRECTORY is set.
  bool explicitlyGiven() const;
  /// Throws CLI::ValidationError for a malformed address.
  std::string address() const;
  /// Fills the directory, heartbeat and key fields of `o` (the client side: no allow-list).
  void apply(ZR::ZRBrokerOptions& o) const;
};

/// The tool's own view of a running directory: one call to it (within kDirectoryWaitMs, or
/// NoDirectory) gives every published name, and calls then go straight to the hosts.
///
/// Used from one thread; call blocks for the remote method without a time limit.
class DirectoryView {
 public:
  explicit DirectoryView(const DirectoryOptions& options);
  /// The directory, keys and server key of `o` (its other fields are unused).
  explicit DirectoryView(const ZR::ZRBrokerOptions& o);
  ~DirectoryView();
  /// Every published module, sorted by name.
  const std::vector<ZR::ZRDirectoryEntry>& entries() const { return entries_; }
  std::optional<ZR::ZRDirectoryEntry> find(const std::string& name) const;
  /// Calls `method` of the module called `module` (within `deadline`, when given): the module's
  /// ZRError, or one saying that no such module is published.
  ZR::ZRValue call(const std::string& module, const std::string& method,
                   std::vector<ZR::ZRValue> args = {},
                   std::chrono::milliseconds deadline = std::chrono::milliseconds(0));
  /// Asks the directory again.
  void refresh();
  /// What `e` is and offers: as its host published it, or, from a host that did not say (an
  /// older or foreign client), asked of the module itself. ZRError when that fails.
  ZR::ZRModuleInfo info(const ZR::ZRDirectoryEntry& e);

 private:
  std::string address_, serverKey_;
  bool withKeys_ = false;  // this client speaks CURVE
  std::unique_ptr<ZR::ZRTransport> transport_;
  std::vector<ZR::ZRDirectoryEntry> entries_;
};

/// --listen and --advertise: where a client that receives events takes the memory's calls.
struct ListenOptions {
  std::string listen = ZR::kDefaultListen, advertise;

  void define(CLI::App* cmd);
  /// The first of them given on `cmd`'s line, or null.
  CLI::Option* given(CLI::App* cmd) const;
};

/// A broker of the tool's own in a network: NoDirectory unless a directory answers within
/// kDirectoryWaitMs; then it takes calls (events) where `listen` says, with the CURVE keys given,
/// admitting the hosts' key (--server-key). Waits up to kDirectoryWaitMs for each of `needed` to
/// be published; ZRError naming the first that is not.
boost::shared_ptr<ZR::ZRBroker> joinNetwork(const DirectoryOptions& options,
                                            const std::string& name, const ListenOptions& listen,
                                            const std::vector<std::string>& needed);

/// Whether `e` says the callee is gone or did not answer in time, rather than that it refused.
bool isTransportFailure(const ZR::ZRError& e);

/// Fails with NoDirectory unless a directory answers at the address within kDirectoryWaitMs.
void requireDirectory(const DirectoryOptions& options);
void requireDirectory(const ZR::ZRBrokerOptions& o);

/// memory.subscribeToEvent(event, module, callback) for a module this process has just
/// published: the memory's host learns of it at its next directory sync, so a refusal naming the
/// module is retried for up to kDirectoryWaitMs. Other errors go through.
void subscribeNewModule(ZR::ZRMemoryProxy& memory, const std::string& event,
                        const std::string& module, const std::string& callback);

/// The name a client of the tool takes in a network: "zr-COMMAND-HOST-PID".
std::string clientName(const std::string& command);

/// Blocks SIGINT and SIGTERM in this thread (and the threads it starts), to be waited for; the
/// set of them.
sigset_t blockStopSignals();

/// Waits for one of `signals` (blocked by the caller), or for `seconds` when positive; true when
/// a signal came.
bool waitForStop(const sigset_t& signals, double seconds);

/// One overload of a method, as its help page gives it.
struct MethodInfo {
  std::string name, signature, description, returnType, returnName, returnDocumentation;
  struct Parameter {
    std::string name, type, documentation;
  };
  std::vector<Parameter> parameters;
};
/// Parses what the built-in "getMethodHelp" returns.
std::vector<MethodInfo> parseMethodHelp(const std::string& help);

/// A command-line argument as a value: JSON is that value (an integer an int, another number a
/// float, true/false a bool, null an invalid value, an array an array), anything else a string.
ZR::ZRValue parseArgument(const std::string& text);
/// Converts numbers between int and float where exactly one overload of the arity takes them
/// that way; leaves `args` alone otherwise (the module then says what it has).
void fitArguments(const std::vector<MethodInfo>& overloads, std::vector<ZR::ZRValue>& args);
/// The value as JSON: floats in the shortest text that reads back as the same 32-bit float,
/// null for an invalid value (or a float that is not finite), {"binary":"<base64>"} for a binary.
std::string toJson(const ZR::ZRValue& value);

}  // namespace zr
