// Sub-AP and sub-route caches: the records that tie a sub-interface to its parent port and its
// evlan, saved and removed by the change callbacks, looked up by sub-interface phyid. One set of
// rules serves both caches; each kind brings its record, its cache, its lock and its log texts.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_log.h"

#include <cstring>

#include "libpmx_dbg_args.hpp"
#include "libpmx_dbg_json.hpp"
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

// The sub-AP kind: its cache, lock, phyid type and texts (those with a trunk).
struct SubAp {
    using Rec = libpmx_sub_ap_info_t;
    static constexpr uint32_t kType = LIBPMX_PHYID_SUB_AP;
    static constexpr bool kNeedsHasOld = false; // a sub-AP save writes has_old only when given
    static pmx::RwLock &lock() { return g_sub_ap_lock; }
    static Rec *get(uint32_t ifx) { return libpmx_sub_ap_info_get(ifx); }
    static Rec *create(const Rec *r) { return libpmx_sub_ap_info_create(r); }
    static void destroy(Rec *r) { libpmx_sub_ap_info_destroy(r); }
    static int for_each(libpmx_hash_op_t op, void *arg, int sorted) { return libpmx_sub_ap_info_for_each(op, arg, sorted); }
    static int from_db(uint32_t ifx, Rec *out, int flag) { return libpmx_get_sub_ap_info_from_db(ifx, out, flag); }

    static constexpr const char *kSave = "libpmx_save_cache_sub_ap_info";
    static constexpr const char *kRemove = "libpmx_remove_cache_sub_ap_info";
    static constexpr const char *kLookup = "libpmx_get_sub_ap_info_by_phyid_detail";
    static void same(const Rec &w)
    {
        PMX_LOG_AS(kSave, LIBPMX_ZLOG_DEBUG, "found same cache ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x",
                   w.ifx, w.phyid, w.evlan, w.trunk, w.master_phyid);
    }
    static void changes(const Rec &c, const Rec &w)
    {
        PMX_LOG_AS(kSave, LIBPMX_ZLOG_WARN,
                   "cache ifx:%u, old (phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x) => new (phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x)",
                   w.ifx, c.phyid, c.evlan, c.trunk, c.master_phyid, w.phyid, w.evlan, w.trunk, w.master_phyid);
    }
    static void no_memory(const Rec &w)
    {
        PMX_LOG_AS(kSave, LIBPMX_ZLOG_ERROR, "memory error to save cache ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u", w.ifx,
                   w.phyid, w.evlan, w.trunk);
    }
    static void not_cached(const Rec &w)
    {
        PMX_LOG_AS(kRemove, LIBPMX_ZLOG_ERROR, "sub_ap cache not found, ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u", w.ifx,
                   w.phyid, w.evlan, w.trunk);
    }
    static void differs(const Rec &w, const Rec &c)
    {
        PMX_LOG_AS(kRemove, LIBPMX_ZLOG_ERROR,
                   "sub_ap cache diff, ifx:%u, expected (phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x), cached (phyid: 0x%x, evlan: %u, trunk: %u, master_phyid: 0x%x)",
                   w.ifx, w.phyid, w.evlan, w.trunk, w.master_phyid, c.phyid, c.evlan, c.trunk, c.master_phyid);
    }
    static void wrong_type(uint32_t phyid) { PMX_LOG_AS(kLookup, LIBPMX_ZLOG_ERROR, "not sub_ap phyid: 0x%x", phyid); }
    static void hit(const Rec &h)
    {
        PMX_LOG_AS(kLookup, LIBPMX_ZLOG_DEBUG, "did get cache, ifx:%u, phyid: 0x%x, evlan: %u, trunk: %u", h.ifx, h.phyid,
                   h.evlan, h.trunk);
    }
    static void miss(uint32_t, uint32_t ifx, int flag)
    {
        PMX_LOG_AS(kLookup, LIBPMX_ZLOG_ERROR, "cache not found, ifx:%u, flag: %d", ifx, flag);
    }
    static void header() { ssat_printf("|%-8s|%-10s|%-8s|%-8s|%-12s|\n", "ifx", "phyid", "evlan", "trunk", "master_phyid"); }
    static void row(const Rec &r)
    {
        ssat_printf("|%-8u|0x%-8x|%-8u|%-8u|0x%-10x|\n", r.ifx, r.phyid, r.evlan, r.trunk, r.master_phyid);
    }
    static constexpr const char *kTable = "sub_ap";
    static void json_row(pmx::JsonTable &t, const Rec &r)
    {
        t.row({pmx::num("ifx", r.ifx), pmx::hex("phyid", r.phyid), pmx::num("evlan", r.evlan),
               pmx::num("trunk", r.trunk), pmx::hex("master_phyid", r.master_phyid)});
    }
};

