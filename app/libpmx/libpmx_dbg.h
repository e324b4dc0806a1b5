/* Debug level and log category shared by every part of the library. */
#ifndef LIBPMX_DBG_H
#define LIBPMX_DBG_H

#include <stddef.h>
#include <stdint.h>

#include "libpmx_export.h"
#include "qv_thread.h"
#include "ssat.h"

LIBPMX_BEGIN_DECLS

/* Statement levels, as handed to the logging library. A statement is written only when
 * g_libpmx_zlog_level exceeds its gate: DEBUG 4, INFO 3, NOTICE 2, WARN 1, ERROR 0. */
enum {
    LIBPMX_ZLOG_DEBUG = 20,
    LIBPMX_ZLOG_INFO = 40,
    LIBPMX_ZLOG_NOTICE = 60,
    LIBPMX_ZLOG_WARN = 80,
    LIBPMX_ZLOG_ERROR = 100,
};

/* Debug levels: 0 OFF, 1 ERROR, 2 WARN, 3 NOTICE, 4 INFO, 5 DEBUG. 1 at load. */
LIBPMX_API extern int32_t g_libpmx_zlog_level;

/* The "libpmx" log category; null until the logging set-up has opened it. */
struct qv_zlog_category;
LIBPMX_API extern struct qv_zlog_category *g_libpmx_zlog_category;

/* Root of the level files, "/data/dbg" unless the environment variable names another. */
#define LIBPMX_DBG_DIR_ENV "PMX_DBG_DIR"
#define LIBPMX_DBG_DIR_DEFAULT "/data/dbg"
/* The longest temporary recording, in minutes. */
#define LIBPMX_RECORD_MAX_MINUTES 15

/* Opens the "libpmx" log category and reads the level file of name; 0 or -11. */
LIBPMX_API int libpmx_dbg_zlog_init(const char *name);

/* The level file of name: <root>/<name>/<name>_dbg while the directory <root>/<name> exists,
 * else <root>/libpmx/libpmx_dbg. The length of the path, as snprintf. */
LIBPMX_API int libpmx_dbg_level_file(const char *name, char *path, size_t size);

/* Sets the debug level and prints the new level; -4 (and a printed reason) above 5. */
LIBPMX_API int libpmx_dbg_set_dbg_level(unsigned level);

/* Temporary recording: level 5 for min(minutes, 15) minutes on a timer of the calling thread's
 * timer master, then back to 1. minutes below 1 stops a running recording and reverts. The timer
 * fires only while that thread runs its master's loop: the debug shell's thread does. */
LIBPMX_API void libpmx_dbg_record_log_tmp(int minutes);
/* The recording timer's callback: forgets the timer and sets the level back to 1. */
LIBPMX_API int libpmx_revert_dbg_level(qv_thread_t *thread);

/* A debug command of a subsystem: its name, a one-line help, its handler (args: the text after
 * the name, "dbg_level=4"; the result goes back to the shell as the command's code). */
typedef struct libpmx_dbg_cmd {
    const char *name;
    const char *help;
    ssat_cmd_fn fn;
} libpmx_dbg_cmd_t;

/* A subsystem hands its commands to the debug shell during its own set-up; they are served from
 * libpmx_dbg_ut_init on (at once when it has run). The table must live as long as the process;
 * handing the same table again is harmless. 0, -4 for a null table, -2 when no more tables fit. */
LIBPMX_API int libpmx_dbg_add_cmds(const libpmx_dbg_cmd_t *cmds, uint32_t n);

/* Runs one debug command in this process ("dump_chipslot gslot=3"), its output to standard
 * output: the command's result, or -4 for an unknown command (printed). */
LIBPMX_API int libpmx_dbg_run_cmd(const char *line);

/* Starts serving the debug commands of the module name: the level commands and every table the
 * subsystems handed over. 0 or -11 (the shell's own code is logged). */
LIBPMX_API int libpmx_dbg_ut_init(void *glb, const char *name);

/* Debug-command handlers; args is the text after the command name. */
LIBPMX_API int libpmx_dbg_cmd_set_dbg_level(const char *args);   /* "dbg_level=%d" */
LIBPMX_API int libpmx_dbg_cmd_dump_dbg_level(const char *args);
LIBPMX_API int libpmx_dbg_cmd_record_log_tmp(const char *args);  /* "minutes=%d" */

/* Statistics: every cache counts its lookups and misses, every record kind its database reads,
 * waits and applied change events (the "stats" debug command prints them). Counting is on unless
 * the environment variable PMX_STATS is 0; it can be switched at any time. */
LIBPMX_API void libpmx_stats_enable(int on);
LIBPMX_API int libpmx_stats_enabled(void);
/* Counts from now on: the stats command shows what happened since (its reset=1 does the same). */
LIBPMX_API void libpmx_stats_reset(void);
/* One counter as the stats command sums it: the lookups (field 0) or misses (1) of cache i, as
 * its JSON rows number them; -1 for an unknown cache or field. For tests and monitors. */
LIBPMX_API int64_t libpmx_stats_cache_count(uint32_t cache, uint32_t field);

LIBPMX_END_DECLS

#endif /* LIBPMX_DBG_H */
