#include "support/manual_executor.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/captured_log.h"

namespace telvo {
namespace {

TEST(ManualExecutor, TimersFireInDueOrderAsOftenAsDue) {
  ManualExecutor executor;
  std::vector<std::string> fired;
  auto slow = executor.scheduleRepeating(
      1.0, [&] { fired.push_back("slow@" + std::to_string(executor.now())); });
  auto fast = executor.scheduleRepeating(
      0.4, [&] { fired.push_back("fast@" + std::to_string(executor.now())); });

  EXPECT_EQ(executor.advance(2.0), 7u);
  // At 2.0 both are due: the one scheduled first fires first.
  EXPECT_EQ(fired, (std::vector<std::string>{"fast@0.400000", "fast@0.800000", "slow@1.000000",
                                             "fast@1.200000", "fast@1.600000", "slow@2.000000",
                                             "fast@2.000000"}));
  EXPECT_DOUBLE_EQ(executor.now(), 2.0);

  // Small steps that add up with rounding still hit every due time.
  fired.clear();
  for (int i = 0; i < 10; ++i) executor.advance(0.1);
  EXPECT_EQ(fired.size(), 3u);  // fast at 2.4 and 2.8, slow at 3.0
}

TEST(ManualExecutor, WorkPostedByAFiringRunsBeforeTheNextFiring) {
  ManualExecutor executor;
  std::vector<std::string> order;
  int n = 0;
  auto timer = executor.scheduleRepeating(1.0, [&] {
    int firing = ++n;
    order.push_back("fire" + std::to_string(firing));
    executor.post([&, firing] { order.push_back("work" + std::to_string(firing)); });
  });
  executor.post([&] { order.push_back("before"); });
  EXPECT_EQ(executor.pendingCount(), 1u);
  EXPECT_TRUE(order.empty());  // nothing runs until the test says so

  EXPECT_EQ(executor.advance(2.5), 2u);
  EXPECT_EQ(order, (std::vector<std::string>{"before", "fire1", "work1", "fire2", "work2"}));
}

TEST(ManualExecutor, IntervalsBelowTheFloorDoNotSpin) {
  ManualExecutor executor;
  int zero = 0, negative = 0;
  auto a = executor.scheduleRepeating(0, [&] { ++zero; });
  auto b = executor.scheduleRepeating(-5, [&] { ++negative; });
  EXPECT_DOUBLE_EQ(a->timeInterval(), kMinimumTimerInterval);
  EXPECT_DOUBLE_EQ(b->timeInterval(), kMinimumTimerInterval);
  executor.advance(1.0);
  EXPECT_EQ(zero, 10);
  EXPECT_EQ(negative, 10);
}

TEST(ManualExecutor, TimerInvalidatedInsideItsOwnFiring) {
  ManualExecutor executor;
  int fired = 0;
  std::shared_ptr<Timer> timer;
  timer = executor.scheduleRepeating(1.0, [&] {
    ++fired;
    timer->invalidate();
    timer->invalidate();  // idempotent
  });
  EXPECT_EQ(executor.activeTimerCount(), 1u);
  executor.advance(5.0);
  EXPECT_EQ(fired, 1);
  EXPECT_FALSE(timer->isValid());
  EXPECT_EQ(executor.activeTimerCount(), 0u);
}

TEST(ManualExecutor, ThrowingWorkIsLoggedAndDropped) {
  CapturedLog logs;
  ManualExecutor executor;
  bool after = false;
  executor.post([] { throw std::runtime_error("boom"); });
  executor.post([&] {
    executor.post([&] { after = true; });  // nested work runs in the same call
  });
  EXPECT_EQ(executor.runPending(), 3u);
  EXPECT_TRUE(after);
  ASSERT_EQ(logs.lines().size(), 1u);
  EXPECT_NE(logs.lines()[0].find("boom"), std::string::npos);
}

}  // namespace
}  // namespace telvo
