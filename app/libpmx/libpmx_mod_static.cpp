// Static module ids: the ids a card's chips will use, computed from the card's own position and
// its allocation parameters before the module table exists (capability, ctc and dune schemes).
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mod"
#include "libpmx_log.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "libpmx_cap.h"
#include "libpmx_errno.h"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"

namespace
{

constexpr useconds_t kRetryUs = 100000;

// The ids of a scheme in one line of at most 128 bytes ("%d, " each), or its failure, under the
// scheme's function name (func).
void log_ids(const char *func, const char *scheme, const uint32_t *ids, int32_t n, int rc)
{
    if (rc != LIBPMX_OK) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "get %s-static-modid failed, ret %d", scheme, rc);
        return;
    }
    char buf[128] = {0};
    size_t used = 0;
    bool overflowed = false;
    for (int32_t i = 0; i < n && !overflowed; ++i) {
        const int w = std::snprintf(buf + used, sizeof buf - used, "%d, ", static_cast<int32_t>(ids[i]));
        if (w < 0 || used + static_cast<size_t>(w) >= sizeof buf) {
            overflowed = true;
            buf[used] = '\0';
        } else {
            used += static_cast<size_t>(w);
        }
    }
    PMX_LOG_AS(func, LIBPMX_ZLOG_NOTICE, "did get %s-static-modid: [ %s ] %s", scheme, buf,
               overflowed ? "buff overflowed !!!" : "");
}

// The ids the card's virtual units take when they are not in use: the card type's virtual chips
// times the ids a unit takes, when this card runs without virtual units.
uint32_t unused_virtual_ids(uint32_t idnum_per_unit)
{
    int32_t virtual_units = 0;
    if (libpmx_get_my_virtual_unit_num(&virtual_units) != LIBPMX_OK || virtual_units != 0) return 0;
    libpmx_card_stattr_t attr{};
    libpmx_get_card_statt(&attr);
    return attr.virtual_unit_num > 0 ? static_cast<uint32_t>(attr.virtual_unit_num) * idnum_per_unit : 0;
}

// Waits until get answers a value that is not negative, every 0.1 s, without end; each attempt
// is traced by trace(attempt, value).
template <class Get, class Trace> int32_t wait_for(Get get, Trace trace)
{
    for (int n = 1;; ++n) {
        const int32_t v = get(1);
        trace(n, v);
        if (v >= 0) return v;
        usleep(kRetryUs);
    }
}

} // namespace

extern "C" int libpmx_mod_alloc_id_static(int32_t node_type, int32_t dev, int32_t slot, int32_t card_type, uint32_t *ids,
                                          int32_t capacity, int32_t *count)
{
    if (ids == nullptr || count == nullptr) {
        PMX_ERROR("invalid param");
        return LIBPMX_E_INVAL;
    }
    int32_t cap_id_num = 0, min = 0, max = 0, num_per_slot = 0;
    int rc = libpmx_cap_get_cap_of_node(node_type, &cap_id_num);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get modid info failed from cap node type=%#x ret:%d", node_type, rc);
        return rc;
    }
    rc = libpmx_cap_get_modid_info(card_type, &min, &max, &num_per_slot);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get modid info failed from cap ret:%d", rc);
        return rc;
    }
    uint32_t mode4[4] = {0, 0, 0, 0};
    libpmx_port_get_lc_modid_alloc_mode(mode4); // the ids a unit takes, for the unused virtual units
    cap_id_num -= static_cast<int32_t>(unused_virtual_ids(mode4[2]));
    if (capacity < cap_id_num) {
        PMX_ERROR("invaid id size(%d %d)", capacity, cap_id_num);
        return LIBPMX_E_INVAL;
    }
    int32_t p;
    switch (node_type) {
    case 1: p = dev - 1; break;
    case 2: p = slot + dev * 2 - 32; break;
    case 3:
    case 7: {
        int32_t lc_slots = libpmx_cap_get_lc_slots_num();
        if (lc_slots <= 0) lc_slots = 21;
        p = dev == 1 ? slot : slot + (dev - 1) * lc_slots;
        break;
    }
    case 5: p = dev == 1 ? slot - 22 : slot + dev * 8 - 30; break;
    default: PMX_ERROR("invaid node type:%d", node_type); return LIBPMX_E_INVAL;
    }
    PMX_DEBUG("cap_id_num:%d gslot:%d min:%d max:%d num_per_slot:%d", cap_id_num, p, min, max, num_per_slot);
    const int32_t base = min + num_per_slot * p;
    for (int32_t i = 0; i < cap_id_num; ++i) {
        // Moved up by every invalid modid from min to it, counted anew until the count stays.
        int32_t candidate = base + i;
        uint32_t counted = 0;
        for (;;) {
            const uint32_t n = libpmx_cap_count_invalid_modid(min, candidate);
            if (n <= counted) break;
            candidate += static_cast<int32_t>(n - counted);
            counted = n;
        }
        ids[i] = static_cast<uint32_t>(candidate);
        PMX_DEBUG("id[%d]:%u", i, ids[i]);
    }
    *count = cap_id_num;
    return LIBPMX_OK;
}

