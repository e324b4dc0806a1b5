/* Host thread library: per-thread timer masters (libevent event bases) with one-shot timers,
 * and monotonic time. */
#ifndef QV_THREAD_H
#define QV_THREAD_H

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A timer master belongs to one thread: its timers fire in the thread that runs its loop. */
typedef struct qv_thread_master qv_thread_master_t;
/* One pending timer. The handle is valid until its callback has returned or it is cancelled. */
typedef struct qv_thread qv_thread_t;
/* A timer callback; the result is not used. */
typedef int (*qv_thread_func_t)(qv_thread_t *thread);

/* A new master named for the logs; null when out of memory. */
qv_thread_master_t *qv_thread_master_create(const char *name);
/* Cancels every pending timer and frees the master; must not be called from its own loop. */
void qv_thread_master_free(qv_thread_master_t *master);

/* Adds a one-shot timer that calls func after sec seconds and usec microseconds.
 * Null when master or func is null, the time is negative, or memory ran out.
 * Call it from the thread that owns the master, or from that master's callbacks. */
qv_thread_t *qv_thread_add_timer_timeval(qv_thread_master_t *master, qv_thread_func_t func, void *arg,
                                         long sec, long usec);
/* Cancels a pending timer and frees its handle; null is ignored. Safe from inside any
 * callback of the same master, including the timer's own (it is then a no-op). */
void qv_thread_cancel(qv_thread_t *thread);
/* The argument and the master a timer was added with. */
void *qv_thread_arg(const qv_thread_t *thread);
qv_thread_master_t *qv_thread_master_of(const qv_thread_t *thread);

/* Runs the master's loop in the calling thread until no timer is pending or
 * qv_thread_master_break is called; 0, or -1 on an event-loop error. */
int qv_thread_master_run(qv_thread_master_t *master);
/* Runs the loop for at most the given time (null: one pass without waiting); 0 or -1. */
int qv_thread_master_run_for(qv_thread_master_t *master, const struct timeval *limit);
/* Makes a running loop return after the current callback; callable from any thread. */
void qv_thread_master_break(qv_thread_master_t *master);
/* Time left before a pending timer fires, into left; 0, or -1 when it is not pending.
 * Call it from the thread that owns the timer's master. */
int qv_thread_timer_remaining(const qv_thread_t *thread, struct timeval *left);
/* Number of timers pending on the master. */
unsigned qv_thread_master_pending(const qv_thread_master_t *master);

/* Monotonic clock: fills tv (when not null) and returns its seconds. */
time_t qv_monotime(struct timeval *tv);
/* A time value in microseconds. */
int64_t qv_timeval_to_us(const struct timeval *tv);

#ifdef __cplusplus
}
#endif

#endif /* QV_THREAD_H */
