// Capability queries: the defaults at load, the device's values from the capability data at
// start-up, and the limit of waiting reads that the debug shell may change at run time.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_cap"
#include "libpmx_log.h"

#include "libpmx_cap.h"

#include <atomic>
#include <cstdio>

#include <algorithm>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_lock.hpp"
#include "qv_cap.h"
#include "ssat.h"

namespace
{

// Read on every pass of every waiting read, changed by the debug shell.
std::atomic<int32_t> g_block_times{LIBPMX_DEFAULT_BLOCK_TIMES};
std::atomic<uint8_t> g_subcard_id_enable{0};
// The capability data of the process, loaded once at start-up and read-only from then on.
std::atomic<libqv_cap_ctrl_info_t *> g_cap_info{nullptr};
// Invalid-modid lock: the libpmx_invalid_modid set.
pmx::RwLock g_invalid_lock{"invalid-modid lock", pmx::LockRank::InvalidModid};

// An integer of the capability data: LIBPMX_OK, -11 without data, -7 without that value.
int cap_int(const char *name, int32_t *out)
{
    const libqv_cap_ctrl_info_t *info = g_cap_info.load(std::memory_order_acquire);
    if (info == nullptr) return LIBPMX_E_FAIL;
    return libqv_cap_get_capacity_int32(info, name, out) == LIBQV_CAP_OK ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
}

void load_invalid_modids(const libqv_cap_ctrl_info_t *info)
{
    for (int i = 0;; ++i) {
        char name[48];
        std::snprintf(name, sizeof name, "invalid-modids/%d", i);
        int32_t modid = 0;
        if (libqv_cap_get_capacity_int32(info, name, &modid) != LIBQV_CAP_OK) break;
        libpmx_cap_add_invalid_modid(modid);
    }
}

int collect_modid(void *entry, void *arg)
{
    static_cast<std::vector<int32_t> *>(arg)->push_back(
        static_cast<int32_t>(static_cast<const libpmx_invalid_modid_t *>(entry)->modid));
    return 0;
}

int cmd_dump_cap(const char *args)
{
    return pmx::dbg_table_cmd("dump_cap", args, libpmx_dump_cap, false);
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_cap", "  the capability values in use (block times, subcard ids, slots, invalid modids)", cmd_dump_cap},
};

} // namespace

extern "C" int libpmx_cap_pre_init(void)
{
    g_block_times.store(LIBPMX_DEFAULT_BLOCK_TIMES, std::memory_order_relaxed);
    g_subcard_id_enable.store(0, std::memory_order_relaxed);
    libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]); // logs its own failure
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
    load_invalid_modids(info);
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
    if (scid != nullptr && subcard_type == 0) { // no subcard: the card's own ports
        *scid = 0;
        return LIBPMX_OK;
    }
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

extern "C" int libpmx_cap_get_modid_info(int32_t card_type, int32_t *min, int32_t *max, int32_t *num_per_slot)
{
    if (min == nullptr || max == nullptr || num_per_slot == nullptr) {
        PMX_ERROR("param is null, card_type:%d", card_type);
        return LIBPMX_E_FAIL;
    }
    int32_t v[3] = {0, 0, 0};
    const char *const fields[3] = {"min", "max", "num-per-slot"};
    for (int i = 0; i < 3; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "modid-info/%d/%s", card_type, fields[i]);
        const int rc = cap_int(name, &v[i]);
        if (rc != LIBPMX_OK) {
            PMX_WARN("no %s in the capability data, ret:%d", name, rc);
            return rc;
        }
    }
    *min = v[0];
    *max = v[1];
    *num_per_slot = v[2];
    return LIBPMX_OK;
}

extern "C" int libpmx_cap_get_cap_of_node(int32_t node_type, int32_t *num)
{
    if (num == nullptr) {
        PMX_ERROR("param is null, node_type:%d", node_type);
        return LIBPMX_E_FAIL;
    }
    char name[48];
    std::snprintf(name, sizeof name, "node-type-cap-id-num/%d", node_type);
    const int rc = cap_int(name, num);
    if (rc != LIBPMX_OK) PMX_WARN("no %s in the capability data, ret:%d", name, rc);
    return rc;
}

extern "C" int32_t libpmx_cap_get_lc_slots_num(void)
{
    int32_t n = 0;
    return cap_int("lc-slots-num", &n) == LIBPMX_OK ? n : 0;
}

extern "C" int libpmx_cap_add_invalid_modid(int32_t modid)
{
    pmx::Guard g(g_invalid_lock, pmx::Access::Write);
    const libpmx_invalid_modid_t rec{static_cast<uint32_t>(modid)};
    if (libpmx_invalid_modid_get(modid) == nullptr && libpmx_invalid_modid_create(&rec) == nullptr)
        return LIBPMX_E_NOMEM; // the create logged it
    return LIBPMX_OK;
}

extern "C" int libpmx_cap_is_invalid_modid(int32_t modid)
{
    pmx::Guard g(g_invalid_lock, pmx::Access::Read);
    return libpmx_invalid_modid_get(modid) != nullptr;
}

namespace
{

struct Range {
    int32_t low;
    int32_t high;
    uint32_t n;
};

int count_in_range(void *entry, void *arg)
{
    auto *r = static_cast<Range *>(arg);
    const auto modid = static_cast<int32_t>(static_cast<const libpmx_invalid_modid_t *>(entry)->modid);
    if (modid >= r->low && modid <= r->high) ++r->n;
    return 0;
}

} // namespace

extern "C" uint32_t libpmx_cap_count_invalid_modid(int32_t low, int32_t high)
{
    Range r{low, high, 0};
    pmx::Guard g(g_invalid_lock, pmx::Access::Read);
    libpmx_invalid_modid_entry_each_item_op(count_in_range, &r, 0);
    return r.n;
}

extern "C" void libpmx_dump_cap(void)
{
    const libqv_cap_ctrl_info_t *info = g_cap_info.load(std::memory_order_acquire);
    ssat_printf("capability data   : %s\n", info != nullptr ? libqv_cap_ctrl_info_path(info) : "(not loaded)");
    ssat_printf("max-block-times   : %d\n", libpmx_cap_get_block_times());
    ssat_printf("subcard-id/enable : %u\n", static_cast<unsigned>(libpmx_cap_get_subcard_id_enable()));
    ssat_printf("lc-slots-num      : %d\n", libpmx_cap_get_lc_slots_num());
    std::vector<int32_t> ids;
    {
        pmx::Guard g(g_invalid_lock, pmx::Access::Read);
        libpmx_invalid_modid_entry_each_item_op(collect_modid, &ids, 0);
    }
    std::sort(ids.begin(), ids.end());
    ssat_printf("invalid-modids    :");
    for (int32_t id : ids) ssat_printf(" %d", id);
    ssat_printf(" (%zu)\n", ids.size());
}
