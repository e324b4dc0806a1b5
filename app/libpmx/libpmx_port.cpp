// Local card and port state: the identity of this process's card, the static attributes of its
// card type, the online panel ports and the card-complete flags.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_port"
#include "libpmx_log.h"

#include "libpmx_port.h"

#include <atomic>
#include <cstring>

#include "libpmx_errno.h"
#include "libpmx_mom.h"
#include "libpmx_records.h"

namespace
{

// Every value is one aligned word, written by the database callback thread and read by any
// thread without a lock: a reader sees the old or the new value of each field.
using Word = std::atomic<int32_t>;
using UWord = std::atomic<uint32_t>;

constexpr int32_t kUnknown = -1;
constexpr int kBitmapWords = LIBPMX_ONLINE_LPORT_MAX / 32;

// Unknown from load on; only the setters change them.
Word g_my_info[LIBPMX_MY_INFO_NUM] = {kUnknown, kUnknown, kUnknown, kUnknown, kUnknown, kUnknown};

struct CardStattr {
    Word max_lport_id{kUnknown};
    Word chip_num{kUnknown};
    Word max_port[LIBPMX_UNITS_MAX] = {};
    UWord alloc_mode[4] = {};
    Word intraband_chip_num{kUnknown};
    Word virtual_unit_num{kUnknown};
};
CardStattr g_stattr;

UWord g_online_lports[kBitmapWords] = {};
Word g_local_card_complete{0};
Word g_lc_complete{0};
Word g_all_complete{0};

// A node id below 1 is no node id: stored as unknown.
int32_t stored_node_id(int32_t node_id)
{
    return node_id < 1 ? kUnknown : node_id;
}

int32_t load(const Word &w)
{
    return w.load(std::memory_order_relaxed);
}

void store(Word &w, int32_t v)
{
    w.store(v, std::memory_order_relaxed);
}

// The identity value at pos; while it is unknown and the caller allows it, the record behind
// it is read first (every call again until a value arrives).
int32_t my_info_refreshed(int pos, int32_t flag)
{
    int32_t v = load(g_my_info[pos]);
    if (flag != 0 && v < 0) {
        if (pos == LIBPMX_MY_DEV_ID)
            libpmx_get_devid_from_dplib_mychss(nullptr);
        else
            libpmx_get_myinfo_from_dp_lib_myinfo(nullptr);
        v = load(g_my_info[pos]);
    }
    return v;
}

int32_t max_lport_id_detail(int32_t flag)
{
    const int32_t cached = load(g_stattr.max_lport_id);
    if (cached != kUnknown) return cached;
    if (flag == 0) {
        PMX_LOG_AS("libpmx_get_max_lport_id_detail", LIBPMX_ZLOG_WARN, "have not found max lport");
        return kUnknown;
    }
    int32_t value = kUnknown;
    if (libpmx_get_card_stattr_info(nullptr, &value, LIBPMX_STATTR_MAX_LPORT) != 0) return kUnknown;
    return value;
}

int32_t local_chip_num_detail(int32_t flag)
{
    int32_t virtual_units = 0;
    if (libpmx_get_my_virtual_unit_num(&virtual_units) != 0) virtual_units = 0;
    const int32_t cached = load(g_stattr.chip_num);
    if (cached != kUnknown) return cached - virtual_units;
    if (flag == 0) {
        PMX_LOG_AS("libpmx_get_local_chip_num_detail", LIBPMX_ZLOG_WARN, "get chip num failed(%d)",
                   cached);
        return kUnknown;
    }
    int32_t value = kUnknown;
    if (libpmx_get_card_stattr_info(nullptr, &value, LIBPMX_STATTR_CHIP_NUM) != 0) return kUnknown;
    return value - virtual_units;
}

// Max port and intraband count take every value below 1 as unknown, unlike the two above.
int max_port_by_unit_detail(uint32_t unit, int32_t *max_port, int32_t flag)
{
    static constexpr const char *kFunc = "libpmx_get_max_port_by_unit_detail";
    if (max_port == nullptr) {
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_ERROR, "max_port is null");
        return LIBPMX_E_FAIL;
    }
    *max_port = 0;
    if (unit >= LIBPMX_UNITS_MAX) {
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_WARN, "input param is invalid, unit:%d",
                   static_cast<int>(unit));
        return LIBPMX_E_INVAL;
    }
    const int32_t cached = load(g_stattr.max_port[unit]);
    if (cached >= 1) {
        *max_port = cached;
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_INFO, "unit:%d max_port:%d", static_cast<int>(unit), cached);
        return LIBPMX_OK;
    }
    if (flag == 0) {
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_WARN, "have not found max port of unit:%d",
                   static_cast<int>(unit));
        return LIBPMX_E_NOT_FOUND;
    }
    const int rc = libpmx_get_card_stattr_info(&unit, max_port, LIBPMX_STATTR_MAX_PORT);
    if (rc != 0)
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_ERROR, "failed, card_type:%d unit:%d ret:%d",
                   load(g_my_info[LIBPMX_MY_CARD_TYPE]), static_cast<int>(unit), rc);
    return rc;
}

