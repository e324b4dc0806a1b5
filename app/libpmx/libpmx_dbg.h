/* Debug level and log category shared by every part of the library. */
#ifndef LIBPMX_DBG_H
#define LIBPMX_DBG_H

#include <stdint.h>

#include "libpmx_export.h"

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

LIBPMX_END_DECLS

#endif /* LIBPMX_DBG_H */
