// Logging frame: the debug level, the log category and the write behind the gate.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_dbg"
#include "libpmx_log.h"

#include <cstring>

int32_t g_libpmx_zlog_level = 1;
struct qv_zlog_category *g_libpmx_zlog_category = nullptr;

extern "C" void libpmx_zlog_write(const char *src, const char *func, int line, int level, const char *text)
{
    // Opened once by the start-up thread while others may already log.
    qv_zlog_category_t *cat = std::atomic_ref<qv_zlog_category_t *>(g_libpmx_zlog_category).load(std::memory_order_acquire);
    if (cat == nullptr) return;
    qvdf_zlog(cat, src, std::strlen(src), func, std::strlen(func), line, level, "%s", text);
}
