// Internal access to a timer master's event loop, for platform components that run
// their own events (the database client's event thread) on a master.
#ifndef PMX_PLATFORM_THREAD_MASTER_H
#define PMX_PLATFORM_THREAD_MASTER_H

#include "qv_thread.h"

struct event_base;

// The master's libevent base; events added to it run in the thread running the master's loop.
struct event_base *qv_thread_master_base(qv_thread_master_t *m);
// Runs the loop even while nothing is pending (EVLOOP_NO_EXIT_ON_EMPTY) until
// qv_thread_master_break is called; a break given before the loop starts is kept and ends it
// at once. 0, or -1 on an event-loop error.
int qv_thread_master_run_until_break(qv_thread_master_t *m);

#endif // PMX_PLATFORM_THREAD_MASTER_H
