/* The job queue and the binary semaphore, seen from within. */
#include "thread_pool/thpool.cpp" // NOLINT(bugprone-suspicious-include): its statics are the subject

#include <array>
#include <gtest/gtest.h>

void bridge_wait_s(uint32_t)
{
}

static void no_job(void *)
{
}

static std::unique_ptr<job> make_job(int *arg)
{
    return std::make_unique<job>(job{.prev = nullptr, .function = no_job, .arg = arg});
}

class ThpoolQueue : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(jobqueue_init(&queue));
    }
    void push(size_t index)
    {
        jobqueue_push(&queue, make_job(&args[index]).release());
    }
    bool take_post()
    {
        const bool posted = queue.has_jobs->v == 1;
        queue.has_jobs->v = 0;
        return posted;
    }

    std::array<int, 3> args = {};
    jobqueue queue = {};
};

TEST_F(ThpoolQueue, EmptyQueueGivesNothingAndStaysAsItIs)
{
    EXPECT_FALSE(take_post());
    EXPECT_EQ(jobqueue_pull(&queue), nullptr);
    EXPECT_EQ(queue.len, 0);
    EXPECT_FALSE(take_post());
}

TEST_F(ThpoolQueue, JobsLeaveInTheOrderOfTheirArrivalAndEachPullButTheLastWakesOneMore)
{
    for (size_t i = 0; i < args.size(); ++i) {
        push(i);
        EXPECT_TRUE(take_post()) << i;
        EXPECT_EQ(jobqueue_len(&queue), static_cast<int>(i) + 1);
    }
    EXPECT_EQ(queue.front->prev->prev, queue.rear);
    EXPECT_EQ(queue.rear->prev, nullptr);
    for (size_t i = 0; i < args.size(); ++i) {
        const std::unique_ptr<job> pulled = jobqueue_pull(&queue);
        ASSERT_NE(pulled, nullptr);
        EXPECT_EQ(pulled->arg, &args[i]);
        EXPECT_EQ(take_post(), i + 1 < args.size()) << i;
    }
    EXPECT_EQ(queue.len, 0);
    EXPECT_EQ(queue.front, nullptr);
    EXPECT_EQ(queue.rear, nullptr);
}

TEST_F(ThpoolQueue, EmptiedQueueTakesJobsAgain)
{
    push(0);
    jobqueue_pull(&queue);
    push(1);
    EXPECT_EQ(queue.front, queue.rear);
    EXPECT_EQ(jobqueue_pull(&queue)->arg, &args[1]);
}

TEST_F(ThpoolQueue, PushedJobForgetsItsOldNeighbour)
{
    std::unique_ptr<job> stray = make_job(&args[0]);
    job other = {};
    stray->prev = &other;
    jobqueue_push(&queue, stray.release());
    EXPECT_EQ(queue.rear->prev, nullptr);
    jobqueue_pull(&queue);
}

TEST_F(ThpoolQueue, SemaphoreHoldsOnePostAtMost)
{
    bsem *sem = queue.has_jobs.get();
    bsem_post(sem);
    bsem_post(sem);
    bsem_post_all(sem);
    EXPECT_EQ(sem->v, 1);
    bsem_wait(sem);
    EXPECT_EQ(sem->v, 0);
}

TEST(ThpoolSemaphoreDeath, OtherValuesThanNoneAndOneEndTheProcess)
{
    bsem sem = {};
    bsem_init(&sem, 1);
    EXPECT_EQ(sem.v, 1);
    for (const int value : {-1, 2})
        EXPECT_EXIT(bsem_init(&sem, value), testing::ExitedWithCode(1),
                    "^bsem_init\\(\\): Binary semaphore can take only values 1 or 0$");
}
