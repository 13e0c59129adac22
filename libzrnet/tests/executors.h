#pragma once

// Executors for a transport under test: tasks on an Asio pool, ordered ones on its strands.

#include <functional>
#include <memory>

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>

#include <zrnet/zrtransport.h>

namespace zrtest {

/// `wrap` runs around every task (e.g. to mark the thread as the executor's).
inline ZR::ZRTransportExecutors poolExecutors(
    boost::asio::thread_pool& pool,
    std::function<void(const std::function<void()>&)> wrap = nullptr) {
  auto run = [wrap](std::function<void()> task) {
    return [wrap, task = std::move(task)] { wrap ? wrap(task) : task(); };
  };
  ZR::ZRTransportExecutors e;
  e.post = [&pool, run](std::function<void()> task) {
    boost::asio::post(pool, run(std::move(task)));
  };
  e.makeSerial = [&pool, run]() -> ZR::ZRTransportExecutors::Executor {
    auto strand = std::make_shared<boost::asio::strand<boost::asio::thread_pool::executor_type>>(
        boost::asio::make_strand(pool));
    return [strand, run](std::function<void()> task) {
      boost::asio::post(*strand, run(std::move(task)));
    };
  };
  return e;
}

/// Executors that run nothing: for a transport that only calls out.
inline ZR::ZRTransportExecutors noExecutors() {
  ZR::ZRTransportExecutors e;
  e.post = [](std::function<void()>) {};
  e.makeSerial = [] { return ZR::ZRTransportExecutors::Executor([](std::function<void()>) {}); };
  return e;
}

}  // namespace zrtest