// The sub-route kind: no trunk, and texts of its own.
struct SubRoute {
    using Rec = libpmx_sub_route_info_t;
    static constexpr uint32_t kType = LIBPMX_PHYID_SUB_ROUTE;
    static constexpr bool kNeedsHasOld = true;
    static pmx::RwLock &lock() { return g_sub_route_lock; }
    static Rec *get(uint32_t ifx) { return libpmx_sub_route_info_get(ifx); }
    static Rec *create(const Rec *r) { return libpmx_sub_route_info_create(r); }
    static void destroy(Rec *r) { libpmx_sub_route_info_destroy(r); }
    static int for_each(libpmx_hash_op_t op, void *arg, int sorted) { return libpmx_sub_route_info_for_each(op, arg, sorted); }
    static int from_db(uint32_t ifx, Rec *out, int flag) { return libpmx_get_sub_route_info_from_db(ifx, out, flag); }

    static constexpr const char *kSave = "libpmx_save_cache_sub_route_info";
    static constexpr const char *kRemove = "libpmx_remove_cache_sub_route_info";
    static constexpr const char *kLookup = "libpmx_get_sub_route_info_by_phyid_detail";
    static void same(const Rec &w)
    {
        PMX_LOG_AS(kSave, LIBPMX_ZLOG_DEBUG, "found same cache ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x", w.ifx,
                   w.phyid, w.evlan, w.master_phyid);
    }
    static void changes(const Rec &c, const Rec &w)
    {
        PMX_LOG_AS(kSave, LIBPMX_ZLOG_WARN,
                   "cache ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x => will change to phyid: 0x%x, evlan: %u, master_phyid: 0x%x",
                   w.ifx, c.phyid, c.evlan, c.master_phyid, w.phyid, w.evlan, w.master_phyid);
    }
    static void no_memory(const Rec &w)
    {
        PMX_LOG_AS(kSave, LIBPMX_ZLOG_ERROR, "memory error to save cache ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x",
                   w.ifx, w.phyid, w.evlan, w.master_phyid);
    }
    static void not_cached(const Rec &w)
    {
        PMX_LOG_AS(kRemove, LIBPMX_ZLOG_ERROR, "sub_route cache not found, ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x",
                   w.ifx, w.phyid, w.evlan, w.master_phyid);
    }
    static void differs(const Rec &w, const Rec &c)
    {
        PMX_LOG_AS(kRemove, LIBPMX_ZLOG_ERROR,
                   "sub_route cache diff, ifx:%u, expected (phyid: 0x%x, evlan: %u, master_phyid: 0x%x), cached (phyid: 0x%x, evlan: %u, master_phyid: 0x%x)",
                   w.ifx, w.phyid, w.evlan, w.master_phyid, c.phyid, c.evlan, c.master_phyid);
    }
    static void wrong_type(uint32_t phyid) { PMX_LOG_AS(kLookup, LIBPMX_ZLOG_ERROR, "not sub_route phyid: 0x%x", phyid); }
    static void hit(const Rec &h)
    {
        PMX_LOG_AS(kLookup, LIBPMX_ZLOG_DEBUG, "did get cache, ifx:%u, phyid: 0x%x, evlan: %u, master_phyid: 0x%x", h.ifx,
                   h.phyid, h.evlan, h.master_phyid);
    }
    static void miss(uint32_t phyid, uint32_t ifx, int flag)
    {
        PMX_LOG_AS(kLookup, LIBPMX_ZLOG_ERROR, "cache not found, phyid: 0x%x ifx:%u flag: %d", phyid, ifx, flag);
    }
    static void header() { ssat_printf("|%-8s|%-10s|%-8s|%-12s|\n", "ifx", "phyid", "evlan", "master_phyid"); }
    static void row(const Rec &r) { ssat_printf("|%-8u|0x%-8x|%-8u|0x%-10x|\n", r.ifx, r.phyid, r.evlan, r.master_phyid); }
    static constexpr const char *kTable = "sub_route";
    static void json_row(pmx::JsonTable &t, const Rec &r)
    {
        t.row({pmx::num("ifx", r.ifx), pmx::hex("phyid", r.phyid), pmx::num("evlan", r.evlan),
               pmx::hex("master_phyid", r.master_phyid)});
    }
};

