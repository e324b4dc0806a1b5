// Sub-AP and sub-route caches: the records that tie a sub-interface to its parent port and its
// evlan, saved and removed by the change callbacks, looked up by sub-interface phyid.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_log.h"

#include <cstdio>
#include <cstring>

#include "libpmx_dbg_args.hpp"
#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_lock.hpp"
#include "libpmx_mom.h"

namespace
{

// Guards the libpmx_sub_ap_info cache. Never held together with the sub-route lock.
pmx::RwLock g_sub_ap_lock{"sub-AP lock", pmx::LockRank::SubAp};
// Guards the libpmx_sub_route_info cache.
pmx::RwLock g_sub_route_lock{"sub-route lock", pmx::LockRank::SubRoute};

// Phyid types of sub-interfaces (top 8 bits); the low 24 bits carry the ifx.
constexpr uint32_t kSubRouteType = LIBPMX_PHYID_SUB_ROUTE;
constexpr uint32_t kSubApType = LIBPMX_PHYID_SUB_AP;

constexpr uint32_t phyid_type(uint32_t phyid)
{
    return phyid >> 24;
}
constexpr uint32_t phyid_ifx(uint32_t phyid)
{
    return phyid & 0xFFFFFFu;
}

// Read mode of the convenience getters: read the database and wait.
constexpr int kReadWait = LIBPMX_READ_WAIT;

template <class Rec> bool same(const Rec &a, const Rec &b)
{
    return std::memcmp(&a, &b, sizeof(Rec)) == 0;
}

int dump_cmd(const char *name, const char *args, void (*dump)(uint32_t))
{
    pmx::DbgArgs a(args, {"ifx"});
    if (!a.error().empty()) {
        ssat_printf("%s: %s\nusage: %s ifx=%%u (0 or none for all)\n", name, a.error().c_str(), name);
        return LIBPMX_E_INVAL;
    }
    dump(static_cast<uint32_t>(a.get("ifx", 0)));
    return LIBPMX_OK;
}

int cmd_dump_sub_ap(const char *args)
{
    return dump_cmd("dump_sub_ap", args, libpmx_dump_cache_sub_ap_info);
}

int cmd_dump_sub_route(const char *args)
{
    return dump_cmd("dump_sub_route", args, libpmx_dump_cache_sub_route_info);
}

const libpmx_dbg_cmd_t kSubIntfCommands[] = {
    {"dump_sub_ap", "ifx=%u (0 or none for all): print the sub-AP cache", cmd_dump_sub_ap},
    {"dump_sub_route", "ifx=%u (0 or none for all): print the sub-route cache", cmd_dump_sub_route},
};

struct DumpCount {
    uint32_t n;
};

int print_sub_ap_row(void *entry, void *arg)
{
    const auto *r = static_cast<const libpmx_sub_ap_info_t *>(entry);
    ssat_printf("|%-8u|0x%-8x|%-8u|%-8u|0x%-10x|\n", r->ifx, r->phyid, r->evlan, r->trunk,
                r->master_phyid);
    if (arg != nullptr) ++static_cast<DumpCount *>(arg)->n;
    return 0;
}

int print_sub_route_row(void *entry, void *arg)
{
    const auto *r = static_cast<const libpmx_sub_route_info_t *>(entry);
    ssat_printf("|%-8u|0x%-8x|%-8u|0x%-10x|\n", r->ifx, r->phyid, r->evlan, r->master_phyid);
    if (arg != nullptr) ++static_cast<DumpCount *>(arg)->n;
    return 0;
}

} // namespace

extern "C" int libpmx_intf_sub_init(void)
{
    return libpmx_dbg_add_cmds(kSubIntfCommands,
                               sizeof kSubIntfCommands / sizeof kSubIntfCommands[0]);
}

// ---- sub-AP ----

