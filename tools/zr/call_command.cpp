// zr call MODULE METHOD [ARG]...: one remote method of a running module, by hand.

#include <cstdio>

#include <nlohmann/json.hpp>

#include "command.h"
#include "remote.h"

namespace zr {
namespace {

class CallCommand : public Command {
 public:
  CLI::App* define(CLI::App& app) override {
    CLI::App* cmd = app.add_subcommand(
        "call",
        "Call a method of a running module: zr call MODULE METHOD [ARG]... An ARG that is JSON is "
        "that value (an integer an int, another number a float, true/false, null, an array), "
        "anything else a string. The result prints as JSON.");
    cmd->add_option("MODULE", module_, "Name of the module.")->required();
    cmd->add_option("METHOD", method_, "Name of the method.")->required();
    // The ARGs are taken as they come (CLI11 would split "[1,2]" at its commas and take "-5"
    // for an option): whatever is no option of zr call. Those after "--", options or not, reach
    // the tool's own command line (main lets them through for zr call only).
    cmd->allow_extras();
    cmd_ = cmd;
    root_ = &app;
    cmd->add_option("-f,--format", format_, "Error format on stderr.")
        ->check(CLI::IsMember({"text", "jsonl"}));
    directory_.define(cmd);
    return cmd;
  }

  int run() override {
    DirectoryView view(directory_);
    std::vector<ZR::ZRValue> args;
    for (const CLI::App* from : {cmd_, root_})
      for (const std::string& a : from->remaining()) args.push_back(parseArgument(a));
    try {
      // The overloads decide int/float conversions and whether there is a result to print.
      std::vector<MethodInfo> overloads;
      try {
        overloads = parseMethodHelp(view.call(module_, "getMethodHelp", {method_}).toStringRef());
      } catch (const ZR::ZRError&) {
        // No such module or method: the call itself says so, under its own name.
      }
      fitArguments(overloads, args);
      const ZR::ZRValue result = view.call(module_, method_, args);
      bool isVoid = !overloads.empty();
      for (const MethodInfo& o : overloads)
        if (o.parameters.size() == args.size() && o.returnType != "void") isVoid = false;
      if (!isVoid || result.isValid()) std::printf("%s\n", toJson(result).c_str());
      return 0;
    } catch (const ZR::ZRError& e) {
      if (format_ == "jsonl")
        std::fprintf(stderr, "%s\n",
                     nlohmann::ordered_json({{"module", e.getModuleName()},
                                             {"method", e.getMethodName()},
                                             {"description", e.getDescription()}})
                         .dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
                         .c_str());
      else
        std::fprintf(stderr, "%s::%s: %s\n", e.getModuleName().c_str(), e.getMethodName().c_str(),
                     e.getDescription().c_str());
      return kExitError;
    }
  }

 private:
  std::string module_, method_, format_ = "text";
  CLI::App *cmd_ = nullptr, *root_ = nullptr;
  DirectoryOptions directory_;
};

}  // namespace

std::unique_ptr<Command> makeCallCommand() {
  return std::make_unique<CallCommand>();
}

}  // namespace zr
