// zr list: the extractor types zr can run, stock and from plugins.

#include <cstdio>

#include <zrextractors/zrextractorregistry.h>

#include "command.h"

namespace zr {
namespace {

class ListCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand("list", "List the extractors zr can run.");
    cmd->add_option("--load", libraries_, "Load extractor types from a plugin library.");
    return cmd;
  }

  int run() override {
    ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
    for (const std::string& lib : libraries_) registry.loadPlugin(lib);
    for (const auto& e : registry.entries())
      std::printf("%-16s %s\n", e.typeName.c_str(), e.description.c_str());
    return 0;
  }

 private:
  std::vector<std::string> libraries_;
};

}  // namespace

std::unique_ptr<Command> makeListCommand() {
  return std::make_unique<ListCommand>();
}

}  // namespace zr