int intraband_chip_num_detail(int32_t *num, int32_t flag)
{
    static constexpr const char *kFunc = "libpmx_get_intraband_chip_num_detail";
    if (num == nullptr) {
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_ERROR, "intra_chip_num is null");
        return LIBPMX_E_FAIL;
    }
    *num = 0;
    const int32_t cached = load(g_stattr.intraband_chip_num);
    if (cached >= 1) {
        *num = cached;
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_INFO, "intraband chip num:%d", cached);
        return LIBPMX_OK;
    }
    if (flag == 0) {
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_WARN, "have not found intraband chip num\n");
        return LIBPMX_E_NOT_FOUND;
    }
    const int rc = libpmx_get_card_stattr_info(nullptr, num, LIBPMX_STATTR_INTRABAND_CHIP_NUM);
    if (rc != 0)
        PMX_LOG_AS(kFunc, LIBPMX_ZLOG_ERROR, "failed, card_type:%d",
                   load(g_my_info[LIBPMX_MY_CARD_TYPE]));
    return rc;
}

} // namespace

extern "C" int libpmx_port_init(void)
{
    store(g_stattr.max_lport_id, kUnknown);
    store(g_stattr.chip_num, kUnknown);
    for (auto &w : g_stattr.max_port)
        store(w, 0);
    for (auto &w : g_stattr.alloc_mode)
        w.store(0, std::memory_order_relaxed);
    store(g_stattr.intraband_chip_num, kUnknown);
    store(g_stattr.virtual_unit_num, kUnknown);
    store(g_local_card_complete, 0);
    store(g_lc_complete, 0);
    store(g_all_complete, 0);
    return libpmx_port_table_init();
}

extern "C" int libpmx_online_port_array_init(void)
{
    for (auto &w : g_online_lports)
        w.store(0, std::memory_order_relaxed);
    PMX_DEBUG("online ports cleared, %d panel ports", LIBPMX_ONLINE_LPORT_MAX);
    return LIBPMX_OK;
}

extern "C" int libpmx_port_set_lport_online(int32_t lport, int online)
{
    if (lport < 0 || lport >= LIBPMX_ONLINE_LPORT_MAX) {
        PMX_ERROR("invalid lport:%d (max %d)", lport, LIBPMX_ONLINE_LPORT_MAX - 1);
        return LIBPMX_E_INVAL;
    }
    const uint32_t bit = 1u << (lport % 32);
    if (online != 0)
        g_online_lports[lport / 32].fetch_or(bit, std::memory_order_relaxed);
    else
        g_online_lports[lport / 32].fetch_and(~bit, std::memory_order_relaxed);
    PMX_DEBUG("lport:%d online:%d", lport, online != 0);
    return LIBPMX_OK;
}

extern "C" int libpmx_port_lport_is_online(int32_t lport)
{
    if (lport < 0 || lport >= LIBPMX_ONLINE_LPORT_MAX) return 0;
    const uint32_t word = g_online_lports[lport / 32].load(std::memory_order_relaxed);
    return (word >> (lport % 32)) & 1u;
}

