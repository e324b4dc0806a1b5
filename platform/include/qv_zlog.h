/* Host logging platform: log categories on spdlog, and the bounded formatter. */
#ifndef QV_ZLOG_H
#define QV_ZLOG_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Level numbers understood by qvdf_zlog. */
enum {
    QV_ZLOG_LEVEL_DEBUG = 20,
    QV_ZLOG_LEVEL_INFO = 40,
    QV_ZLOG_LEVEL_NOTICE = 60,
    QV_ZLOG_LEVEL_WARN = 80,
    QV_ZLOG_LEVEL_ERROR = 100,
};

typedef struct qv_zlog_category qv_zlog_category_t;

/* Opens (or returns the already open) category of that name; null on failure.
 * The sink is standard error, or the file named by PMX_LOG_FILE, or syslog when
 * PMX_LOG_SYSLOG is set to a non-empty value. Lines below $PMX_LOG_LEVEL (debug, info, warn,
 * error) are not written; the capture hook still sees them. */
qv_zlog_category_t *qv_zlog_init(const char *category);

/* Writes one log line; the file, function and line travel as the source location. */
void qvdf_zlog(qv_zlog_category_t *category, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int level, const char *format, ...)
    __attribute__((format(printf, 8, 9)));

/* snprintf: writes at most size bytes including the terminator and returns the length
 * the full text would have, or a negative value on an encoding error. */
int at_snprintf(char *buf, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* Every line written through qvdf_zlog is also handed to the capture hook, if one is set
 * (tests read what was logged this way). Pass null to remove it. */
typedef void (*qv_zlog_capture_fn)(int level, const char *func, const char *text, void *arg);
void qv_zlog_set_capture(qv_zlog_capture_fn fn, void *arg);

#ifdef __cplusplus
}
#endif

#endif /* QV_ZLOG_H */
