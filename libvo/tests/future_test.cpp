#include <vo/future.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using ZR::ZRError;

namespace {

// Runs `f` on another thread after `delay`; joins on destruction.
struct Later {
  template <class F>
  Later(std::chrono::milliseconds delay, F f)
      : thread([delay, f]() mutable {
          std::this_thread::sleep_for(delay);
          f();
        }) {}
  ~Later() { thread.join(); }
  std::thread thread;
};

TEST(Future, ValueAndError) {
  vo::Promise<int> p;
  const vo::Future<int> f = p.future();
  EXPECT_TRUE(f.isRunning());
  EXPECT_TRUE(p.setValue(5));
  EXPECT_FALSE(p.setValue(6));  // the first result stays
  EXPECT_FALSE(p.setError("late"));
  EXPECT_TRUE(p.future().hasValue());
  EXPECT_EQ(f.value(), 5);
  EXPECT_EQ(f.error(), "");

  vo::Promise<std::string> failing;
  failing.setError("disk full");
  EXPECT_TRUE(failing.future().hasError());
  EXPECT_NE(failing.future().error().find("disk full"), std::string::npos);
  EXPECT_THROW(failing.future().value(), ZRError);
  vo::Promise<int> foreign;  // a foreign exception keeps its own type
  foreign.setException(std::make_exception_ptr(std::runtime_error("boom")));
  EXPECT_THROW(foreign.future().value(), std::runtime_error);

  EXPECT_EQ(vo::Future<int>(7).value(), 7);
  EXPECT_EQ(vo::Future<int>().state(), vo::FutureState::None);
  EXPECT_THROW(vo::Future<int>().wait(), ZRError);
}

TEST(Future, VoidSpecialisation) {
  vo::Promise<void> p;
  EXPECT_TRUE(p.setValue());
  EXPECT_NO_THROW(p.future().value());
  EXPECT_TRUE(vo::makeReadyFuture().hasValue());
  vo::Promise<void> failing;
  failing.setError("no device");
  EXPECT_THROW(failing.future().value(), ZRError);
}

TEST(Future, WaitWithTimeout) {
  vo::Promise<int> p;
  const vo::Future<int> f = p.future();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(f.wait(30), vo::FutureState::Running);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 25ms);
  Later setter(20ms, [p]() mutable { p.setValue(3); });
  EXPECT_EQ(f.wait(10000), vo::FutureState::FinishedWithValue);
}

TEST(Future, ConnectBeforeAndAfterCompletion) {
  vo::Promise<int> p;
  std::atomic<int> seen{0};
  std::thread::id calledOn, setterId;
  p.future().connect([&](const vo::Future<int>& done) {
    calledOn = std::this_thread::get_id();
    seen = done.value();
  });
  EXPECT_EQ(seen, 0);
  {
    Later setter(10ms, [p]() mutable { p.setValue(11); });
    setterId = setter.thread.get_id();
  }
  EXPECT_EQ(seen, 11);
  EXPECT_EQ(calledOn, setterId);  // in the thread that finished the future

  bool immediate = false;
  p.future().connect([&](const vo::Future<int>& done) { immediate = done.hasValue(); });
  EXPECT_TRUE(immediate);  // already finished: called at once

  vo::Promise<void> failing;
  std::string error;
  failing.future().connect([&](const vo::Future<void>& done) { error = done.error(); });
  failing.setError("gone");
  EXPECT_NE(error.find("gone"), std::string::npos);
}

TEST(FutureSync, DestructorWaitsAndRethrows) {
  {  // dropping it blocks until the other thread has set the value
    vo::Promise<int> p;
    std::atomic<bool> set{false};
    Later setter(50ms, [p, &set]() mutable {
      set = true;
      p.setValue(1);
    });
    EXPECT_NO_THROW({ vo::FutureSync<int> sync(p.future()); });
    EXPECT_TRUE(set);
  }
  {  // the original error, type and fields intact, comes out of the destructor
    vo::Promise<int> p;
    Later setter(50ms, [p]() mutable {
      p.setException(std::make_exception_ptr(ZRError("Device", "read", "timeout", "dev.cpp", 7)));
    });
    bool caught = false;
    try {
      vo::FutureSync<int> sync(p.future());
    } catch (const ZRError& e) {
      caught = true;
      EXPECT_EQ(e.getModuleName(), "Device");
      EXPECT_STREQ(e.what(), "Device::read: timeout (dev.cpp:7)");
    }
    EXPECT_TRUE(caught);
  }
  // Moving hands the duty over.
  vo::Promise<void> p;
  p.setError("moved");
  EXPECT_THROW(
      {
        vo::FutureSync<void> source(p.future());
        vo::FutureSync<void> target(std::move(source));
      },
      ZRError);
}

TEST(FutureSync, TakenResultDoesNotThrowOnDestruction) {
  vo::Promise<int> p;
  p.setError("already reported");
  EXPECT_NO_THROW({
    vo::FutureSync<int> sync(p.future());
    EXPECT_THROW(sync.value(), ZRError);
  });
  EXPECT_NO_THROW({
    vo::FutureSync<int> sync(p.future());
    EXPECT_TRUE(sync.hasError());
  });
  // Handed over to a plain future: the destructor neither throws nor waits.
  vo::Promise<int> running;
  vo::Future<int> kept;
  { kept = vo::FutureSync<int>(running.future()).async(); }
  EXPECT_TRUE(kept.isRunning());
}

}  // namespace
