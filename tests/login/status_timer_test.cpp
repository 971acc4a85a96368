#include <gatewise/runloop.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>

#include <chrono>

#include "support/log_capture.h"

namespace {

using namespace std::chrono_literals;
using gw::GWTimer;

// Runs the thread's loop until done() holds or a bounded number of rounds passed.
template <class Done>
bool runLoopUntil(Done done) {
  for (int round = 0; round < 200 && !done(); ++round) gw::runloop::runRunLoopOnce(50ms);
  return done();
}

TEST(StatusTimerTest, FiresOnceOnTheArmingThreadsLoopWithItself) {
  gwtest::LogCapture log(2);
  auto timer = GWTimer::fcTimer();
  timer->setInterval(0.001);
  timer->setReason(3);
  timer->setUserInfo("context");
  int fired = 0;
  GWTimer* seen = nullptr;
  timer->fireWithTarget([&](GWTimer& t) {
    ++fired;
    seen = &t;
  });
  EXPECT_TRUE(timer->isValid());
  EXPECT_TRUE(log.contains("target: 0x"));
  EXPECT_TRUE(log.contains("interval: 0.001000"));
  EXPECT_EQ(fired, 0);  // nothing happens until the loop runs
  ASSERT_TRUE(runLoopUntil([&] { return fired > 0; }));
  EXPECT_EQ(seen, timer.get());
  EXPECT_EQ(seen->userInfo(), gw::plist::Value("context"));
  EXPECT_FALSE(timer->isValid());
  // One-shot: further rounds fire nothing.
  gw::runloop::runRunLoopOnce(0us);
  EXPECT_EQ(fired, 1);

  // Arming again replaces the earlier timer: only the new callback runs.
  int first = 0, second = 0;
  timer->setInterval(0);
  timer->fireWithTarget([&](GWTimer&) { ++first; });
  timer->fireWithTarget([&](GWTimer&) { ++second; });
  ASSERT_TRUE(runLoopUntil([&] { return second > 0; }));
  gw::runloop::runRunLoopOnce(0us);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);
}

TEST(StatusTimerTest, StoppedAndDestroyedTimersNeverFire) {
  gwtest::LogCapture log(2);
  int stopped = 0, dropped = 0, control = 0;
  auto item = gw::GWStatusItem::initWithName("Chess", "k", gw::plist::Date{});
  item->setTimer(GWTimer::fcTimer());
  item->timer()->fireWithTarget([&](GWTimer&) { ++stopped; });
  {
    auto doomed = GWTimer::fcTimer();
    doomed->fireWithTarget([&](GWTimer&) { ++dropped; });
  }
  auto witness = GWTimer::fcTimer();
  witness->setInterval(0.002);  // due after the others, so their moment has passed too
  witness->fireWithTarget([&](GWTimer&) { ++control; });
  log.clear();
  item->stopTimer();
  EXPECT_FALSE(item->timer());
  EXPECT_TRUE(log.contains("invalidate [") && log.contains("-- Enter"));
  ASSERT_TRUE(runLoopUntil([&] { return control > 0; }));
  gw::runloop::runRunLoopOnce(0us);
  EXPECT_EQ(stopped, 0);
  EXPECT_EQ(dropped, 0);
}

TEST(StatusTimerTest, ACallbackMayDropTheTimerThatCalledIt) {
  auto item = gw::GWStatusItem::initWithName("Chess", "k", gw::plist::Date{});
  item->setTimer(GWTimer::fcTimer());
  bool fired = false;
  item->timer()->fireWithTarget([&](GWTimer&) {
    fired = true;
    item->stopTimer();  // the item held the only reference
  });
  ASSERT_TRUE(runLoopUntil([&] { return fired; }));
  EXPECT_FALSE(item->timer());
}

TEST(StatusTimerTest, ReasonsThreeFourAndSixAreWarnings) {
  auto timer = GWTimer::fcTimer();
  for (int reason = -1; reason <= 8; ++reason) {
    timer->setReason(reason);
    EXPECT_EQ(timer->isWarning(), reason == 3 || reason == 4 || reason == 6) << reason;
  }
}

}  // namespace
