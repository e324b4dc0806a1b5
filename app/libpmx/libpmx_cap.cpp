// Capability queries: the defaults at load, the device's values from the capability data at
// start-up, and the limit of waiting reads that the debug shell may change at run time.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_cap"
#include "libpmx_log.h"

#include "libpmx_cap.h"

#include <atomic>
#include <cstdio>

#include "libpmx_errno.h"
#include "qv_cap.h"

namespace
{

// Read on every pass of every waiting read, changed by the debug shell.
std::atomic<int32_t> g_block_times{LIBPMX_DEFAULT_BLOCK_TIMES};
std::atomic<uint8_t> g_subcard_id_enable{0};
// The capability data of the process, loaded once at start-up and read-only from then on.
std::atomic<libqv_cap_ctrl_info_t *> g_cap_info{nullptr};

} // namespace

extern "C" int libpmx_cap_pre_init(void)
{
    g_block_times.store(LIBPMX_DEFAULT_BLOCK_TIMES, std::memory_order_relaxed);
    g_subcard_id_enable.store(0, std::memory_order_relaxed);
    return LIBPMX_OK;
}

extern "C" int libpmx_cap_init(void *glb, const char *app_name)
{
    (void)glb;
    libqv_cap_ctrl_info_t *info = g_cap_info.load(std::memory_order_acquire);
    if (info == nullptr) {
        const int rc = libqv_cap_ctrl_info_init(&info, nullptr);
        if (rc != LIBQV_CAP_OK) {
            PMX_ERROR("[app_name:%s] capability data not loaded (platform code %d), defaults kept, ret:%d", app_name,
                      rc, LIBPMX_E_FAIL);
            return LIBPMX_E_FAIL;
        }
        g_cap_info.store(info, std::memory_order_release);
    }
    int32_t times = 0;
    int rc = libqv_cap_get_capacity_int32(info, "max-block-times", &times);
    if (rc == LIBQV_CAP_OK)
        libpmx_cap_set_block_times(times);
    else
        PMX_INFO("no max-block-times in %s (%d), keep %d", libqv_cap_ctrl_info_path(info), rc,
                 libpmx_cap_get_block_times());
    int32_t enable = 0;
    rc = libqv_cap_get_capacity_int32(info, "subcard-id/enable", &enable);
    if (rc == LIBQV_CAP_OK && enable >= 0 && enable <= 255)
        libpmx_cap_set_subcard_id_enable(static_cast<uint8_t>(enable));
    else
        PMX_INFO("no subcard-id/enable in %s (%d), keep %u", libqv_cap_ctrl_info_path(info), rc,
                 static_cast<unsigned>(libpmx_cap_get_subcard_id_enable()));
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

extern "C" uint8_t libpmx_cap_get_subcard_id_enable(void)
{
    return g_subcard_id_enable.load(std::memory_order_relaxed);
}

extern "C" void libpmx_cap_set_subcard_id_enable(uint8_t enable)
{
    g_subcard_id_enable.store(enable, std::memory_order_relaxed);
}

extern "C" int libpmx_get_scid_by_subcard_type(int32_t subcard_type, int32_t *scid)
{
    const libqv_cap_ctrl_info_t *info = g_cap_info.load(std::memory_order_acquire);
    if (scid == nullptr || info == nullptr) {
        PMX_ERROR("no scid source, subcard_type:%d scid:%p caps:%p", subcard_type, static_cast<void *>(scid),
                  static_cast<const void *>(info));
        return LIBPMX_E_FAIL;
    }
    char name[48];
    std::snprintf(name, sizeof name, "subcard-id/table/%d", subcard_type);
    int32_t v = 0;
    const int rc = libqv_cap_get_capacity_int32(info, name, &v);
    if (rc != LIBQV_CAP_OK) {
        PMX_INFO("no %s in %s (%d)", name, libqv_cap_ctrl_info_path(info), rc);
        return LIBPMX_E_NOT_FOUND;
    }
    *scid = v;
    return LIBPMX_OK;
}
