// zr describe NAME: a module's remote methods with their documentation.

#include <cstdio>

#include <vo/log.h>
#include <zraudiodevice/zraudiodevice.h>
#include <zrcommon/zrbroker.h>
#include <zrcommon/zrservicenames.h>
#include <zrextractors/zrextractorregistry.h>
#include <zrmemory/zrmemory.h>
#include <nlohmann/json.hpp>

#include "command.h"
#include "remote.h"

namespace zr {
namespace {

class DescribeCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd =
        app.add_subcommand("describe", "Print a module's remote methods with their documentation.");
    cmd->add_option("NAME", name_,
                    "SoundLevel, VoiceActivity, ZRMemory, ZRAudioDevice or a plugin's extractor.")
        ->required();
    cmd->add_option("--load", libraries_, "Load extractor types from a plugin library.");
    cmd->add_option("-f,--format", format_, "Output format (with a directory).")
        ->check(CLI::IsMember({"text", "jsonl"}));
    directory_.define(cmd);
    return cmd;
  }

  int run() override {
    if (directory_.explicitlyGiven()) return runRemote();
    vo::log::setLogLevel(vo::LogLevel_Error);
    ZR::ZRExtractorRegistry registry = ZR::ZRExtractorRegistry::withStockExtractors();
    for (const std::string& lib : libraries_) registry.loadPlugin(lib);
    auto broker = ZR::ZRBroker::createBroker("zr");
    ZR::ZRModule::createModule<ZR::ZRMemory>(broker, ZR::kMemoryServiceName);
    ZR::ZRModule::createModule<ZR::ZRAudioDevice>(broker, ZR::kAudioDeviceServiceName);
    // The services are there already; anything else is an extractor type.
    if (name_ != ZR::kMemoryServiceName && name_ != ZR::kAudioDeviceServiceName)
      registry.create(name_, broker, name_);
    auto core = boost::dynamic_pointer_cast<ZR::ZRModuleCore>(broker->session()->service(name_));
    const std::vector<ZR::ZRMethodDescription> methods = core->getMethodDescriptions();
    const std::string description = core->getModuleDescription();
    core.reset();
    std::printf("%s%s%s\n\n", name_.c_str(), description.empty() ? "" : ": ", description.c_str());
    for (const ZR::ZRMethodDescription& m : methods) {
      std::printf("%s    [%s]\n", m.signature.c_str(), m.moduleName.c_str());
      if (!m.description.empty()) std::printf("    %s\n", m.description.c_str());
      for (const auto& p : m.parameters)
        std::printf("    - %s: %s\n", p.name.c_str(), p.documentation.c_str());
      if (!m.returnName.empty())
        std::printf("    returns %s: %s\n", m.returnName.c_str(), m.returnDocumentation.c_str());
      std::printf("\n");
    }
    broker->shutdown();
    return 0;
  }

 private:
  // The running module, asked over the wire: its method list, then each method's help page.
  int runRemote() {
    DirectoryView view(directory_);
    const ZR::ZRValue names = view.call(name_, "getMethodList");
    if (format_ == "text") std::printf("%s\n\n", name_.c_str());
    for (const ZR::ZRValue& method : names.arrayElements()) {
      const std::string help = view.call(name_, "getMethodHelp", {method}).toStringRef();
      if (format_ == "text") {
        std::printf("%s\n", help.c_str());
        continue;
      }
      for (const MethodInfo& m : parseMethodHelp(help)) {
        nlohmann::ordered_json params = nlohmann::ordered_json::array();
        for (const auto& p : m.parameters)
          params.push_back(
              {{"name", p.name}, {"type", p.type}, {"documentation", p.documentation}});
        const nlohmann::ordered_json o = {{"module", name_},
                                          {"method", m.name},
                                          {"signature", m.signature},
                                          {"description", m.description},
                                          {"parameters", params},
                                          {"returnType", m.returnType},
                                          {"returnName", m.returnName},
                                          {"returnDocumentation", m.returnDocumentation}};
        std::printf("%s\n",
                    o.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
      }
    }
    return 0;
  }

  std::string name_, format_ = "text";
  DirectoryOptions directory_;
  std::vector<std::string> libraries_;
};

}  // namespace

std::unique_ptr<Command> makeDescribeCommand() {
  return std::make_unique<DescribeCommand>();
}

}  // namespace zr
