// Host timers: a master is a libevent base, a timer a one-shot libevent timer event.
#include "qv_thread.h"

#include "thread_master.h"

#include "host_log.h"
#include "qv_zlog.h"

#include <event2/event.h>
#include <event2/thread.h>

#include <atomic>
#include <climits>
#include <mutex>
#include <new>
#include <string>

// Breaks and run limits use the urgent priority so they take effect right after the running
// callback; timers and every other event of the base get the normal one (libevent's default).
namespace {
constexpr int kPriorities = 2;
constexpr int kUrgent = 0;
constexpr long kUsecPerSec = 1000000;
} // namespace

struct qv_thread {
    qv_thread_master_t *master;
    struct event *ev;
    qv_thread_func_t func;
    void *arg;
    bool firing; // its callback is running: a cancel now is a no-op
    qv_thread *prev;
    qv_thread *next;
};

struct qv_thread_master {
    std::string name;
    struct event_base *base = nullptr;
    struct event *break_ev = nullptr; // activated by qv_thread_master_break, from any thread
    struct event *limit_ev = nullptr; // the deadline of qv_thread_master_run_for
    qv_thread *timers = nullptr;      // pending timers, owned by the master
    std::atomic<unsigned> pending{0};
};

namespace {

qv_zlog_category_t *log_category()
{
    static qv_zlog_category_t *cat = qv_zlog_init("qv_thread");
    return cat;
}

#define QV_THREAD_LOG(level, ...) QV_HOST_LOG(log_category(), level, __VA_ARGS__)

void libevent_log(int severity, const char *msg)
{
    int level = severity >= EVENT_LOG_ERR    ? QV_ZLOG_LEVEL_ERROR
                : severity >= EVENT_LOG_WARN ? QV_ZLOG_LEVEL_WARN
                : severity >= EVENT_LOG_MSG  ? QV_ZLOG_LEVEL_INFO
                                             : QV_ZLOG_LEVEL_DEBUG;
    QV_THREAD_LOG(level, "libevent: %s", msg);
}

// libevent locks its bases (so a break may come from another thread) once this has run.
bool setup_libevent()
{
    static std::once_flag once;
    static bool ok = false;
    std::call_once(once, [] {
        event_set_log_callback(libevent_log);
        ok = evthread_use_pthreads() == 0;
        if (!ok) QV_THREAD_LOG(QV_ZLOG_LEVEL_ERROR, "libevent thread support could not be enabled");
    });
    return ok;
}

void unlink_timer(qv_thread *t)
{
    qv_thread_master_t *m = t->master;
    if (t->prev != nullptr)
        t->prev->next = t->next;
    else
        m->timers = t->next;
    if (t->next != nullptr) t->next->prev = t->prev;
    t->prev = t->next = nullptr;
    m->pending.fetch_sub(1, std::memory_order_relaxed);
}

void destroy_timer(qv_thread *t)
{
    event_free(t->ev);
    delete t;
}

void on_timer(evutil_socket_t, short, void *arg)
{
    auto *t = static_cast<qv_thread *>(arg);
    unlink_timer(t);
    t->firing = true;
    t->func(t);
    destroy_timer(t);
}

void on_break(evutil_socket_t, short, void *arg)
{
    event_base_loopbreak(static_cast<qv_thread_master_t *>(arg)->base);
}

int loop(qv_thread_master_t *m, int flags)
{
    int rc = event_base_loop(m->base, flags);
    if (rc < 0) {
        QV_THREAD_LOG(QV_ZLOG_LEVEL_ERROR, "event loop of timer master %s failed", m->name.c_str());
        return -1;
    }
    return 0;
}

} // namespace

extern "C" qv_thread_master_t *qv_thread_master_create(const char *name)
{
    if (!setup_libevent()) return nullptr;
    auto *m = new (std::nothrow) qv_thread_master;
    if (m == nullptr) return nullptr;
    try {
        m->name = name != nullptr ? name : "";
    } catch (const std::bad_alloc &) {
        delete m;
        return nullptr;
    }
    // A precise clock: the default coarse one can fire timers a few milliseconds early.
    struct event_config *cfg = event_config_new();
    if (cfg != nullptr && event_config_set_flag(cfg, EVENT_BASE_FLAG_PRECISE_TIMER) == 0)
        m->base = event_base_new_with_config(cfg);
    if (cfg != nullptr) event_config_free(cfg);
    if (m->base != nullptr && event_base_priority_init(m->base, kPriorities) == 0) {
        m->break_ev = event_new(m->base, -1, 0, on_break, m);
        m->limit_ev = evtimer_new(m->base, on_break, m);
    }
    if (m->break_ev == nullptr || m->limit_ev == nullptr ||
        event_priority_set(m->break_ev, kUrgent) != 0 || event_priority_set(m->limit_ev, kUrgent) != 0) {
        QV_THREAD_LOG(QV_ZLOG_LEVEL_ERROR, "cannot create the event base of timer master %s",
                      m->name.c_str());
        qv_thread_master_free(m);
        return nullptr;
    }
    return m;
}

