// zr: runs extraction pipelines and describes modules. Each subcommand lives in a file of its
// own; this file only chooses one and turns its failures into one line and an exit status.

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <zrcommon/zrversion.h>

#include "command.h"
#include "remote.h"

int main(int argc, char** argv) {
  CLI::App app{
      "zr: run sound extractors on a file, a microphone or a synthetic signal; host modules and "
      "reach them across processes and machines."};
  app.require_subcommand(1);
  // What follows "--" once a subcommand has no place left for it comes back here: zr call's
  // ARGs (a "-x" there is an argument, not an option). Refused below for any other subcommand.
  app.allow_extras();
  app.set_version_flag("--version", std::string("zr ") + ZR::kPlatformVersion);

  std::vector<std::pair<CLI::App*, std::unique_ptr<zr::Command>>> commands;
  for (auto make : {zr::makeRunCommand, zr::makeHostCommand, zr::makeCallCommand,
                    zr::makeListCommand, zr::makeDescribeCommand, zr::makeWatchCommand,
                    zr::makeTopCommand, zr::makeKeygenCommand, zr::makeRecordCommand,
                    zr::makeReplayCommand, zr::makeInspectCommand, zr::makeBridgeCommand}) {
    std::unique_ptr<zr::Command> command = make();
    CLI::App* sub = command->define(app);
    commands.emplace_back(sub, std::move(command));
  }

  if (argc > 1 && argv[1][0] != '-') {
    std::string names;
    bool known = false;
    for (const auto& c : commands) {
      names += (names.empty() ? "" : ", ") + c.first->get_name();
      known = known || c.first->get_name() == argv[1];
    }
    if (!known) {
      std::fprintf(stderr, "zr: error: unknown command \"%s\" (%s; see zr --help)\n", argv[1],
                   names.c_str());
      return zr::kExitUsage;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // Help and version exit 0; every other bad command line is a usage error.
    return app.exit(e) == 0 ? 0 : zr::kExitUsage;
  }
  if (!app.remaining().empty() && !app.got_subcommand("call")) {
    std::string words;
    for (const std::string& w : app.remaining()) words += " " + w;
    std::fprintf(stderr, "zr: error: arguments that were not expected:%s\n", words.c_str());
    return zr::kExitUsage;
  }
  try {
    for (auto& c : commands)
      if (*c.first) return c.second->run();
  } catch (const CLI::Error& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    return zr::kExitUsage;
  } catch (const zr::NoDirectory& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    return zr::kExitNoDirectory;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zr: error: %s\n", e.what());
    return 1;
  } catch (...) {
    // Plugins run in this process and may throw anything.
    std::fprintf(stderr, "zr: error: an exception that is no std::exception\n");
    return 1;
  }
  return 0;
}