template <class Rec> bool same_bytes(const Rec &a, const Rec &b)
{
    return std::memcmp(&a, &b, sizeof(Rec)) == 0;
}

// The cached record of ifx, copied under the read lock.
template <class K> bool cached_copy(uint32_t ifx, typename K::Rec *out)
{
    pmx::Guard guard(K::lock(), pmx::Access::Read);
    const typename K::Rec *c = K::get(ifx);
    if (c != nullptr) *out = *c;
    return c != nullptr;
}

// Null arguments in the order of the arguments: info, old_info, (has_old), changed.
template <class K> bool null_argument(const void *info, const void *old_info, const uint32_t *has_old, bool check_has_old,
                                      const uint32_t *changed, bool check_changed)
{
    const char *what = info == nullptr                         ? "info is null"
                       : old_info == nullptr                   ? "old_info is null"
                       : check_has_old && has_old == nullptr   ? "has_old is null"
                       : check_changed && changed == nullptr   ? "changed is null"
                                                               : nullptr;
    if (what != nullptr) PMX_LOG_AS(check_changed ? K::kSave : K::kRemove, LIBPMX_ZLOG_ERROR, "%s", what);
    return what != nullptr;
}

// The read and the write are two lock holds: a concurrent save of the same ifx between them is
// not excluded, and the last writer wins.
template <class K>
int save(const typename K::Rec *info, typename K::Rec *old_info, uint32_t *has_old, uint32_t *changed)
{
    using Rec = typename K::Rec;
    if (null_argument<K>(info, old_info, has_old, K::kNeedsHasOld, changed, true)) return LIBPMX_E_FAIL;
    const Rec want = *info; // old_info may alias info
    Rec cached{};
    if (cached_copy<K>(want.ifx, &cached)) {
        *old_info = cached;
        if (has_old != nullptr) *has_old = 1;
        *changed = same_bytes(cached, want) ? 0 : 1;
        if (*changed == 0) {
            K::same(want);
            return LIBPMX_OK;
        }
        K::changes(cached, want);
    } else {
        if (has_old != nullptr) *has_old = 0;
        *changed = same_bytes(Rec{}, want) ? 0 : 1;
    }
    const Rec *stored = nullptr;
    {
        pmx::Guard guard(K::lock(), pmx::Access::Write);
        stored = K::create(&want);
    }
    if (stored != nullptr) return LIBPMX_OK;
    K::no_memory(want);
    return LIBPMX_E_NOMEM;
}

// The record is removed under the write lock whether or not it is the one expected.
template <class K> int remove(const typename K::Rec *info, typename K::Rec *old_info, uint32_t *has_old)
{
    using Rec = typename K::Rec;
    if (null_argument<K>(info, old_info, has_old, true, nullptr, false)) return LIBPMX_E_FAIL;
    const Rec want = *info;
    Rec cached{};
    bool found = false;
    {
        pmx::Guard guard(K::lock(), pmx::Access::Write);
        if (Rec *c = K::get(want.ifx)) {
            cached = *c;
            found = true;
            K::destroy(c);
        }
    }
    *has_old = found ? 1 : 0;
    if (!found) {
        K::not_cached(want);
        return LIBPMX_OK;
    }
    *old_info = cached;
    if (!same_bytes(cached, want)) K::differs(want, cached);
    return LIBPMX_OK;
}

