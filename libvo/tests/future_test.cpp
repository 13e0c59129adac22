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
class Later {
 public:
  template <class F>
  Later(std::chrono::milliseconds delay, F f) : thread_([delay, f]() mutable {
      std::this_thread::sleep_for(delay);
      f();
    }) {}
  ~Later() { thread_.join(); }
  std::thread::id id() const { return thread_.get_id(); }

 private:
  std::thread thread_;
};

TEST(Future, ValueAndError) {
  vo::Promise<int> p;
  const vo::Future<int> f = p.future();
  const vo::Future<int> copy = f;
  EXPECT_TRUE(f.isRunning());
  EXPECT_FALSE(f.isFinished());
  EXPECT_TRUE(p.setValue(5));
  EXPECT_FALSE(p.setValue(6));  // the first result stays
  EXPECT_FALSE(p.setError("late"));
  EXPECT_TRUE(copy.hasValue());
  EXPECT_EQ(copy.value(), 5);
  EXPECT_EQ(f.error(), "");
  EXPECT_EQ(f.exception(), nullptr);

  vo::Promise<std::string> failing;
  const vo::Future<std::string> ff = failing.future();
  EXPECT_TRUE(failing.setError("disk full"));
  EXPECT_TRUE(ff.hasError());
  EXPECT_NE(ff.error().find("disk full"), std::string::npos);
  EXPECT_THROW(ff.value(), ZRError);

  // A foreign exception keeps its own type.
  vo::Promise<int> foreign;
  foreign.setException(std::make_exception_ptr(std::runtime_error("boom")));
  EXPECT_THROW(foreign.future().value(), std::runtime_error);
  EXPECT_EQ(foreign.future().error(), "boom");

  EXPECT_EQ(vo::Future<int>(7).value(), 7);
  const vo::Future<int> none;
  EXPECT_FALSE(none.isValid());
  EXPECT_EQ(none.state(), vo::FutureState::None);
  EXPECT_THROW(none.wait(), ZRError);
}

TEST(Future, VoidSpecialisation) {
  vo::Promise<void> p;
  const vo::Future<void> f = p.future();
  EXPECT_TRUE(f.isRunning());
  EXPECT_TRUE(p.setValue());
  EXPECT_NO_THROW(f.value());
  EXPECT_TRUE(f.hasValue());
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
  EXPECT_EQ(f.value(), 3);
}

TEST(Future, ConnectBeforeAndAfterCompletion) {
  vo::Promise<int> p;
  const vo::Future<int> f = p.future();
  std::atomic<int> seen{0};
  std::thread::id calledOn;
  f.connect([&](const vo::Future<int>& done) {
    calledOn = std::this_thread::get_id();
    seen = done.value();
  });
  EXPECT_EQ(seen, 0);
  std::thread::id setterId;
  {
    Later setter(10ms, [p]() mutable { p.setValue(11); });
    setterId = setter.id();
  }
  EXPECT_EQ(seen, 11);
  EXPECT_EQ(calledOn, setterId);  // runs in the thread that finished the future

  bool immediate = false;
  f.connect([&](const vo::Future<int>& done) { immediate = done.hasValue(); });
  EXPECT_TRUE(immediate);  // already finished: called at once, here

  vo::Promise<void> failing;
  std::string error;
  failing.future().connect([&](const vo::Future<void>& done) { error = done.error(); });
  failing.setError("gone");
  EXPECT_NE(error.find("gone"), std::string::npos);
}

TEST(FutureSync, DestructorWaitsAndRethrows) {
  // Success: dropping the FutureSync blocks until the other thread has set the value.
  {
    vo::Promise<int> p;
    std::atomic<bool> set{false};
    Later setter(50ms, [p, &set]() mutable {
      set = true;
      p.setValue(1);
    });
    EXPECT_NO_THROW({ vo::FutureSync<int> sync(p.future()); });
    EXPECT_TRUE(set);
  }
  // Failure: the original error, type and fields intact, comes out of the destructor.
  {
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
      EXPECT_EQ(e.getMethodName(), "read");
      EXPECT_STREQ(e.what(), "Device::read: timeout (dev.cpp:7)");
    }
    EXPECT_TRUE(caught);
  }
  // Moving hands the duty over: only the destination waits and throws.
  {
    vo::Promise<void> p;
    p.setError("moved");
    bool caught = false;
    try {
      vo::FutureSync<void> source(p.future());
      vo::FutureSync<void> target(std::move(source));
    } catch (const ZRError& e) {
      caught = true;
      EXPECT_NE(std::string(e.what()).find("moved"), std::string::npos);
    }
    EXPECT_TRUE(caught);
  }
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
  EXPECT_NO_THROW({
    vo::FutureSync<int> sync(p.future());
    EXPECT_NE(sync.error().find("already reported"), std::string::npos);
  });

  // Handed over to a plain future: the destructor neither throws nor waits.
  vo::Promise<int> running;
  vo::Future<int> kept;
  {
    vo::FutureSync<int> sync(running.future());
    kept = sync.async();
  }
  EXPECT_TRUE(kept.isRunning());
  running.setValue(2);
  EXPECT_EQ(kept.value(), 2);
}

}  // namespace
