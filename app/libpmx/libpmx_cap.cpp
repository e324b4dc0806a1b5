// Capability queries: the defaults at load, the device's values from the capability data at
// start-up, and the limit of waiting reads that the debug shell may change at run time.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_cap"
#include "libpmx_log.h"

#include "libpmx_cap.h"

#include <atomic>

#include "libpmx_errno.h"
#include "qv_cap.h"

namespace
{

// Read on every pass of every waiting read, changed by the debug shell.
std::atomic<int32_t> g_block_times{LIBPMX_DEFAULT_BLOCK_TIMES};
// The capability data of the process, loaded once.
libqv_cap_ctrl_info_t *g_cap_info = nullptr;

} // namespace

extern "C" int libpmx_cap_pre_init(void)
{
    g_block_times.store(LIBPMX_DEFAULT_BLOCK_TIMES, std::memory_order_relaxed);
    return LIBPMX_OK;
}

extern "C" int libpmx_cap_init(void *glb, const char *app_name)
{
    (void)glb;
    if (g_cap_info == nullptr) {
        const int rc = libqv_cap_ctrl_info_init(&g_cap_info, nullptr);
        if (rc != LIBQV_CAP_OK) {
            PMX_ERROR("[app_name:%s] capability data not loaded (platform code %d), defaults kept, ret:%d", app_name,
                      rc, LIBPMX_E_FAIL);
            return LIBPMX_E_FAIL;
        }
    }
    int32_t times = 0;
    const int rc = libqv_cap_get_capacity_int32(g_cap_info, "max-block-times", &times);
    if (rc == LIBQV_CAP_OK)
        libpmx_cap_set_block_times(times);
    else
        PMX_INFO("no max-block-times in %s (%d), keep %d", libqv_cap_ctrl_info_path(g_cap_info), rc,
                 libpmx_cap_get_block_times());
    return LIBPMX_OK;
}

extern "C" int32_t libpmx_cap_get_block_times(void)
{
    return g_block_times.load(std::memory_order_relaxed);
}

extern "C" int libpmx_cap_set_block_times(int32_t times)
{
    if (times < 0) {
        PMX_ERROR("invalid block times %d.", times);
        return LIBPMX_E_INVAL;
    }
    g_block_times.store(times, std::memory_order_relaxed);
    PMX_INFO("did change block times to %d", times);
    return LIBPMX_OK;
}