template <class K> int lookup(uint32_t phyid, typename K::Rec *out, int flag)
{
    if (out == nullptr) {
        PMX_LOG_AS(K::kLookup, LIBPMX_ZLOG_ERROR, "param is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    if ((phyid >> 24) != K::kType) {
        K::wrong_type(phyid);
        return LIBPMX_E_INVAL;
    }
    const uint32_t ifx = phyid & 0xFFFFFFu;
    typename K::Rec hit{};
    if (cached_copy<K>(ifx, &hit)) {
        *out = hit;
        K::hit(hit);
        return LIBPMX_OK;
    }
    if (flag == 0) {
        K::miss(phyid, ifx, flag);
        return LIBPMX_E_NOT_FOUND;
    }
    return K::from_db(ifx, out, flag);
}

// A field of the record of phyid, read with flag 2: 0 when it cannot be had.
template <class K, class Field> uint32_t field_or_zero(uint32_t phyid, Field field, const char *func)
{
    typename K::Rec rec{};
    const int rc = lookup<K>(phyid, &rec, LIBPMX_READ_WAIT);
    if (rc == LIBPMX_OK) return rec.*field;
    // The trunk getter too uses the evlan wording: the established text of this failure.
    PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "failed to get evlan, ret = %d, phyid = 0x%x", rc, phyid);
    return 0;
}

template <class K> void for_each_with_rdlock(int (*op)(void *, void *), void *arg, int sorted, const char *func)
{
    if (op == nullptr) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "each_op is null");
        return;
    }
    pmx::Guard guard(K::lock(), pmx::Access::Read);
    K::for_each(op, arg, sorted);
}

// The JSON form: the one record of ifx (none: no rows), or every record in ifx order.
template <class K> void dump_json(uint32_t ifx)
{
    pmx::JsonTable t(K::kTable);
    pmx::Guard guard(K::lock(), pmx::Access::Read);
    if (ifx != 0) {
        if (const typename K::Rec *r = K::get(ifx)) K::json_row(t, *r);
    } else {
        K::for_each(
            [](void *entry, void *arg) {
                K::json_row(*static_cast<pmx::JsonTable *>(arg), *static_cast<const typename K::Rec *>(entry));
                return 0;
            },
            &t, 1);
    }
    t.end();
}

template <class K> void dump(uint32_t ifx)
{
    if (pmx::dump_json()) return dump_json<K>(ifx);
    K::header();
    pmx::Guard guard(K::lock(), pmx::Access::Read);
    if (ifx != 0) {
        if (const typename K::Rec *r = K::get(ifx))
            K::row(*r);
        else
            ssat_printf("not found evlan info for ifx:%u ! \n", ifx);
        return;
    }
    uint32_t n = 0;
    K::for_each(
        [](void *entry, void *arg) {
            K::row(*static_cast<const typename K::Rec *>(entry));
            ++*static_cast<uint32_t *>(arg);
            return 0;
        },
        &n, 1);
    ssat_printf("----total = %u----\n", n);
}

int dump_cmd(const char *name, const char *args, void (*dump_fn)(uint32_t))
{
    pmx::DbgArgs a(args, {"ifx", "json"});
    if (!a.error().empty()) return pmx::dbg_usage(name, "ifx=%u (0 or none for all) [json=1]", a.error());
    pmx::JsonScope json(a.get("json", 0) != 0);
    dump_fn(static_cast<uint32_t>(a.get("ifx", 0)));
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

} // namespace

extern "C" int libpmx_intf_sub_init(void)
{
    return libpmx_dbg_add_cmds(kSubIntfCommands, sizeof kSubIntfCommands / sizeof kSubIntfCommands[0]);
}

// ---- sub-AP ----

extern "C" int libpmx_save_cache_sub_ap_info(const libpmx_sub_ap_info_t *info, libpmx_sub_ap_info_t *old_info,
                                             uint32_t *has_old, uint32_t *changed)
{
    return save<SubAp>(info, old_info, has_old, changed);
}

extern "C" int libpmx_remove_cache_sub_ap_info(const libpmx_sub_ap_info_t *info, libpmx_sub_ap_info_t *old_info,
                                               uint32_t *has_old)
{
    return remove<SubAp>(info, old_info, has_old);
}

