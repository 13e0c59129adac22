#pragma once

#include <memory>

#include <CLI/CLI.hpp>

namespace zr {

/// One subcommand of the tool ("run", "host", "call"...). main adds
/// every command to the command line, parses it, then runs the one the user chose. A command
/// runs on main's thread and blocks until it is done; it reports failures by throwing
/// (CLI::Error for a bad command line, anything else for a failed run) and returns the exit
/// status otherwise.
class Command {
 public:
  virtual ~Command() = default;
  /// Adds the subcommand and its options to `app`; returns the subcommand.
  virtual CLI::App* define(CLI::App& app) = 0;
  virtual int run() = 0;
};

std::unique_ptr<Command> makeRunCommand();
std::unique_ptr<Command> makeDescribeCommand();
std::unique_ptr<Command> makeListCommand();
std::unique_ptr<Command> makeHostCommand();
std::unique_ptr<Command> makeCallCommand();
std::unique_ptr<Command> makeWatchCommand();
std::unique_ptr<Command> makeTopCommand();
std::unique_ptr<Command> makeKeygenCommand();
std::unique_ptr<Command> makeInspectCommand();
std::unique_ptr<Command> makeRecordCommand();
std::unique_ptr<Command> makeReplayCommand();
std::unique_ptr<Command> makeBridgeCommand();

}  // namespace zr
