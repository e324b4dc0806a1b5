/* The library's one log gate (internal header). Define LIBPMX_LOG_SOURCE to the source path
 * (such as "app/libpmx/libpmx_hash") before including it. */
#ifndef LIBPMX_LOG_H
#define LIBPMX_LOG_H

#include <atomic>

#include "libpmx_dbg.h"
#include "qv_zlog.h"

#ifndef LIBPMX_LOG_SOURCE
#error "define LIBPMX_LOG_SOURCE before including libpmx_log.h"
#endif

LIBPMX_BEGIN_DECLS

/* Hands one formatted statement to the log category, if it is open. */
void libpmx_zlog_write(const char *src, const char *func, int line, int level, const char *text);

LIBPMX_END_DECLS

namespace pmx
{

// Every thread reads the level in every statement while the shell thread and the recording
// timer write it: relaxed atomic accesses, a change is seen sooner or later.
inline int32_t log_level()
{
    return std::atomic_ref<int32_t>(g_libpmx_zlog_level).load(std::memory_order_relaxed);
}

inline void set_log_level(int32_t level)
{
    std::atomic_ref<int32_t>(g_libpmx_zlog_level).store(level, std::memory_order_relaxed);
}

} // namespace pmx

/* Gate of a statement level: 20 -> 4, 40 -> 3, 60 -> 2, 80 -> 1, 100 -> 0. */
#define LIBPMX_ZLOG_GATE(level) ((100 - (level)) / 20)

/* Logs under an explicit operation name (the name a reader of the log looks for). */
#define PMX_LOG_AS(func, level, ...)                                                               \
    do {                                                                                           \
        if (pmx::log_level() > LIBPMX_ZLOG_GATE(level)) {                                          \
            char pmx_log_text_[1024] = {0};                                                        \
            at_snprintf(pmx_log_text_, sizeof pmx_log_text_, __VA_ARGS__);                         \
            libpmx_zlog_write(LIBPMX_LOG_SOURCE, (func), __LINE__, (level), pmx_log_text_);        \
        }                                                                                          \
    } while (0)

#define PMX_DEBUG(...) PMX_LOG_AS(__func__, LIBPMX_ZLOG_DEBUG, __VA_ARGS__)
#define PMX_INFO(...) PMX_LOG_AS(__func__, LIBPMX_ZLOG_INFO, __VA_ARGS__)
#define PMX_NOTICE(...) PMX_LOG_AS(__func__, LIBPMX_ZLOG_NOTICE, __VA_ARGS__)
#define PMX_WARN(...) PMX_LOG_AS(__func__, LIBPMX_ZLOG_WARN, __VA_ARGS__)
#define PMX_ERROR(...) PMX_LOG_AS(__func__, LIBPMX_ZLOG_ERROR, __VA_ARGS__)

#endif /* LIBPMX_LOG_H */