extern "C" void qv_thread_master_free(qv_thread_master_t *master)
{
    if (master == nullptr) return;
    while (master->timers != nullptr) {
        qv_thread *t = master->timers;
        unlink_timer(t);
        destroy_timer(t);
    }
    if (master->break_ev != nullptr) event_free(master->break_ev);
    if (master->limit_ev != nullptr) event_free(master->limit_ev);
    if (master->base != nullptr) event_base_free(master->base);
    delete master;
}

extern "C" qv_thread_t *qv_thread_add_timer_timeval(qv_thread_master_t *master, qv_thread_func_t func,
                                                    void *arg, long sec, long usec)
{
    if (master == nullptr || func == nullptr || sec < 0 || usec < 0) return nullptr;
    long carry = usec / kUsecPerSec;
    if (sec > LONG_MAX - carry) return nullptr;
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(sec + carry);
    tv.tv_usec = static_cast<suseconds_t>(usec % kUsecPerSec);

    auto *t = new (std::nothrow) qv_thread{master, nullptr, func, arg, false, nullptr, master->timers};
    if (t == nullptr) return nullptr;
    t->ev = evtimer_new(master->base, on_timer, t);
    if (t->ev == nullptr || evtimer_add(t->ev, &tv) != 0) {
        QV_THREAD_LOG(QV_ZLOG_LEVEL_ERROR, "cannot add a timer (sec %ld, usec %ld) to timer master %s",
                      sec, usec, master->name.c_str());
        if (t->ev != nullptr) event_free(t->ev);
        delete t;
        return nullptr;
    }
    if (master->timers != nullptr) master->timers->prev = t;
    master->timers = t;
    master->pending.fetch_add(1, std::memory_order_relaxed);
    return t;
}

extern "C" void qv_thread_cancel(qv_thread_t *thread)
{
    if (thread == nullptr || thread->firing) return;
    unlink_timer(thread);
    destroy_timer(thread);
}

extern "C" void *qv_thread_arg(const qv_thread_t *thread)
{
    return thread != nullptr ? thread->arg : nullptr;
}

extern "C" qv_thread_master_t *qv_thread_master_of(const qv_thread_t *thread)
{
    return thread != nullptr ? thread->master : nullptr;
}

extern "C" int qv_thread_master_run(qv_thread_master_t *master)
{
    if (master == nullptr) return -1;
    return loop(master, 0);
}

extern "C" int qv_thread_master_run_for(qv_thread_master_t *master, const struct timeval *limit)
{
    if (master == nullptr) return -1;
    if (limit == nullptr) return loop(master, EVLOOP_NONBLOCK);
    if (evtimer_add(master->limit_ev, limit) != 0) {
        QV_THREAD_LOG(QV_ZLOG_LEVEL_ERROR, "cannot set the run limit of timer master %s",
                      master->name.c_str());
        return -1;
    }
    int rc = loop(master, 0);
    evtimer_del(master->limit_ev);
    return rc;
}

// A break while no loop runs is kept (the event stays active) and ends the next run at once,
// so a break racing with the start of a loop is never lost.
extern "C" void qv_thread_master_break(qv_thread_master_t *master)
{
    if (master == nullptr) return;
    event_active(master->break_ev, 0, 0);
}

extern "C" unsigned qv_thread_master_pending(const qv_thread_master_t *master)
{
    return master != nullptr ? master->pending.load(std::memory_order_relaxed) : 0;
}

struct event_base *qv_thread_master_base(qv_thread_master_t *m)
{
    return m != nullptr ? m->base : nullptr;
}

int qv_thread_master_run_until_break(qv_thread_master_t *m)
{
    if (m == nullptr) return -1;
    return loop(m, EVLOOP_NO_EXIT_ON_EMPTY);
}

extern "C" time_t qv_monotime(struct timeval *tv)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    if (tv != nullptr) {
        tv->tv_sec = ts.tv_sec;
        tv->tv_usec = static_cast<suseconds_t>(ts.tv_nsec / 1000);
    }
    return ts.tv_sec;
}

extern "C" int64_t qv_timeval_to_us(const struct timeval *tv)
{
    if (tv == nullptr) return 0;
    return static_cast<int64_t>(tv->tv_sec) * kUsecPerSec + tv->tv_usec;
}

extern "C" int qv_thread_timer_remaining(const qv_thread_t *thread, struct timeval *left)
{
    if (thread == nullptr || left == nullptr) return -1;
    timeval expiry{};
    if (event_pending(thread->ev, EV_TIMEOUT, &expiry) == 0) return -1;
    timeval now{};
    if (event_base_gettimeofday_cached(thread->master->base, &now) != 0) return -1;
    // The expiry is on the base's clock; gettimeofday_cached reads the same clock.
    int64_t us = qv_timeval_to_us(&expiry) - qv_timeval_to_us(&now);
    if (us < 0) us = 0;
    left->tv_sec = static_cast<time_t>(us / kUsecPerSec);
    left->tv_usec = static_cast<suseconds_t>(us % kUsecPerSec);
    return 0;
}