extern "C" int libpmx_save_cache_sub_ap_info(const libpmx_sub_ap_info_t *info,
                                             libpmx_sub_ap_info_t *old_info, uint32_t *has_old,
                                             uint32_t *changed)
{
    if (info == nullptr) {
        PMX_ERROR("info is null");
        return LIBPMX_E_FAIL;
    }
    if (old_info == nullptr) {
        PMX_ERROR("old_info is null");
        return LIBPMX_E_FAIL;
    }
    if (changed == nullptr) {
        PMX_ERROR("changed is null");
        return LIBPMX_E_FAIL;
    }
    const libpmx_sub_ap_info_t want = *info; // old_info may alias info
    libpmx_sub_ap_info_t cached{};
    bool found = false;
    {
        pmx::Guard guard(g_sub_ap_lock, pmx::Access::Read);
        if (const libpmx_sub_ap_info_t *c = libpmx_sub_ap_info_get(want.ifx)) {
            cached = *c;
            found = true;
        }
    }
    if (found) {
        *old_info = cached;
        // has_old is not required of sub-AP callers: written when given.
        if (has_old != nullptr) *has_old = 1;
        *changed = same(cached, want) ? 0 : 1;
        if (*changed == 0) {
            PMX_DEBUG(
                "found same cache ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x",
                want.ifx, want.phyid, want.evlan, want.trunk, want.master_phyid);
            return LIBPMX_OK;
        }
        PMX_WARN("cache ifx:%u, old (phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x) => new "
                 "(phyid: 0x%x, "
                 "evlan: %u, trunk: %u, master_phyid: 0x%x)",
                 want.ifx, cached.phyid, cached.evlan, cached.trunk, cached.master_phyid,
                 want.phyid, want.evlan, want.trunk, want.master_phyid);
    } else {
        if (has_old != nullptr) *has_old = 0;
        *changed = same(libpmx_sub_ap_info_t{}, want) ? 0 : 1;
    }
    libpmx_sub_ap_info_t *stored = nullptr;
    {
        pmx::Guard guard(g_sub_ap_lock, pmx::Access::Write);
        stored = libpmx_sub_ap_info_create(&want);
    }
    if (stored == nullptr) {
        PMX_ERROR("memory error to save cache ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u", want.ifx,
                  want.phyid, want.evlan, want.trunk);
        return LIBPMX_E_NOMEM;
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_remove_cache_sub_ap_info(const libpmx_sub_ap_info_t *info,
                                               libpmx_sub_ap_info_t *old_info, uint32_t *has_old)
{
    if (info == nullptr) {
        PMX_ERROR("info is null");
        return LIBPMX_E_FAIL;
    }
    if (old_info == nullptr) {
        PMX_ERROR("old_info is null");
        return LIBPMX_E_FAIL;
    }
    if (has_old == nullptr) {
        PMX_ERROR("has_old is null");
        return LIBPMX_E_FAIL;
    }
    const libpmx_sub_ap_info_t want = *info;
    libpmx_sub_ap_info_t cached{};
    bool found = false;
    {
        pmx::Guard guard(g_sub_ap_lock, pmx::Access::Write);
        if (libpmx_sub_ap_info_t *c = libpmx_sub_ap_info_get(want.ifx)) {
            cached = *c;
            found = true;
            libpmx_sub_ap_info_destroy(c);
        }
    }
    if (!found) {
        *has_old = 0;
        PMX_ERROR("sub_ap cache not found, ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u", want.ifx,
                  want.phyid, want.evlan, want.trunk);
        return LIBPMX_OK;
    }
    *old_info = cached;
    *has_old = 1;
    if (!same(cached, want))
        PMX_ERROR("sub_ap cache diff, ifx:%u, expected (phyid: 0x%x, evlan: %u, trunk: %u, "
                  "master_phyid: 0x%x), "
                  "cached (phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x)",
                  want.ifx, want.phyid, want.evlan, want.trunk, want.master_phyid, cached.phyid,
                  cached.evlan, cached.trunk, cached.master_phyid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_sub_ap_info_by_phyid_detail(uint32_t phyid, libpmx_sub_ap_info_t *out,
                                                      int flag)
{
    if (out == nullptr) {
        PMX_ERROR("param is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    if (phyid_type(phyid) != kSubApType) {
        PMX_ERROR("not sub_ap phyid: 0x%x", phyid);
        return LIBPMX_E_INVAL;
    }
    const uint32_t ifx = phyid_ifx(phyid);
    libpmx_sub_ap_info_t hit{};
    bool found = false;
    {
        pmx::Guard guard(g_sub_ap_lock, pmx::Access::Read);
        if (const libpmx_sub_ap_info_t *c = libpmx_sub_ap_info_get(ifx)) {
            hit = *c;
            found = true;
        }
    }
    if (found) {
        *out = hit;
        PMX_DEBUG("did get cache, ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u", hit.ifx, hit.phyid,
                  hit.evlan, hit.trunk);
        return LIBPMX_OK;
    }
    if (flag == 0) {
        PMX_ERROR("cache not found, ifx:%u, flag: %d", ifx, flag);
        return LIBPMX_E_NOT_FOUND;
    }
    return libpmx_get_sub_ap_info_from_db(ifx, out, flag);
}

extern "C" int libpmx_get_ap_phyid_by_sub_ap_phyid(uint32_t phyid, uint32_t *master_phyid, int flag)
{
    if (master_phyid == nullptr) {
        PMX_ERROR("master_phyid is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    libpmx_sub_ap_info_t rec{};
    const int rc = libpmx_get_sub_ap_info_by_phyid_detail(phyid, &rec, flag);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("not found for sub_ap phyid: 0x%x", phyid);
        return rc;
    }
    *master_phyid = rec.master_phyid;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_evlan_trunk_by_sub_ap_phyid(uint32_t phyid, uint32_t *evlan,
                                                      uint32_t *trunk, int flag)
{
    if (evlan == nullptr || trunk == nullptr) {
        PMX_ERROR("param invalid: evlan or trunk is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    libpmx_sub_ap_info_t rec{};
    const int rc = libpmx_get_sub_ap_info_by_phyid_detail(phyid, &rec, flag);
    if (rc != LIBPMX_OK) return rc;
    *evlan = rec.evlan;
    *trunk = rec.trunk;
    return LIBPMX_OK;
}

extern "C" uint32_t libpmx_evlan_of_sub_ap(uint32_t phyid)
{
    libpmx_sub_ap_info_t rec{};
    const int rc = libpmx_get_sub_ap_info_by_phyid_detail(phyid, &rec, kReadWait);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("failed to get evlan, ret = %d, phyid = 0x%x", rc, phyid);
        return 0;
    }
    return rec.evlan;
}

extern "C" uint32_t libpmx_trunk_of_sub_ap(uint32_t phyid)
{
    libpmx_sub_ap_info_t rec{};
    const int rc = libpmx_get_sub_ap_info_by_phyid_detail(phyid, &rec, kReadWait);
    if (rc != LIBPMX_OK) {
        // The evlan wording is the established text of this failure.
        PMX_ERROR("failed to get evlan, ret = %d, phyid = 0x%x", rc, phyid);
        return 0;
    }
    return rec.trunk;
}

extern "C" void libpmx_sub_ap_info_for_each_with_rdlock(int (*op)(void *entry, void *arg),
                                                        void *arg, int sorted)
{
    if (op == nullptr) {
        PMX_ERROR("each_op is null");
        return;
    }
    pmx::Guard guard(g_sub_ap_lock, pmx::Access::Read);
    libpmx_sub_ap_info_for_each(op, arg, sorted);
}

extern "C" void libpmx_dump_cache_sub_ap_info(uint32_t ifx)
{
    ssat_printf("|%-8s|%-10s|%-8s|%-8s|%-12s|\n", "ifx", "phyid", "evlan", "trunk", "master_phyid");
    pmx::Guard guard(g_sub_ap_lock, pmx::Access::Read);
    if (ifx != 0) {
        if (libpmx_sub_ap_info_t *r = libpmx_sub_ap_info_get(ifx))
            print_sub_ap_row(r, nullptr);
        else
            ssat_printf("not found evlan info for ifx:%u ! \n", ifx);
        return;
    }
    DumpCount count{0};
    libpmx_sub_ap_info_for_each(print_sub_ap_row, &count, 1);
    ssat_printf("----total = %u----\n", count.n);
}

// ---- sub-route ----

extern "C" int libpmx_save_cache_sub_route_info(const libpmx_sub_route_info_t *info,
                                                libpmx_sub_route_info_t *old_info,
                                                uint32_t *has_old, uint32_t *changed)
{
    if (info == nullptr) {
        PMX_ERROR("info is null");
        return LIBPMX_E_FAIL;
    }
    if (old_info == nullptr) {
        PMX_ERROR("old_info is null");
        return LIBPMX_E_FAIL;
    }
    if (has_old == nullptr) {
        PMX_ERROR("has_old is null");
        return LIBPMX_E_FAIL;
    }
    if (changed == nullptr) {
        PMX_ERROR("changed is null");
        return LIBPMX_E_FAIL;
    }
    const libpmx_sub_route_info_t want = *info; // old_info may alias info
    libpmx_sub_route_info_t cached{};
    bool found = false;
    {
        pmx::Guard guard(g_sub_route_lock, pmx::Access::Read);
        if (const libpmx_sub_route_info_t *c = libpmx_sub_route_info_get(want.ifx)) {
            cached = *c;
            found = true;
        }
    }
    if (found) {
        *old_info = cached;
        *has_old = 1;
        *changed = same(cached, want) ? 0 : 1;
        if (*changed == 0) {
            PMX_DEBUG("found same cache ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x",
                      want.ifx, want.phyid, want.evlan, want.master_phyid);
            return LIBPMX_OK;
        }
        PMX_WARN("cache ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x => will change to "
                 "phyid: 0x%x, evlan: "
                 "%u, master_phyid: 0x%x",
                 want.ifx, cached.phyid, cached.evlan, cached.master_phyid, want.phyid, want.evlan,
                 want.master_phyid);
    } else {
        *has_old = 0;
        *changed = same(libpmx_sub_route_info_t{}, want) ? 0 : 1;
    }
    libpmx_sub_route_info_t *stored = nullptr;
    {
        pmx::Guard guard(g_sub_route_lock, pmx::Access::Write);
        stored = libpmx_sub_route_info_create(&want);
    }
    if (stored == nullptr) {
        PMX_ERROR("memory error to save cache ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x",
                  want.ifx, want.phyid, want.evlan, want.master_phyid);
        return LIBPMX_E_NOMEM;
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_remove_cache_sub_route_info(const libpmx_sub_route_info_t *info,
                                                  libpmx_sub_route_info_t *old_info,
                                                  uint32_t *has_old)
{
    if (info == nullptr) {
        PMX_ERROR("info is null");
        return LIBPMX_E_FAIL;
    }
    if (old_info == nullptr) {
        PMX_ERROR("old_info is null");
        return LIBPMX_E_FAIL;
    }
    if (has_old == nullptr) {
        PMX_ERROR("has_old is null");
        return LIBPMX_E_FAIL;
    }
    const libpmx_sub_route_info_t want = *info;
    libpmx_sub_route_info_t cached{};
    bool found = false;
    {
        pmx::Guard guard(g_sub_route_lock, pmx::Access::Write);
        if (libpmx_sub_route_info_t *c = libpmx_sub_route_info_get(want.ifx)) {
            cached = *c;
            found = true;
            libpmx_sub_route_info_destroy(c);
        }
    }
    if (!found) {
        *has_old = 0;
        PMX_ERROR("sub_route cache not found, ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x",
                  want.ifx, want.phyid, want.evlan, want.master_phyid);
        return LIBPMX_OK;
    }
    *old_info = cached;
    *has_old = 1;
    if (!same(cached, want))
        PMX_ERROR("sub_route cache diff, ifx:%u, expected (phyid: 0x%x, evlan: %u, master_phyid: "
                  "0x%x), cached "
                  "(phyid: 0x%x, evlan: %u, master_phyid: 0x%x)",
                  want.ifx, want.phyid, want.evlan, want.master_phyid, cached.phyid, cached.evlan,
                  cached.master_phyid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_sub_route_info_by_phyid_detail(uint32_t phyid,
                                                         libpmx_sub_route_info_t *out, int flag)
{
    if (out == nullptr) {
        PMX_ERROR("param is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    if (phyid_type(phyid) != kSubRouteType) {
        PMX_ERROR("not sub_route phyid: 0x%x", phyid);
        return LIBPMX_E_INVAL;
    }
    const uint32_t ifx = phyid_ifx(phyid);
    libpmx_sub_route_info_t hit{};
    bool found = false;
    {
        pmx::Guard guard(g_sub_route_lock, pmx::Access::Read);
        if (const libpmx_sub_route_info_t *c = libpmx_sub_route_info_get(ifx)) {
            hit = *c;
            found = true;
        }
    }
    if (found) {
        *out = hit;
        PMX_DEBUG("did get cache, ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x", hit.ifx,
                  hit.phyid, hit.evlan, hit.master_phyid);
        return LIBPMX_OK;
    }
    if (flag == 0) {
        PMX_ERROR("cache not found, phyid: 0x%x ifx:%u flag: %d", phyid, ifx, flag);
        return LIBPMX_E_NOT_FOUND;
    }
    return libpmx_get_sub_route_info_from_db(ifx, out, flag);
}

extern "C" int libpmx_get_route_phyid_by_sub_route_phyid(uint32_t phyid, uint32_t *master_phyid,
                                                         int flag)
{
    if (master_phyid == nullptr) {
        PMX_ERROR("master_phyid is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    libpmx_sub_route_info_t rec{};
    const int rc = libpmx_get_sub_route_info_by_phyid_detail(phyid, &rec, flag);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("not found for sub_route phyid: 0x%x, flag: %d", phyid, flag);
        return rc;
    }
    *master_phyid = rec.master_phyid;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_evlan_by_sub_route_phyid(uint32_t phyid, uint32_t *evlan, int flag)
{
    if (evlan == nullptr) {
        PMX_ERROR("evlan is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    libpmx_sub_route_info_t rec{};
    const int rc = libpmx_get_sub_route_info_by_phyid_detail(phyid, &rec, flag);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("not found for sub_route phyid: 0x%x, flag: %d", phyid, flag);
        return rc;
    }
    *evlan = rec.evlan;
    return LIBPMX_OK;
}

extern "C" uint32_t libpmx_evlan_of_sub_route(uint32_t phyid)
{
    libpmx_sub_route_info_t rec{};
    const int rc = libpmx_get_sub_route_info_by_phyid_detail(phyid, &rec, kReadWait);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("failed to get evlan, ret = %d, phyid = 0x%x", rc, phyid);
        return 0;
    }
    return rec.evlan;
}

extern "C" void libpmx_sub_route_info_for_each_with_rdlock(int (*op)(void *entry, void *arg),
                                                           void *arg, int sorted)
{
    if (op == nullptr) {
        PMX_ERROR("each_op is null");
        return;
    }
    pmx::Guard guard(g_sub_route_lock, pmx::Access::Read);
    libpmx_sub_route_info_for_each(op, arg, sorted);
}

extern "C" void libpmx_dump_cache_sub_route_info(uint32_t ifx)
{
    ssat_printf("|%-8s|%-10s|%-8s|%-12s|\n", "ifx", "phyid", "evlan", "master_phyid");
    pmx::Guard guard(g_sub_route_lock, pmx::Access::Read);
    if (ifx != 0) {
        if (libpmx_sub_route_info_t *r = libpmx_sub_route_info_get(ifx))
            print_sub_route_row(r, nullptr);
        else
            ssat_printf("not found evlan info for ifx:%u ! \n", ifx);
        return;
    }
    DumpCount count{0};
    libpmx_sub_route_info_for_each(print_sub_route_row, &count, 1);
    ssat_printf("----total = %u----\n", count.n);
}
