#include "telvo/thread_executor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/captured_log.h"

namespace telvo {
namespace {

using namespace std::chrono_literals;


TEST(ThreadExecutor, ConcurrentPostersKeepTheirOrderAndLoseNothing) {
  ThreadExecutor executor;
  constexpr int kProducers = 4;
  constexpr int kPerProducer = 20000;
  // Touched only on the worker: the queue's serial order is the only guard.
  std::vector<std::vector<int>> seen(kProducers);
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) executor.post([&seen, p, i] { seen[p].push_back(i); });
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(drain(executor, 5));
  for (int p = 0; p < kProducers; ++p) {
    ASSERT_EQ(seen[p].size(), static_cast<std::size_t>(kPerProducer));
    for (int i = 0; i < kPerProducer; ++i) ASSERT_EQ(seen[p][i], i);
  }
}

TEST(ThreadExecutor, RepeatingTimerFiresUntilInvalidatedFromAnotherThread) {
  ThreadExecutor executor;
  std::atomic<int> fired{0};
  auto timer = executor.scheduleRepeating(0.1, [&] { ++fired; });
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (fired < 3 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(10ms);
  timer->invalidate();
  ASSERT_TRUE(drain(executor, 5));  // a firing already under way has ended
  int atInvalidation = fired;
  EXPECT_GE(atInvalidation, 3);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(fired, atInvalidation);
}

TEST(ThreadExecutor, ZeroIntervalTimerInvalidatedInsideItsOwnFiring) {
  ThreadExecutor executor;
  std::promise<std::shared_ptr<Timer>> handle;
  std::shared_future<std::shared_ptr<Timer>> timerFuture = handle.get_future().share();
  std::atomic<int> fired{0};
  auto timer = executor.scheduleRepeating(0, [&] {
    ++fired;
    timerFuture.get()->invalidate();
  });
  EXPECT_DOUBLE_EQ(timer->timeInterval(), kMinimumTimerInterval);  // floored, no spin
  handle.set_value(timer);
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(fired, 1);
  EXPECT_FALSE(timer->isValid());
}

TEST(ThreadExecutor, ThrowingWorkIsLoggedAndTheWorkerCarriesOn) {
  CapturedLog logs;
  ThreadExecutor executor;
  executor.post([] { throw std::runtime_error("bad item"); });
  executor.post([] { throw 42; });
  ASSERT_TRUE(drain(executor, 5));
  auto lines = logs.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("bad item"), std::string::npos);
}

TEST(ThreadExecutor, ShutdownRunsEarlierWorkAndDropsLaterWork) {
  CapturedLog logs;
  ThreadExecutor executor;
  std::atomic<int> ran{0};
  for (int i = 0; i < 100; ++i) executor.post([&] { ++ran; });
  EXPECT_TRUE(executor.shutdown(5));
  EXPECT_EQ(ran, 100);
  executor.post([&] { ++ran; });
  executor.post([&] { ++ran; });
  EXPECT_FALSE(executor.scheduleRepeating(1, [] {})->isValid());
  EXPECT_EQ(ran, 100);
  EXPECT_EQ(logs.lines().size(), 1u);  // one line, not one per dropped post
  EXPECT_TRUE(executor.shutdown(1));   // idempotent
}

TEST(ThreadExecutor, ShutdownGivesUpAtItsDeadline) {
  CapturedLog logs;
  auto release = std::make_shared<std::promise<void>>();
  auto released = release->get_future().share();
  auto executor = std::make_unique<ThreadExecutor>();
  executor->post([released] { released.wait(); });
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(executor->shutdown(0.2));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  executor.reset();  // the detached worker keeps what it needs alive
  release->set_value();
  EXPECT_EQ(logs.lines().size(), 1u);
}

TEST(ThreadExecutor, LastReferenceDroppedOnTheWorkerDoesNotDeadlock) {
  auto executor = std::make_shared<ThreadExecutor>();
  std::promise<void> ran;
  executor->post([keep = executor, &ran]() mutable {
    keep.reset();
    ran.set_value();
  });
  std::weak_ptr<ThreadExecutor> weak = executor;
  executor.reset();
  ASSERT_EQ(ran.get_future().wait_for(5s), std::future_status::ready);
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!weak.expired() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_TRUE(weak.expired());
}

TEST(ThreadExecutor, DueTimersFireBetweenPiecesOfWorkWhateverTheLoad) {
  ThreadExecutor executor;
  std::atomic<int> firings{0};
  auto timer = executor.scheduleRepeating(0.1, [&] { ++firings; });
  // Work at full speed: every piece posts the next, so work is always
  // waiting. Real time, 1.2 s: most of the 12 firings must happen.
  std::atomic<bool> flooding{true};
  std::function<void()> chain;
  chain = [&] {
    if (flooding) executor.post(chain);
  };
  for (int i = 0; i < 64; ++i) executor.post(chain);
  std::this_thread::sleep_for(1200ms);
  flooding = false;
  ASSERT_TRUE(drain(executor, 5));
  timer->invalidate();
  EXPECT_GE(firings.load(), 5);
}

TEST(DefaultQueues, AreReplaceableAndRestoredByNull) {
  auto main = mainQueue();
  ASSERT_NE(main, nullptr);
  EXPECT_EQ(mainQueue(), main);
  auto background = backgroundQueue();
  EXPECT_NE(background, main);
  ASSERT_TRUE(drain(*background, 5));

  auto replacement = std::make_shared<ThreadExecutor>();
  setMainQueue(replacement);
  EXPECT_EQ(mainQueue(), replacement);
  setMainQueue(nullptr);
  EXPECT_NE(mainQueue(), replacement);
  ASSERT_TRUE(drain(*mainQueue(), 5));
}

}  // namespace
}  // namespace telvo
