// A host for multi-process tests: serves "echo" (returns its argument) and "block" (never
// returns) on module "M", prints its endpoint on a line, and runs until its standard input
// closes or it is killed.

#include <cstdio>
#include <future>
#include <iostream>
#include <string>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include <zrnet/zrtransport.h>

int main() {
  boost::asio::thread_pool pool(2);
  std::promise<void> never;
  std::shared_future<void> blocked = never.get_future().share();
  ZR::ZRTransportOptions options;
  options.hostName = "testhost";
  ZR::ZRTransport transport(
      options,
      [blocked](const ZR::ZRIncomingCall& c) -> ZR::ZRValue {
        if (c.method == "block") blocked.wait();
        if (c.method == "echo" && c.args.size() == 1) return c.args[0];
        throw ZR::ZRError(c.module, c.method, "unknown method");
      },
      [&pool](std::function<void()> task) { boost::asio::post(pool, std::move(task)); });
  std::cout << transport.endpoint() << std::endl;
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  std::_Exit(0);  // "block" calls never end: no orderly shutdown to wait for
}
