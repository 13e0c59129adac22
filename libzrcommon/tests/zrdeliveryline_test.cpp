#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include <zrcommon/detail/zrdeliveryline.h>
#include <zrtest.h>

namespace {

using Line = ZR::detail::ZRDeliveryLine<int>;
using ZR::detail::ZRDeliveryPolicy;
using namespace std::chrono_literals;

// An executor the test runs by hand, so that what is queued and what runs is never a race.
struct Manual {
  std::mutex mutex;
  std::deque<std::function<void()>> tasks;
  Line::Post post() {
    return [this](std::function<void()> w) {
      std::lock_guard<std::mutex> lock(mutex);
      tasks.push_back(std::move(w));
    };
  }
  bool runOne() {
    std::unique_lock<std::mutex> lock(mutex);
    if (tasks.empty()) return false;
    std::function<void()> work = std::move(tasks.front());
    tasks.pop_front();
    lock.unlock();
    work();
    return true;
  }
  void runAll() {
    while (runOne()) continue;
  }
};

Line::Sink into(std::vector<int>& items) {
  return [&items](int& i) { items.push_back(i); };
}

std::shared_ptr<Line> makeLine(ZRDeliveryPolicy policy, std::size_t capacity,
                               ZR::detail::ZRWarningLimiter::Clock clock = {}) {
  Line::Options o;
  o.policy = policy;
  o.capacity = capacity;
  o.resumeAt = 1;
  o.category = "test.line";
  o.clock = std::move(clock);
  o.texts.dropped = [](const std::string& s, std::int64_t n, std::int64_t held) {
    return s + " dropped " + std::to_string(n) + " held " + std::to_string(held);
  };
  o.texts.failed = [](const std::string& s, const int& i, const std::string& why, std::int64_t) {
    return s + " failed " + std::to_string(i) + ": " + why;
  };
  o.texts.gone = [](const std::string& s) { return s + " gone"; };
  return std::make_shared<Line>(std::move(o));
}

// delivered, dropped, failed, mostQueued
using Counts = std::vector<std::int64_t>;
Counts countsOf(Line& line, const std::string& name) {
  ZR::detail::ZRDeliveryCounts c;
  EXPECT_TRUE(line.counts(name, c)) << name;
  return {c.delivered, c.dropped, c.failed, c.mostQueued};
}

TEST(ZRDeliveryLine, LosslessBoundsItsQueueAndTheProducerWaitsUntilRoomOrLeave) {
  Manual run;
  std::vector<int> seen;
  auto line = makeLine(ZRDeliveryPolicy::Lossless, 3);
  ASSERT_TRUE(line->add("a", run.post(), into(seen)));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(line->tryPublish(i));
  EXPECT_FALSE(line->tryPublish(99)) << "a full queue takes nothing more and drops nothing";
  EXPECT_EQ(line->queued("a"), 3u);

  // Full: the producer waits, and goes on once the queue is down to resumeAt (1).
  auto producer = std::async(std::launch::async, [&] { return line->publish(3); });
  ASSERT_TRUE(line->waitUntilProducerWaits(10s));
  run.runOne();
  run.runOne();
  ASSERT_EQ(producer.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(producer.get());
  run.runAll();
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(countsOf(*line, "a"), (Counts{4, 0, 0, 3}));

  // A subscriber that leaves while the producer waits for it lets the producer go.
  for (int i = 0; i < 3; ++i) line->tryPublish(i);
  std::atomic<bool> stop{false};
  auto blocked = std::async(std::launch::async, [&] { return line->publish(7, &stop); });
  ASSERT_TRUE(line->waitUntilProducerWaits(10s));
  line->remove("a");
  if (blocked.wait_for(10s) != std::future_status::ready) {
    stop = true;  // lets the test end
    line->wake();
    FAIL() << "the producer still waits for a subscriber that left";
  }
  EXPECT_FALSE(blocked.get()) << "nobody left to deliver to";

  // So does a stop flag with wake().
  ASSERT_TRUE(line->add("b", run.post(), into(seen)));
  for (int i = 0; i < 3; ++i) line->tryPublish(i);
  auto stopped = std::async(std::launch::async, [&] { return line->publish(8, &stop); });
  ASSERT_TRUE(line->waitUntilProducerWaits(10s));
  stop = true;
  line->wake();
  ASSERT_EQ(stopped.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(stopped.get());
  EXPECT_EQ(line->queued("b"), 3u);
}

TEST(ZRDeliveryLine, DropOldestCountsAndWarnsAtMostOnceAnInterval) {
  zrtest::LogCapture log("test.line", vo::LogLevel_Warning);
  auto now = std::chrono::steady_clock::time_point();
  Manual run;
  std::vector<int> seen;
  auto line = makeLine(ZRDeliveryPolicy::DropOldest, 2, [&] { return now; });
  line->add("a", run.post(), into(seen));
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(line->publish(i));  // never waits
  now += 1s;
  line->publish(6);
  run.runAll();
  EXPECT_EQ(seen, (std::vector<int>{5, 6}));
  EXPECT_EQ(countsOf(*line, "a"), (Counts{2, 5, 0, 2}));
  EXPECT_EQ(log.takeLines(), (zrtest::Lines{{3, "publish", "a dropped 1 held 0"},
                                            {3, "publish", "a dropped 5 held 3"}}));
}

TEST(ZRDeliveryLine, FailuresAreNotDeliveriesAGoneSubscriberLeavesASecondAddKeepsTheFirst) {
  zrtest::LogCapture log("test.line", vo::LogLevel_Warning);
  Manual run;
  auto line = makeLine(ZRDeliveryPolicy::Lossless, 8);
  bool gone = false;
  std::vector<int> first, second;
  line->add("odd", run.post(), [](int& i) {
    if (i % 2) throw ZR::ZRError("odd", "sink", "odd item");
  });
  line->add(
      "gone", run.post(), [](int&) { throw std::runtime_error("no such module"); },
      [&] { return gone; });
  ASSERT_TRUE(line->add("a", run.post(), into(first)));
  line->publish(1);
  EXPECT_FALSE(line->add("a", run.post(), into(second)));
  line->publish(2);
  run.runAll();
  gone = true;
  line->publish(3);
  line->publish(4);
  run.runAll();
  EXPECT_EQ(first, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_TRUE(second.empty());
  EXPECT_EQ(countsOf(*line, "odd"), (Counts{2, 0, 2, 2}));
  EXPECT_EQ(countsOf(*line, "gone"), (Counts{0, 0, 3, 2}));  // the fourth never ran: it left
  EXPECT_EQ(line->subscribers(), (std::vector<std::string>{"a", "odd"}));
  // Failure warnings are rate-limited per subscriber; leaving is always told.
  EXPECT_EQ(log.takeLines(), (zrtest::Lines{{3, "deliver", "gone failed 1: no such module"},
                                            {3, "deliver", "odd failed 1: odd::sink: odd item"},
                                            {3, "deliver", "gone gone"}}));
  // Counts outlive a leave.
  line->remove("a");
  line->add("a", run.post(), into(second));
  line->publish(5);
  run.runAll();
  EXPECT_EQ(countsOf(*line, "a")[0], 5);
}

TEST(ZRDeliveryLine, IdleOnlyOnceTheLastSinkReturnedAndDiscardWaitsForItsItem) {
  Manual run;
  auto line = makeLine(ZRDeliveryPolicy::Lossless, 8);
  std::vector<bool> idleInside;
  line->add("a", run.post(), [&](int&) { idleInside.push_back(line->isIdle()); });
  line->publish(1);
  line->publish(2);
  EXPECT_FALSE(line->isIdle());
  run.runAll();
  EXPECT_EQ(idleInside, (std::vector<bool>{false, false}));
  EXPECT_TRUE(line->waitUntilIdle(10s));

  // An item running on another thread: discard(…, true) returns only once it is over. Its match
  // opens the gate when it sees that item running, so a discard that does not wait returns first.
  zrtest::Signal entered, gate;
  std::atomic<bool> over{false};
  line->add("b", run.post(), [&](int& i) {
    if (i != 5) return;
    entered.notify();
    gate.waitFor();
    over = true;
  });
  line->publish(5);
  line->publish(6);
  std::thread worker([&] { run.runAll(); });
  ASSERT_TRUE(entered.waitFor());
  EXPECT_EQ(line->discard("b", [](const int& i) { return i == 6; }), 1u);
  line->discard(
      "b", [&](const int& i) { return i == 5 && (gate.notify(), true); }, true);
  EXPECT_TRUE(over) << "discard returned while its item still ran";
  gate.notify();  // for a discard that did not wait
  worker.join();
  EXPECT_EQ(countsOf(*line, "b")[0], 1);
}

}  // namespace
