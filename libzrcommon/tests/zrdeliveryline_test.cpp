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

using Line = ZR::detail::ZRDeliveryLine;
using ZR::detail::ZRCompletion;
using ZR::detail::ZRDelivery;
using ZR::detail::ZRDeliveryContext;
using ZR::detail::ZRDeliveryPolicy;
using ZR::detail::ZRDeliveryScope;
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

ZRDelivery call(int i, const std::string& method = "m") {
  return ZRDelivery{method, {ZR::ZRValue(i)}};
}
int numberOf(const ZRDelivery& d) {
  return d.args.at(0).toInt();
}
Line::Call into(std::vector<int>& items) {
  return [&items](ZRDelivery& d) { items.push_back(numberOf(d)); };
}

std::shared_ptr<Line> makeLine(ZRDeliveryPolicy policy, std::size_t capacity,
                               ZR::detail::ZRWarningLimiter::Clock clock = {}) {
  Line::Options o;
  o.policy = policy;
  o.capacity = capacity;
  o.resumeAt = 1;
  o.messageBatch = 3;
  o.localWindow = 2;
  o.category = "test.line";
  o.clock = std::move(clock);
  o.texts.dropped = [](const std::string& s, std::int64_t n, std::int64_t held) {
    return s + " dropped " + std::to_string(n) + " held " + std::to_string(held);
  };
  o.texts.failed = [](const std::string& s, const ZRDelivery& d, const std::string& why,
                      std::int64_t) {
    return s + " failed " + std::to_string(numberOf(d)) + ": " + why;
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

// A remote subscriber whose batches the test answers by hand.
struct Remote {
  std::mutex mutex;
  std::deque<std::pair<std::vector<int>, Line::Done>> sent;
  std::vector<bool> lossless;
  Line::Send send() {
    return [this](std::vector<ZRDelivery>& batch, bool isLossless, Line::Done done) {
      std::vector<int> numbers;
      for (const ZRDelivery& d : batch) numbers.push_back(numberOf(d));
      std::lock_guard<std::mutex> lock(mutex);
      sent.emplace_back(std::move(numbers), std::move(done));
      lossless.push_back(isLossless);
    };
  }
  std::vector<std::vector<int>> batches() {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::vector<int>> out;
    for (auto& s : sent) out.push_back(s.first);
    return out;
  }
  void answer(std::size_t index, const ZR::ZRError* failure = nullptr) {
    Line::Done done;
    {
      std::lock_guard<std::mutex> lock(mutex);
      done = sent.at(index).second;
    }
    done(failure);
  }
};

TEST(ZRDeliveryLine, LosslessBoundsItsQueueAndTheProducerWaitsUntilRoomOrLeave) {
  Manual run;
  std::vector<int> seen;
  auto line = makeLine(ZRDeliveryPolicy::Lossless, 3);
  ASSERT_TRUE(line->add("a", run.post(), into(seen)));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(line->publish(call(i)));
  EXPECT_EQ(line->queued("a"), 3u);

  // Full: the producer waits, and goes on once the queue is down to resumeAt (1).
  auto producer = std::async(std::launch::async, [&] { return line->publish(call(3)); });
  ASSERT_TRUE(line->waitUntilProducerWaits(10s));
  run.runOne();
  run.runOne();
  ASSERT_EQ(producer.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(producer.get());
  run.runAll();
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(countsOf(*line, "a"), (Counts{4, 0, 0, 3}));

  // A subscriber that leaves while the producer waits for it lets the producer go.
  for (int i = 0; i < 3; ++i) line->publish(call(i));
  std::atomic<bool> stop{false};
  auto blocked = std::async(std::launch::async, [&] { return line->publish(call(7), &stop); });
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
  for (int i = 0; i < 3; ++i) line->publish(call(i));
  auto stopped = std::async(std::launch::async, [&] { return line->publish(call(8), &stop); });
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
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(line->publish(call(i)));  // never waits
  now += 1s;
  line->publish(call(6));
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
  line->add("odd", run.post(), [](ZRDelivery& d) {
    if (numberOf(d) % 2) throw ZR::ZRError("odd", "sink", "odd item");
  });
  line->add(
      "gone", run.post(), [](ZRDelivery&) { throw std::runtime_error("no such module"); },
      [&] { return gone; });
  ASSERT_TRUE(line->add("a", run.post(), into(first)));
  line->publish(call(1));
  EXPECT_FALSE(line->add("a", run.post(), into(second)));
  line->publish(call(2));
  run.runAll();
  gone = true;
  line->publish(call(3));
  line->publish(call(4));
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
  line->publish(call(5));
  run.runAll();
  EXPECT_EQ(countsOf(*line, "a")[0], 5);
}

TEST(ZRDeliveryLine, IdleOnlyOnceTheLastCallReturnedAndDiscardWaitsForItsCall) {
  Manual run;
  auto line = makeLine(ZRDeliveryPolicy::Lossless, 8);
  std::vector<bool> idleInside;
  line->add("a", run.post(), [&](ZRDelivery&) { idleInside.push_back(line->isIdle()); });
  line->publish(call(1));
  line->publish(call(2));
  EXPECT_FALSE(line->isIdle());
  run.runAll();
  EXPECT_EQ(idleInside, (std::vector<bool>{false, false}));
  EXPECT_TRUE(line->waitUntilIdle(10s));

  // A call running on another thread: discard(…, true) returns only once it is over. Its match
  // opens the gate when it sees that call running, so a discard that does not wait returns first.
  zrtest::Signal entered, gate;
  std::atomic<bool> over{false};
  line->add("b", run.post(), [&](ZRDelivery& d) {
    if (numberOf(d) != 5) return;
    entered.notify();
    gate.waitFor();
    over = true;
  });
  line->publish(call(5));
  line->publish(call(6));
  std::thread worker([&] { run.runAll(); });
  ASSERT_TRUE(entered.waitFor());
  EXPECT_EQ(line->discard("b", [](const ZRDelivery& d) { return numberOf(d) == 6; }), 1u);
  line->discard(
      "b", [&](const ZRDelivery& d) { return numberOf(d) == 5 && (gate.notify(), true); }, true);
  EXPECT_TRUE(over) << "discard returned while its call still ran";
  gate.notify();  // for a discard that did not wait
  worker.join();
  EXPECT_EQ(countsOf(*line, "b")[0], 1);
}

TEST(ZRDeliveryLine, ARemoteSubscriberGetsBatchesOfOneMethodWithinItsWindowAndWaitersSeeThem) {
  auto line = makeLine(ZRDeliveryPolicy::DropOldest, 16);
  Remote remote;
  ASSERT_TRUE(line->addRemote("r", remote.send(), 2));
  // The first goes at once; what waits behind a full window goes in batches of the same method.
  line->publish(call(1));
  line->publish(call(2));
  for (int i = 3; i <= 7; ++i) line->publish(call(i));
  line->publish(call(8, "other"));
  EXPECT_EQ(remote.batches(), (std::vector<std::vector<int>>{{1}, {2}}));
  EXPECT_FALSE(line->isIdle());
  remote.answer(0);
  EXPECT_EQ(remote.batches().back(), (std::vector<int>{3, 4, 5}));
  const ZR::ZRError failure("r", "m", "it threw there");
  remote.answer(1, &failure);
  remote.answer(2);
  remote.answer(3);
  EXPECT_EQ(remote.batches().back(), (std::vector<int>{8}));
  EXPECT_EQ(countsOf(*line, "r"), (Counts{6, 0, 1, 6}));

  // Waiting for a call counts it until its host answered.
  std::atomic<bool> waited{false};
  std::thread waiter([&] {
    line->awaitCurrent("r", [](const ZRDelivery& d) { return d.method == "other"; });
    waited = true;
  });
  remote.answer(4);  // whenever the waiter looked, the call is over now
  waiter.join();
  EXPECT_TRUE(waited);
  EXPECT_TRUE(line->waitUntilIdle(10s));
  EXPECT_EQ(remote.lossless, (std::vector<bool>(5, false)));
}

TEST(ZRDeliveryLine, WhileAMessageIsUnansweredTheNextWaitsForItsMinimumButNeverForever) {
  Line::Options o;
  o.messageBatch = 3;
  o.messageMinimum = 3;
  auto line = std::make_shared<Line>(std::move(o));
  Remote remote;
  ASSERT_TRUE(line->addRemote("r", remote.send(), 4));
  for (int i = 1; i <= 3; ++i) line->publish(call(i));
  EXPECT_EQ(remote.batches(), (std::vector<std::vector<int>>{{1}}));
  line->publish(call(4));
  line->publish(call(5));
  EXPECT_EQ(remote.batches(), (std::vector<std::vector<int>>{{1}, {2, 3, 4}}));
  // Once nothing is unanswered, what waits goes, however little.
  remote.answer(0);
  EXPECT_EQ(remote.batches().size(), 2u);
  remote.answer(1);
  EXPECT_EQ(remote.batches().back(), (std::vector<int>{5}));
  remote.answer(2);
  EXPECT_TRUE(line->waitUntilIdle(10s));
  EXPECT_EQ(countsOf(*line, "r"), (Counts{5, 0, 0, 3}));
}

TEST(ZRDeliveryLine, ALosslessDeliveryIsHeldUntilWhatItQueuedIsDeliveredAndLosesNothing) {
  Manual run;
  auto events = makeLine(ZRDeliveryPolicy::DropOldest, 2);
  std::vector<int> seen;
  events->add("local", run.post(), into(seen));
  Remote remote;
  events->addRemote("remote", remote.send(), 4);

  std::atomic<bool> over{false};
  {
    auto completion = std::make_shared<ZRCompletion>([&] { over = true; });
    ZRDeliveryScope scope(ZRDeliveryContext{true, std::move(completion)});
    for (int i = 0; i < 5; ++i) events->publish(call(i));  // beyond capacity: nothing dropped
  }
  EXPECT_FALSE(over) << "over before its calls were delivered";
  run.runAll();
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_FALSE(over) << "over before the other host answered";
  for (std::size_t i = 0; i < remote.batches().size(); ++i) remote.answer(i);
  EXPECT_TRUE(over);
  EXPECT_EQ(remote.lossless.front(), true);
  EXPECT_EQ(countsOf(*events, "local"), (Counts{5, 0, 0, 5}));

  // A lossless call on a local subscriber holds its window until what it queued is over: the
  // drain parks at the window (2) and goes on when one ends.
  auto buffers = makeLine(ZRDeliveryPolicy::Lossless, 8);
  std::vector<std::shared_ptr<ZRCompletion>> children;
  buffers->add("x", run.post(), [&](ZRDelivery&) {
    children.push_back(ZR::detail::ZRDeliveryContext::current()->completion);
  });
  {
    ZRDeliveryScope scope(ZRDeliveryContext{true, nullptr});
    for (int i = 0; i < 4; ++i) buffers->publish(call(i));
  }
  run.runAll();
  EXPECT_EQ(children.size(), 2u);
  children.front().reset();
  run.runAll();
  EXPECT_EQ(children.size(), 3u);
  children.clear();
  run.runAll();
  children.clear();  // the last one's
  EXPECT_TRUE(buffers->waitUntilIdle(10s));
  EXPECT_EQ(countsOf(*buffers, "x")[0], 4);
}

}  // namespace
