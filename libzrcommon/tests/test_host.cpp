// A small host for the multi-process tests: a broker in a network with a few modules.
//   zrcommon_test_host NAME --directory ADDR [--serve] [--heartbeat MS] [--module MODULE]...
// Prints "ready ENDPOINT" once its modules are published, "holding MODULE" when a call to
// "hold" has begun; shuts down and exits 0 when its standard input closes.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <future>
#include <iostream>
#include <string>
#include <vector>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>

namespace {

std::promise<void> stopping;
std::shared_future<void> stopped = stopping.get_future().share();

class Worker : public ZR::ZRModule {
 public:
  Worker(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("add", "Worker", "Adds two numbers.", 0);
    addParam("a", "First term.");
    addParam("b", "Second term.");
    bindMethod(&Worker::add);
    functionName("hold", "Worker", "Returns when the host stops.", 0);
    bindMethod(&Worker::hold);
  }
  int add(const int& a, const int& b) { return a + b; }
  bool hold() {
    std::cout << "holding " << getName() << std::endl;
    stopped.wait();
    return true;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: " << argv[0]
              << " NAME --directory ADDR [--serve] [--heartbeat MS] [--module MODULE]..."
              << std::endl;
    return 2;
  }
  ZR::ZRBrokerOptions options;
  std::vector<std::string> modules;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--serve") {
      options.serveDirectory = true;
    } else if (arg == "--heartbeat" && i + 1 < argc) {
      options.heartbeat = std::chrono::milliseconds(std::stoi(argv[++i]));
    } else if ((arg == "--directory" || arg == "--module") && i + 1 < argc) {
      (arg == "--directory" ? options.directory : (modules.emplace_back(), modules.back())) =
          argv[++i];
    } else {
      std::cerr << argv[0] << ": unknown argument " << arg << std::endl;
      return 2;
    }
  }
  try {
    auto broker = ZR::ZRBroker::createBroker(argv[1], options);
    std::vector<boost::shared_ptr<Worker>> workers;
    for (const auto& m : modules) workers.push_back(ZR::ZRModule::createModule<Worker>(broker, m));
    std::cout << "ready " << broker->endpoint() << std::endl;
    char buffer[256];
    while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
    stopping.set_value();
    workers.clear();
    broker->shutdown();
  } catch (const std::exception& e) {
    std::cerr << argv[0] << ": " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
