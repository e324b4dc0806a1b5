// Host timers: order, thread, cancellation (also from callbacks), breaks and run limits.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "qv_thread.h"
#include "thread_master.h"
#include "time_scale.h"

namespace {

using Master = std::unique_ptr<qv_thread_master_t, decltype(&qv_thread_master_free)>;
Master make_master() { return Master(qv_thread_master_create("test"), qv_thread_master_free); }

int64_t now_us()
{
    struct timeval tv;
    qv_monotime(&tv);
    return qv_timeval_to_us(&tv);
}

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

struct Seen {
    std::vector<int> ids;
    std::vector<std::thread::id> threads;
    std::vector<int64_t> at_us;
};
// A timer's argument: what it records, and what it does when it fires.
struct Shot {
    Seen *seen;
    int id;
    qv_thread_t *victim = nullptr; // cancelled, after a cancel of the shot's own timer
    bool brk = false;
    int again = 0; // adds itself again this many times
};

int fire(qv_thread_t *t)
{
    auto *shot = static_cast<Shot *>(qv_thread_arg(t));
    shot->seen->ids.push_back(shot->id);
    shot->seen->threads.push_back(std::this_thread::get_id());
    shot->seen->at_us.push_back(now_us());
    if (shot->victim != nullptr) {
        qv_thread_cancel(t);
        qv_thread_cancel(shot->victim);
    }
    if (shot->brk) qv_thread_master_break(qv_thread_master_of(t));
    if (shot->again-- > 0) {
        EXPECT_NE(qv_thread_add_timer_timeval(qv_thread_master_of(t), fire, shot, 0, 1000), nullptr);
    }
    return 0;
}

} // namespace

TEST(QvThread, FiresInTimeOrderAfterItsDelayInTheLoopThread)
{
    Master m = make_master();
    Seen seen;
    Shot s30{&seen, 30}, s10{&seen, 10}, s20{&seen, 20};
    int64_t start = now_us();
    for (Shot *s : {&s30, &s10, &s20})
        ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, s, 0, s->id * 1000), nullptr);
    EXPECT_EQ(qv_thread_master_pending(m.get()), 3u);
    std::thread::id loop_thread;
    std::thread([&] {
        loop_thread = std::this_thread::get_id();
        EXPECT_EQ(qv_thread_master_run(m.get()), 0); // returns once nothing is pending
    }).join();
    EXPECT_EQ(seen.ids, (std::vector<int>{10, 20, 30}));
    EXPECT_EQ(seen.threads, std::vector<std::thread::id>(3, loop_thread));
    for (size_t i = 0; i < seen.ids.size(); ++i) EXPECT_GE(seen.at_us[i] - start, seen.ids[i] * 1000);
    EXPECT_EQ(qv_thread_master_pending(m.get()), 0u);
}

TEST(QvThread, CancelsAddsAndBreaksAlsoFromCallbacksAndFreesPendingTimers)
{
    Master m = make_master();
    Seen seen;
    Shot a{&seen, 1}, b{&seen, 2};
    EXPECT_EQ(qv_thread_add_timer_timeval(m.get(), nullptr, &a, 0, 1), nullptr);
    EXPECT_EQ(qv_thread_add_timer_timeval(m.get(), fire, &a, 0, -1), nullptr);
    qv_thread_t *hb = qv_thread_add_timer_timeval(m.get(), fire, &b, 0, 1000);
    ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, &a, 0, 2000), nullptr);
    ASSERT_EQ(qv_thread_master_of(hb), m.get());
    qv_thread_cancel(hb);
    qv_thread_cancel(nullptr);
    EXPECT_EQ(qv_thread_master_pending(m.get()), 1u);
    EXPECT_EQ(qv_thread_master_run(m.get()), 0);
    EXPECT_EQ(seen.ids, std::vector<int>{1});

    // Due together: the first to fire cancels itself (a no-op) and the other one.
    Shot c{&seen, 3}, d{&seen, 3};
    c.victim = qv_thread_add_timer_timeval(m.get(), fire, &d, 0, 1000);
    d.victim = qv_thread_add_timer_timeval(m.get(), fire, &c, 0, 1000);
    sleep_ms(5);
    EXPECT_EQ(qv_thread_master_run(m.get()), 0);
    Shot chain{&seen, 4, nullptr, false, 2};
    ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, &chain, 0, 1000), nullptr);
    EXPECT_EQ(qv_thread_master_run(m.get()), 0);
    EXPECT_EQ(seen.ids, (std::vector<int>{1, 3, 4, 4, 4}));
    // A break ends the loop right after its callback, before the other due timer.
    Shot e{&seen, 5, nullptr, true}, f{&seen, 5, nullptr, true};
    ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, &e, 0, 1000), nullptr);
    ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, &f, 0, 1000), nullptr);
    sleep_ms(5);
    EXPECT_EQ(qv_thread_master_run(m.get()), 0);
    EXPECT_EQ(qv_thread_master_pending(m.get()), 1u);
    // Freed with timers pending: released, never called.
    ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, &a, 10, 0), nullptr);
    m.reset();
    EXPECT_EQ(seen.ids, (std::vector<int>{1, 3, 4, 4, 4, 5}));
}

TEST(QvThread, BreaksFromOtherThreadsAndRunLimits)
{
    Master m = make_master(), idle = make_master();
    Seen seen;
    Shot far{&seen, 1}, due{&seen, 2};
    ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, &far, 60, 0), nullptr);
    std::jthread breaker([&] { sleep_ms(20), qv_thread_master_break(m.get()); });
    EXPECT_EQ(qv_thread_master_run(m.get()), 0);

    struct timeval limit = {0, 20000}, long_limit = {60, 0};
    int64_t start = now_us();
    EXPECT_EQ(qv_thread_master_run_for(m.get(), &limit), 0);
    EXPECT_GE(now_us() - start, 20000);
    ASSERT_NE(qv_thread_add_timer_timeval(m.get(), fire, &due, 0, 0), nullptr);
    sleep_ms(2);
    EXPECT_EQ(qv_thread_master_run_for(m.get(), nullptr), 0); // one pass runs what is due
    EXPECT_EQ(seen.ids, std::vector<int>{2});

    qv_thread_master_break(m.get()); // given before the loop starts: not lost
    start = now_us();
    EXPECT_EQ(qv_thread_master_run_for(m.get(), &long_limit), 0);
    EXPECT_LT(now_us() - start, pmx_test::at_most_seconds(10) * 1e6);

    // Run until break keeps looping with nothing pending.
    start = now_us();
    std::jthread idle_breaker([&] { sleep_ms(30), qv_thread_master_break(idle.get()); });
    EXPECT_EQ(qv_thread_master_run_until_break(idle.get()), 0);
    EXPECT_GE(now_us() - start, 30000);
}
