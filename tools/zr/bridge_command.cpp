// zr bridge: the live bridge to a running system, for viewers and the bridge's own page, until
// Ctrl-C.

#include <cstdio>

#include <vo/log.h>

#include "bridge/bridge.h"
#include "command.h"
#include "remote.h"

namespace zr {
namespace {

class BridgeCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "bridge", "Serve a running system live to viewers (WebSocket) and a page, until Ctrl-C.");
    cmd->add_option("--port", bridge_.port, "Port of the page and the WebSocket (0: any free).")
        ->capture_default_str();
    cmd->add_option("--address", bridge_.address,
                    "Address to listen on; beyond loopback a token is required.")
        ->capture_default_str();
    cmd->add_option("--token", bridge_.token,
                    "Token that the page and viewers present (?token=); generated when another "
                    "address than loopback is given without one.");
    cmd->add_option("--name", bridge_.name, "Module name (default: zr-bridge-<host>-<pid>).");
    directory_.define(cmd);
    listen_.define(cmd);
    return cmd;
  }

  int run() override {
    vo::log::setLogLevel(vo::LogLevel_Error);
    const sigset_t signals = blockStopSignals();
    auto broker = joinNetwork(directory_, bridge_.name, listen_, {});
    ZR::ZRBrokerOptions o;
    directory_.apply(o);
    int status = 0;
    try {
      bridge::Bridge bridge(broker, o, bridge_);
      bridge::announce(bridge);
      waitForStop(signals, 0);
    } catch (const std::exception& e) {  // a taken port or name, an address not ours
      std::fprintf(stderr, "zr: error: %s\n", e.what());
      status = kExitError;
    }
    broker->shutdown();
    return status;
  }

 private:
  bridge::BridgeOptions bridge_ = [] {
    bridge::BridgeOptions o;
    o.name = clientName("bridge");
    return o;
  }();
  DirectoryOptions directory_;
  ListenOptions listen_;
};

}  // namespace

void bridge::announce(const Bridge& bridge) {
  std::fprintf(stderr, "zr: bridge on %s\n", bridge.url().c_str());
  std::fflush(stderr);
}

std::unique_ptr<Command> makeBridgeCommand() {
  return std::make_unique<BridgeCommand>();
}

}  // namespace zr