extern "C" int libpmx_mod_alloc_id_ctc_static(int32_t gslot, const uint32_t *mode4, uint32_t *ids)
{
    if (mode4 == nullptr || ids == nullptr) {
        PMX_ERROR("invalid param");
        return LIBPMX_E_FAIL;
    }
    const uint32_t id_num = mode4[1], idnum_per_unit = mode4[2], support_num = mode4[3];
    PMX_DEBUG("begin ctc gslot %d alloc %d chipid... idnum_per_unit %d", gslot, static_cast<int32_t>(id_num),
              static_cast<int32_t>(idnum_per_unit));
    if (id_num > 2 || idnum_per_unit > 1 || gslot < 0 || gslot >= LIBPMX_GSLOT_MAX) {
        PMX_ERROR("invalid param");
        return LIBPMX_E_FAIL;
    }
    const int32_t mod_base = (gslot & 31) == 30 ? (gslot >> 5) + 1 : gslot;
    PMX_DEBUG("mod_base:%d", mod_base);
    for (uint32_t i = 0; i < id_num; ++i) {
        ids[i] = static_cast<uint32_t>((mod_base + 16) * 2) + i;
        PMX_DEBUG("id[%d]:%d index:%d", static_cast<int32_t>(i), static_cast<int32_t>(ids[i]), static_cast<int32_t>(i));
        if (ids[i] >= support_num) {
            PMX_ERROR("id[%d](%u) bigger than support_num(%d)", static_cast<int32_t>(i), ids[i],
                      static_cast<int32_t>(support_num));
            return LIBPMX_E_FAIL;
        }
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_mod_alloc_id_dune_static(int32_t gslot, const uint32_t *mode4, uint32_t *ids)
{
    if (mode4 == nullptr || ids == nullptr) {
        PMX_ERROR("invalid param");
        return LIBPMX_E_FAIL;
    }
    const uint32_t id_num = mode4[1], idnum_per_unit = mode4[2];
    PMX_DEBUG("begin dune gslot %d alloc %d chipid... idnum_per_unit %d", gslot, static_cast<int32_t>(id_num),
              static_cast<int32_t>(idnum_per_unit));
    if (id_num > 12 || idnum_per_unit > 2 || gslot < 0 || gslot >= LIBPMX_GSLOT_MAX) {
        PMX_ERROR("invalid param");
        PMX_ERROR("get %s-static-modid failed, ret %d", "dune", LIBPMX_E_FAIL);
        return LIBPMX_E_FAIL;
    }
    for (uint32_t i = 0; i < id_num; ++i) {
        const uint32_t index = idnum_per_unit == 1 ? i * 2 : i;
        const auto g = static_cast<uint32_t>(gslot);
        ids[i] = index <= 7 ? g * 8 + 18 + index : g * 4 + 1042 + (index - 8);
        PMX_DEBUG("id:%d :%u index:%d", static_cast<int32_t>(i), ids[i], static_cast<int32_t>(index));
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_get_static_modid_detail(uint32_t *ids, int32_t capacity, int32_t *count, void (*wait)(void),
                                              const char *label)
{
    if (ids == nullptr || count == nullptr || capacity <= 0) {
        PMX_ERROR("invalid param");
        return LIBPMX_E_INVAL;
    }
    PMX_INFO("begin block for %s", label);
    if (wait != nullptr) wait();
    PMX_INFO("end   block for %s", label);
    const int32_t node_type =
        wait_for(libpmx_get_my_node_type, [](int n, int32_t v) { PMX_DEBUG("#%d get node_type %d", n, v); });
    const int32_t dev = wait_for(libpmx_get_my_dev_id, [](int n, int32_t v) { PMX_DEBUG("#%d get dev %d", n, v); });
    const int32_t slot = libpmx_get_my_slot(1);
    const int32_t sslot = libpmx_get_my_sslot(1);
    const int32_t gslot = libpmx_get_gslot_by_dev_slot_sslot(dev, slot, sslot);
    PMX_DEBUG("gslot:%d devid:%d slot:%d sslot:%d node_type:%d", gslot, dev, slot, sslot, node_type);
    uint32_t mode4[4] = {0, 0, 0, 0};
    int rc = libpmx_port_get_lc_modid_alloc_mode(mode4);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get modid alloc mode failed");
        return rc;
    }
    const uint32_t alloc_mode = mode4[0];
    PMX_DEBUG("alloc_mode:%d id_num:%d idnum_per_unit:%d support_num:%d", static_cast<int32_t>(alloc_mode),
              static_cast<int32_t>(mode4[1]), static_cast<int32_t>(mode4[2]), static_cast<int32_t>(mode4[3]));
    int32_t n = 0;
    if (alloc_mode == 4) {
        rc = libpmx_mod_alloc_id_static(node_type, dev, slot, libpmx_get_my_card_type(1), ids, capacity, &n);
        log_ids("libpmx_mod_alloc_id_static", "cap", ids, n, rc);
    } else if (node_type == 2) {
        ids[0] = static_cast<uint32_t>(slot + (dev - 1) * 2 - 21);
        n = 1;
        PMX_DEBUG("id[0]:%u id_num:%d", ids[0], n);
    } else if (alloc_mode >= 1 && alloc_mode <= 3) {
        mode4[1] -= unused_virtual_ids(mode4[2]);
        const auto id_num = static_cast<int32_t>(mode4[1]);
        if (capacity < id_num) {
            PMX_ERROR("id_size(%d) littler than id_num(%d)", capacity, id_num);
            rc = LIBPMX_E_FAIL;
        } else if (alloc_mode == 1) {
            rc = libpmx_mod_alloc_id_dune_static(gslot, mode4, ids);
            if (rc == LIBPMX_OK) log_ids("libpmx_mod_alloc_id_dune_static", "dune", ids, id_num, rc); // its failure is logged
        } else if (alloc_mode == 2) {
            rc = libpmx_mod_alloc_id_ctc_static(gslot, mode4, ids);
            log_ids("libpmx_mod_alloc_id_ctc_static", "ctc", ids, id_num, rc);
        } else {
            PMX_ERROR("invalid mode alloc type:%d", static_cast<int32_t>(alloc_mode));
            rc = LIBPMX_E_FAIL;
        }
        n = id_num;
    } else if (alloc_mode == 0) {
        PMX_ERROR("alloc type:%d don't support static got modid", static_cast<int32_t>(alloc_mode));
        rc = LIBPMX_E_FAIL;
    } else {
        PMX_ERROR("invalid mode alloc type:%d", static_cast<int32_t>(alloc_mode));
        rc = LIBPMX_E_FAIL;
    }
    PMX_DEBUG("id_num:%d, ret:%d", n, rc);
    if (rc == LIBPMX_OK) *count = n;
    return rc;
}

extern "C" int libpmx_get_static_modid(uint32_t *ids, int32_t capacity, int32_t *count)
{
    return libpmx_get_static_modid_detail(ids, capacity, count, nullptr, "complete-lc");
}

extern "C" int libpmx_get_static_modid_supporting_subcard(uint32_t *ids, int32_t capacity, int32_t *count)
{
    return libpmx_get_static_modid_detail(ids, capacity, count, libpmx_block_for_ndm_complete_stattr,
                                          "complete-stattr");
}