extern "C" int libpmx_get_sub_ap_info_by_phyid_detail(uint32_t phyid, libpmx_sub_ap_info_t *out, int flag)
{
    return lookup<SubAp>(phyid, out, flag);
}

extern "C" int libpmx_get_ap_phyid_by_sub_ap_phyid(uint32_t phyid, uint32_t *master_phyid, int flag)
{
    if (master_phyid == nullptr) {
        PMX_ERROR("master_phyid is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    libpmx_sub_ap_info_t rec{};
    const int rc = lookup<SubAp>(phyid, &rec, flag);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("not found for sub_ap phyid: 0x%x", phyid);
        return rc;
    }
    *master_phyid = rec.master_phyid;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_evlan_trunk_by_sub_ap_phyid(uint32_t phyid, uint32_t *evlan, uint32_t *trunk, int flag)
{
    if (evlan == nullptr || trunk == nullptr) {
        PMX_ERROR("param invalid: evlan or trunk is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    libpmx_sub_ap_info_t rec{};
    const int rc = lookup<SubAp>(phyid, &rec, flag);
    if (rc != LIBPMX_OK) return rc;
    *evlan = rec.evlan;
    *trunk = rec.trunk;
    return LIBPMX_OK;
}

extern "C" uint32_t libpmx_evlan_of_sub_ap(uint32_t phyid)
{
    return field_or_zero<SubAp>(phyid, &libpmx_sub_ap_info_t::evlan, __func__);
}

extern "C" uint32_t libpmx_trunk_of_sub_ap(uint32_t phyid)
{
    return field_or_zero<SubAp>(phyid, &libpmx_sub_ap_info_t::trunk, __func__);
}

extern "C" void libpmx_sub_ap_info_for_each_with_rdlock(int (*op)(void *entry, void *arg), void *arg, int sorted)
{
    for_each_with_rdlock<SubAp>(op, arg, sorted, __func__);
}

extern "C" void libpmx_dump_cache_sub_ap_info(uint32_t ifx)
{
    dump<SubAp>(ifx);
}

// ---- sub-route ----

extern "C" int libpmx_save_cache_sub_route_info(const libpmx_sub_route_info_t *info,
                                                libpmx_sub_route_info_t *old_info, uint32_t *has_old,
                                                uint32_t *changed)
{
    return save<SubRoute>(info, old_info, has_old, changed);
}

extern "C" int libpmx_remove_cache_sub_route_info(const libpmx_sub_route_info_t *info,
                                                  libpmx_sub_route_info_t *old_info, uint32_t *has_old)
{
    return remove<SubRoute>(info, old_info, has_old);
}

extern "C" int libpmx_get_sub_route_info_by_phyid_detail(uint32_t phyid, libpmx_sub_route_info_t *out, int flag)
{
    return lookup<SubRoute>(phyid, out, flag);
}

extern "C" int libpmx_get_route_phyid_by_sub_route_phyid(uint32_t phyid, uint32_t *master_phyid, int flag)
{
    if (master_phyid == nullptr) {
        PMX_ERROR("master_phyid is null, phyid: 0x%x, flag: %d", phyid, flag);
        return LIBPMX_E_INVAL;
    }
    libpmx_sub_route_info_t rec{};
    const int rc = lookup<SubRoute>(phyid, &rec, flag);
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
    const int rc = lookup<SubRoute>(phyid, &rec, flag);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("not found for sub_route phyid: 0x%x, flag: %d", phyid, flag);
        return rc;
    }
    *evlan = rec.evlan;
    return LIBPMX_OK;
}

extern "C" uint32_t libpmx_evlan_of_sub_route(uint32_t phyid)
{
    return field_or_zero<SubRoute>(phyid, &libpmx_sub_route_info_t::evlan, __func__);
}

extern "C" void libpmx_sub_route_info_for_each_with_rdlock(int (*op)(void *entry, void *arg), void *arg, int sorted)
{
    for_each_with_rdlock<SubRoute>(op, arg, sorted, __func__);
}

extern "C" void libpmx_dump_cache_sub_route_info(uint32_t ifx)
{
    dump<SubRoute>(ifx);
}
