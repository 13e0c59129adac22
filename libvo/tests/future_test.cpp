#include <vo/future.h>

#include <gtest/gtest.h>
#include <zrtest.h>
#include <stdexcept>
#include <string>
#include <thread>

using ZR::ZRError;

namespace {

TEST(Future, ValueErrorTheFirstResultStaysAndContinuationsRunInTheThreadThatFinishes) {
  vo::Promise<int> p;
  const vo::Future<int> f = p.future();
  EXPECT_EQ(f.wait(1), vo::FutureState::Running);  // a timed wait ends with the state it found
  int seen = 0;
  std::thread::id calledOn;
  f.connect([&](const vo::Future<int>& done) {
    calledOn = std::this_thread::get_id();
    seen = done.value();
  });
  EXPECT_EQ(seen, 0);
  std::thread setter([p]() mutable { EXPECT_TRUE(p.setValue(5)); });
  const std::thread::id setterId = setter.get_id();
  setter.join();
  EXPECT_TRUE(seen == 5 && calledOn == setterId);
  EXPECT_FALSE(p.setValue(6) || p.setError("late"));
  EXPECT_EQ(f.value(), 5);
  EXPECT_EQ(f.error(), "");
  bool immediate = false;  // already finished: called at once, here
  f.connect([&](const vo::Future<int>& done) { immediate = done.hasValue(); });
  EXPECT_TRUE(immediate);

  vo::Promise<std::string> failing;
  std::string error;
  failing.future().connect([&](const vo::Future<std::string>& done) { error = done.error(); });
  failing.setError("disk full");
  EXPECT_NE(error.find("disk full"), std::string::npos);
  EXPECT_THROW(failing.future().value(), ZRError);
  vo::Promise<int> foreign;  // a foreign exception keeps its own type
  foreign.setException(std::make_exception_ptr(std::runtime_error("boom")));
  EXPECT_THROW(foreign.future().value(), std::runtime_error);
  EXPECT_EQ(vo::Future<int>(7).value(), 7);
  EXPECT_EQ(vo::Future<int>().state(), vo::FutureState::None);
  EXPECT_THROW(vo::Future<int>().wait(), ZRError);
  EXPECT_TRUE(vo::makeReadyFuture().hasValue());
  vo::Promise<void> noDevice;
  noDevice.setError("no device");
  EXPECT_THROW(noDevice.future().value(), ZRError);
}

TEST(FutureSync, DestructorWaitsAndRethrowsUnlessTheResultWasTaken) {
  vo::Promise<int> p;  // dropping it blocks until the other thread has set the value
  zrtest::Signal dropping;
  bool set = false;
  std::thread setter([&, p]() mutable {
    dropping.waitFor();
    set = true;
    p.setValue(1);
  });
  EXPECT_NO_THROW({
    vo::FutureSync<int> sync(p.future());
    dropping.notify();
  });
  EXPECT_TRUE(set);
  setter.join();
  // The original error, type and fields intact, comes out of the destructor.
  vo::Promise<int> failed;
  std::thread failer([failed]() mutable {
    failed.setException(
        std::make_exception_ptr(ZRError("Device", "read", "timeout", "dev.cpp", 7)));
  });
  EXPECT_STREQ(zrtest::errorOf([&] { vo::FutureSync<int> sync(failed.future()); }).what(),
               "Device::read: timeout (dev.cpp:7)");
  failer.join();
  vo::Promise<void> moved;  // moving hands the duty over
  moved.setError("moved");
  EXPECT_THROW(
      {
        vo::FutureSync<void> source(moved.future());
        vo::FutureSync<void> target(std::move(source));
      },
      ZRError);
  vo::Promise<int> taken;  // a result taken is not thrown again
  taken.setError("already reported");
  EXPECT_NO_THROW({
    vo::FutureSync<int> sync(taken.future());
    EXPECT_THROW(sync.value(), ZRError);
  });
  EXPECT_NO_THROW({
    vo::FutureSync<int> sync(taken.future());
    EXPECT_TRUE(sync.hasError());
  });
  vo::Promise<int> running;  // handed over to a plain future: neither throws nor waits
  vo::Future<int> kept;
  { kept = vo::FutureSync<int>(running.future()).async(); }
  EXPECT_TRUE(kept.isRunning());
}

}  // namespace