extern "C" void libpmx_port_set_card_complete(int32_t local_card_complete, int32_t lc_complete,
                                              int32_t all_complete)
{
    store(g_local_card_complete, local_card_complete != 0);
    store(g_lc_complete, lc_complete != 0);
    store(g_all_complete, all_complete != 0);
    PMX_INFO("local card complete:%d, line card complete:%d, all complete:%d", local_card_complete != 0,
             lc_complete != 0, all_complete != 0);
}

extern "C" int libpmx_port_local_card_is_complete(void)
{
    return load(g_local_card_complete);
}

extern "C" int libpmx_port_lc_is_complete(void)
{
    return load(g_lc_complete);
}

extern "C" int libpmx_port_all_is_complete(void)
{
    return load(g_all_complete);
}

// ---- synchronous reads of the identity: the getters' refresh ----

// Stores the identity as the synchronous read gives it (sub-slot 0); info (five values, may be
// null) receives what was stored.
extern "C" int libpmx_get_myinfo_from_dp_lib_myinfo(int32_t *info)
{
    int32_t values[LIBPMX_MY_DEV_ID] = {0}; // every identity value but the device id
    const int rc = pmx::read_my_info(values);
    if (rc != LIBPMX_OK) return rc;
    libpmx_cache_set_my_info(values);
    if (info != nullptr) {
        std::memcpy(info, values, sizeof values);
        info[LIBPMX_MY_NODE_ID] = stored_node_id(info[LIBPMX_MY_NODE_ID]);
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_get_devid_from_dplib_mychss(int32_t *dev_id)
{
    int32_t devid = kUnknown;
    const int rc = pmx::read_my_chss(&devid);
    if (rc != LIBPMX_OK) return rc;
    libpmx_cache_set_my_chss(devid);
    if (dev_id != nullptr) *dev_id = devid;
    return LIBPMX_OK;
}

// ---- setters ----

extern "C" void libpmx_cache_set_my_info(const int32_t *info)
{
    if (info == nullptr) {
        PMX_ERROR("my_info is null");
        return;
    }
    const int32_t node_id = stored_node_id(info[LIBPMX_MY_NODE_ID]);
    store(g_my_info[LIBPMX_MY_NODE_TYPE], info[LIBPMX_MY_NODE_TYPE]);
    store(g_my_info[LIBPMX_MY_SLOT_ID], info[LIBPMX_MY_SLOT_ID]);
    store(g_my_info[LIBPMX_MY_CARD_TYPE], info[LIBPMX_MY_CARD_TYPE]);
    store(g_my_info[LIBPMX_MY_NODE_ID], node_id);
    store(g_my_info[LIBPMX_MY_SSLOT_ID], info[LIBPMX_MY_SSLOT_ID]);
    PMX_NOTICE("node_type:%d slot_id:%d card_type:%d node_id: %d sslot_id:%d",
               info[LIBPMX_MY_NODE_TYPE], info[LIBPMX_MY_SLOT_ID], info[LIBPMX_MY_CARD_TYPE],
               node_id, info[LIBPMX_MY_SSLOT_ID]);
}

extern "C" void libpmx_cache_set_my_chss(int32_t dev_id)
{
    store(g_my_info[LIBPMX_MY_DEV_ID], dev_id);
    PMX_NOTICE("dev_id:%d", dev_id);
}

extern "C" void libpmx_cache_set_card_statt(int32_t max_lport, int32_t chip_num,
                                            const int32_t *max_port, const uint32_t *alloc_mode,
                                            int32_t intraband_chip_num, int32_t virtual_unit_num)
{
    if (max_port == nullptr || alloc_mode == nullptr) {
        PMX_ERROR("invalid param max_port:%p alloc_mode:%p\n", static_cast<const void *>(max_port),
                  static_cast<const void *>(alloc_mode));
        return;
    }
    store(g_stattr.max_lport_id, max_lport);
    store(g_stattr.chip_num, chip_num);
    for (int u = 0; u < LIBPMX_UNITS_MAX; ++u)
        store(g_stattr.max_port[u], max_port[u]);
    for (int i = 0; i < 4; ++i)
        g_stattr.alloc_mode[i].store(alloc_mode[i], std::memory_order_relaxed);
    store(g_stattr.intraband_chip_num, intraband_chip_num);
    store(g_stattr.virtual_unit_num, virtual_unit_num);
    PMX_INFO("cache local g_max_lport_id[%d] chip_num[%d].\n", max_lport, chip_num);
}

// ---- identity getters ----

extern "C" void libpmx_get_my_info(int32_t *out)
{
    if (out == nullptr) {
        PMX_ERROR("my_info is NULL");
        return;
    }
    for (int i = 0; i < LIBPMX_MY_INFO_NUM; ++i)
        out[i] = load(g_my_info[i]);
}

extern "C" int32_t libpmx_get_my_node(int32_t flag)
{
    const int32_t v = my_info_refreshed(LIBPMX_MY_NODE_ID, flag);
    PMX_INFO("nodid = %d flag = %d", v, flag);
    return v;
}

extern "C" int32_t libpmx_get_my_slot(int32_t flag)
{
    const int32_t v = my_info_refreshed(LIBPMX_MY_SLOT_ID, flag);
    PMX_INFO("slotid = %d flag = %d", v, flag);
    return v;
}

// The sub-slot, node type and device id getters log under the slot text.
extern "C" int32_t libpmx_get_my_sslot(int32_t flag)
{
    const int32_t v = my_info_refreshed(LIBPMX_MY_SSLOT_ID, flag);
    PMX_INFO("slotid = %d flag = %d", v, flag);
    return v;
}

extern "C" int32_t libpmx_get_my_node_type(int32_t flag)
{
    const int32_t v = my_info_refreshed(LIBPMX_MY_NODE_TYPE, flag);
    PMX_INFO("slotid = %d flag = %d", v, flag);
    return v;
}

extern "C" int32_t libpmx_get_my_card_type(int32_t flag)
{
    const int32_t v = my_info_refreshed(LIBPMX_MY_CARD_TYPE, flag);
    PMX_INFO("card_type = %d flag = %d", v, flag);
    return v;
}

extern "C" int32_t libpmx_get_my_dev_id(int32_t flag)
{
    const int32_t v = my_info_refreshed(LIBPMX_MY_DEV_ID, flag);
    PMX_INFO("slotid = %d flag = %d", v, flag);
    return v;
}

extern "C" int libpmx_get_my_virtual_unit_num(int32_t *num)
{
    if (num == nullptr) {
        PMX_ERROR("param: virtual_unit_num is null.\n");
        return LIBPMX_E_FAIL;
    }
    *num = 0;
    const int32_t cached = load(g_stattr.virtual_unit_num);
    if (cached != kUnknown) {
        *num = cached;
        return LIBPMX_OK;
    }
    const int32_t card_type = libpmx_get_my_card_type(1);
    int32_t count = 0;
    const int rc = libpmx_get_virtual_unit_num_by_card_type(card_type, &count);
    if (rc != 0) {
        // Not cached: the next call asks again.
        PMX_ERROR("libpmx_get_virtual_unit_num_by_card_type fail, card_type:%d, ret:%d", card_type,
                  rc);
        return rc;
    }
    store(g_stattr.virtual_unit_num, count);
    *num = count;
    return LIBPMX_OK;
}

// ---- card static attributes ----

extern "C" int libpmx_get_card_stattr_info(const uint32_t *unit, void *dst, int32_t kind)
{
    if (dst == nullptr) {
        PMX_ERROR("dst is null type:%d", kind);
        return LIBPMX_E_FAIL;
    }
    if (load(g_my_info[LIBPMX_MY_CARD_TYPE]) == kUnknown) {
        PMX_INFO("wait for DpLibMyInfo");
        libpmx_get_myinfo_from_dp_lib_myinfo(nullptr);
    }
    PMX_INFO("wait for DmCardStattrT");
    // A failed read leaves the zeroed record: the caller gets zeros, not an error. The record
    // read here is never cached; only the change callback fills the process-wide attributes.
    libpmx_card_stattr_t rec;
    std::memset(&rec, 0, sizeof rec);
    libpmx_get_lc_card_stattr(load(g_my_info[LIBPMX_MY_CARD_TYPE]), &rec);

    auto *out = static_cast<int32_t *>(dst);
    switch (kind) {
    case LIBPMX_STATTR_MAX_LPORT:
        *out = rec.max_lport_id;
        PMX_INFO("max lport is:%d", rec.max_lport_id);
        return LIBPMX_OK;
    case LIBPMX_STATTR_CHIP_NUM:
        *out = rec.chip_num;
        PMX_INFO("chip num is:%d", rec.chip_num);
        return LIBPMX_OK;
    case LIBPMX_STATTR_MAX_PORT:
        if (unit == nullptr) {
            PMX_ERROR("param is null");
            return LIBPMX_E_INVAL;
        }
        if (*unit >= LIBPMX_UNITS_MAX) {
            PMX_ERROR("invalid unit:%d", static_cast<int>(*unit));
            return LIBPMX_E_INVAL;
        }
        *out = rec.max_port[*unit];
        PMX_INFO("max port[%d] is:%d", static_cast<int>(*unit), rec.max_port[*unit]);
        return LIBPMX_OK;
    case LIBPMX_STATTR_ALLOC_MODE:
        std::memcpy(dst, rec.alloc_mode, sizeof rec.alloc_mode);
        return LIBPMX_OK;
    case LIBPMX_STATTR_INTRABAND_CHIP_NUM:
        *out = rec.intraband_chip_num;
        PMX_INFO("intraband chip num is:%d", rec.intraband_chip_num);
        return LIBPMX_OK;
    default:
        PMX_INFO("invalid type:%d", kind);
        return LIBPMX_E_INVAL;
    }
}

extern "C" int32_t libpmx_get_max_lport_id(void)
{
    return max_lport_id_detail(1);
}

extern "C" int32_t libpmx_get_max_lport_id_ext(void)
{
    return max_lport_id_detail(0);
}

extern "C" int32_t libpmx_get_local_chip_num(void)
{
    return local_chip_num_detail(1);
}

extern "C" int32_t libpmx_get_local_chip_num_ext(void)
{
    return local_chip_num_detail(0);
}

extern "C" int libpmx_get_max_port_by_unit(uint32_t unit, int32_t *max_port)
{
    return max_port_by_unit_detail(unit, max_port, 2);
}

extern "C" int libpmx_get_max_port_by_unit_ext(uint32_t unit, int32_t *max_port)
{
    return max_port_by_unit_detail(unit, max_port, 0);
}

extern "C" int libpmx_get_intraband_chip_num(int32_t *num)
{
    return intraband_chip_num_detail(num, 2);
}

extern "C" int libpmx_get_intraband_chip_num_ext(int32_t *num)
{
    return intraband_chip_num_detail(num, 0);
}

extern "C" int libpmx_port_get_lc_modid_alloc_mode(uint32_t *mode4)
{
    if (mode4 == nullptr) {
        PMX_ERROR("alloc_mode is null");
        return LIBPMX_E_FAIL;
    }
    // A stored attribute record is what makes the alloc mode count as cached, whatever its
    // words are; the chip count tells whether one was stored.
    if (load(g_stattr.chip_num) < 1)
        return libpmx_get_card_stattr_info(nullptr, mode4, LIBPMX_STATTR_ALLOC_MODE);
    for (int i = 0; i < 4; ++i)
        mode4[i] = g_stattr.alloc_mode[i].load(std::memory_order_relaxed);
    return LIBPMX_OK;
}

extern "C" void libpmx_get_card_statt(libpmx_card_stattr_t *out)
{
    if (out == nullptr) {
        PMX_ERROR("card stattr is null");
        return;
    }
    out->max_lport_id = load(g_stattr.max_lport_id);
    out->chip_num = load(g_stattr.chip_num);
    for (int u = 0; u < LIBPMX_UNITS_MAX; ++u)
        out->max_port[u] = load(g_stattr.max_port[u]);
    for (int i = 0; i < 4; ++i)
        out->alloc_mode[i] = g_stattr.alloc_mode[i].load(std::memory_order_relaxed);
    out->intraband_chip_num = load(g_stattr.intraband_chip_num);
    out->virtual_unit_num = load(g_stattr.virtual_unit_num);
}
