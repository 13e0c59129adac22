// zr list: the modules a running directory publishes, or, without a directory, the extractor
// types zr can run, stock and from plugins.

#include <cstdio>

#include <zrextractors/zrextractorregistry.h>
#include <nlohmann/json.hpp>

#include "command.h"
#include "remote.h"

namespace zr {
namespace {

class ListCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "list",
        "List the modules of a running directory (with --directory or ZR_DIRECTORY), else the "
        "extractors zr can run.");
    cmd->add_option("--load", libraries_, "Load extractor types from a plugin library.");
    cmd->add_option("-f,--format", format_, "Output format.")
        ->check(CLI::IsMember({"table", "jsonl"}));
    directory_.define(cmd);
    return cmd;
  }

  int run() override {
    if (directory_.explicitlyGiven()) return runRemote();
    ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
    for (const std::string& lib : libraries_) registry.loadPlugin(lib);
    for (const auto& e : registry.entries()) {
      if (format_ == "jsonl")
        std::printf("%s\n",
                    nlohmann::ordered_json({{"name", e.typeName}, {"description", e.description}})
                        .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                        .c_str());
      else
        std::printf("%-16s %s\n", e.typeName.c_str(), e.description.c_str());
    }
    return 0;
  }

 private:
  int runRemote() {
    // One call to the directory: hosts publish what their modules are with their names.
    DirectoryView view(directory_);
    for (const ZR::ZRDirectoryEntry& e : view.entries()) {
      ZR::ZRModuleInfo info;
      info.kind = "module";
      try {
        info = view.info(e);
      } catch (const ZR::ZRError&) {
        // A host that did not say, gone since the directory answered: a plain module.
      }
      if (format_ == "jsonl")
        std::printf("%s\n", nlohmann::ordered_json({{"name", e.name},
                                                    {"host", e.host},
                                                    {"endpoint", e.endpoint},
                                                    {"kind", info.kind},
                                                    {"methods", info.methods},
                                                    {"events", info.events}})
                                .dump()
                                .c_str());
      else
        std::printf("%-20s %-15s %-16s %s\n", e.name.c_str(), info.kind.c_str(), e.host.c_str(),
                    e.endpoint.c_str());
    }
    return 0;
  }

  std::vector<std::string> libraries_;
  std::string format_ = "table";
  DirectoryOptions directory_;
};

}  // namespace

std::unique_ptr<Command> makeListCommand() {
  return std::make_unique<ListCommand>();
}

}  // namespace zr
