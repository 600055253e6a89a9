/* What a timer is told. */
#include "converter/control/bridge_service_timer.h"

#include "config/captured_log.h"
#include "services/service_calls.h"

using testing::ElementsAre;

class ServiceTimer : public testing::Test
{
  protected:
    ServiceTimer()
    {
        timers.reset();
        EXPECT_EQ(timer.create([](sigval param) { ++*static_cast<int *>(param.sival_ptr); }, &expired), 0);
    }

    captured_log log;
    int expired = 0;
    bridge_service_timer timer;
};

TEST_F(ServiceTimer, ItRunsOnceOrAgainAndAgain)
{
    EXPECT_EQ(timer.start(30000, false), 0);
    EXPECT_EQ(timer.start(1500, true), 0);
    EXPECT_EQ(timer.stop(), 0);
    EXPECT_THAT(timers.taken(), ElementsAre("made", "30000 ms", "1500 ms each", "off"));
    EXPECT_THAT(log.lines(), ElementsAre("INFO Set timer to 30s, 0ns", "INFO Set timer to 1s, 500000000ns"));
    timers.expire();
    EXPECT_EQ(expired, 1);
}

/* Nothing to wait for is the shortest wait that a timer knows as one. */
TEST_F(ServiceTimer, NothingToWaitForMeansAtOnce)
{
    EXPECT_EQ(timer.start(0, true), 0);
    EXPECT_THAT(timers.taken(), ElementsAre("made", "1000 ns each"));
    EXPECT_THAT(log.lines(), ElementsAre("INFO Set timer to 0s, 0ns",
                                         "ERROR Timeout value equals zero, set to schedule right away"));
}

TEST_F(ServiceTimer, FailuresAreTheCallers)
{
    let_fail("timer_settime", EINVAL);
    EXPECT_EQ(timer.start(1, false), -1);
    EXPECT_EQ(timer.stop(), -1);
    let_fail("timer_create", EAGAIN);
    bridge_service_timer other;
    EXPECT_EQ(other.create([](sigval) {}, nullptr), -1);
    let_all_pass();
}
