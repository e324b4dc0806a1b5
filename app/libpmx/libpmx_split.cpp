// Split-port mappings: the three two-way maps of break-out ports, each under its own lock, the
// per-thread ignore flag, and their dumps.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_split"
#include "libpmx_log.h"

#include "libpmx_split.h"

#include <unistd.h>

#include <optional>

#include "libpmx_dbg.h"
#include "libpmx_dbg_args.hpp"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_lock.hpp"
#include "libpmx_mod.h"
#include "libpmx_port.h"
#include "ssat.h"

namespace
{

using pmx::Access;
using pmx::Guard;

pmx::RwLock g_gphy_lock{"split module-port lock", pmx::LockRank::SplitGphy};
pmx::RwLock g_lphy_lock{"split unit-port lock", pmx::LockRank::SplitLphy};
pmx::RwLock g_port_lock{"split gslot-port lock", pmx::LockRank::SplitPort};

thread_local int32_t t_ignore = 0;

long thread_id()
{
    return static_cast<long>(gettid());
}

uint32_t gslot_key(int32_t gslot)
{
    return static_cast<uint32_t>(gslot) & ~LIBPMX_SPLIT_GSLOT_VALUE_BITS;
}

uint32_t gslot_value(int32_t gslot)
{
    return static_cast<uint32_t>(static_cast<int16_t>(static_cast<uint32_t>(gslot) & LIBPMX_SPLIT_GSLOT_VALUE_BITS));
}

// The local gslot of a slot: with the device offset when the device id lies in 1..16.
int32_t local_gslot(int32_t slot)
{
    const int32_t dev = libpmx_get_my_dev_id(1);
    return dev >= 1 && dev <= 16 ? (slot & 31) + (dev - 1) * 32 : slot & 31;
}

// The first value of a phy map's chain that matches, under its read lock: 0, -7.
template <typename Get, typename Match>
int find_phy_value(pmx::RwLock &lock, Get get, uint32_t key, Match match, uint32_t *out)
{
    Guard g(lock, Access::Read);
    for (const libpmx_phy_k2v_val_t *v = get(key); v != nullptr; v = v->next) {
        if (!match(v->value)) continue;
        *out = v->value;
        return LIBPMX_OK;
    }
    return LIBPMX_E_NOT_FOUND;
}

// The value of a gslot chain for the gslot's sub-slot bits (the first when they are 0).
int find_port_value(int32_t gslot, uint32_t second, uint32_t *out)
{
    const uint32_t want = gslot_value(gslot);
    Guard g(g_port_lock, Access::Read);
    for (const libpmx_port_k2v_val_t *v = libpmx_gslot_port_get_mapping(static_cast<int32_t>(gslot_key(gslot)),
                                                                        static_cast<int32_t>(second));
         v != nullptr; v = v->next) {
        if (want != 0 && v->a != want) continue;
        *out = v->b;
        return LIBPMX_OK;
    }
    return LIBPMX_E_NOT_FOUND;
}

bool any_value(uint32_t)
{
    return true;
}

struct DumpCount {
    uint32_t rows = 0;
    pmx::JsonTable *json = nullptr; // the JSON form's table, or null
};

int print_phy_rows(void *entry, void *arg)
{
    const auto *e = static_cast<const libpmx_phy_k2v_t *>(entry);
    if ((e->key & 0x80000000u) == 0) return 0;
    auto *count = static_cast<DumpCount *>(arg);
    for (const libpmx_phy_k2v_val_t *v = &e->list; v != nullptr; v = v->next) {
        const auto modid = static_cast<int32_t>(e->key >> 8 & 0x7ff), port = static_cast<int32_t>(e->key & 0xff);
        if (count->json != nullptr)
            count->json->row({pmx::hex("gphyid", v->value), pmx::num("modid", modid), pmx::num("port", port)});
        else
            ssat_printf("|0x%08x|%5d|%5d|\n", v->value, modid, port);
        ++count->rows;
    }
    return 0;
}

int print_local_rows(void *entry, void *arg)
{
    const auto *e = static_cast<const libpmx_phy_k2v_t *>(entry);
    if ((e->key & 0x80000000u) == 0) return 0;
    auto *count = static_cast<DumpCount *>(arg);
    for (const libpmx_phy_k2v_val_t *v = &e->list; v != nullptr; v = v->next) {
        const auto unit = static_cast<int32_t>(e->key >> 8 & 0xff), port = static_cast<int32_t>(e->key & 0xff);
        if (count->json != nullptr)
            count->json->row({pmx::hex("lphyid", v->value), pmx::num("unit", unit), pmx::num("port", port)});
        else
            ssat_printf("|0x%08x|%5d|%5d|\n", v->value, unit, port);
        ++count->rows;
    }
    return 0;
}

int print_port_rows(void *entry, void *arg)
{
    const auto *e = static_cast<const libpmx_port_k2v_t *>(entry);
    if ((e->port & 0x80000000u) == 0) return 0; // the (gslot, lport) direction repeats these rows
    auto *count = static_cast<DumpCount *>(arg);
    for (const libpmx_port_k2v_val_t *v = &e->list; v != nullptr; v = v->next) {
        int32_t dev = 0, slot = 0, sslot = 0;
        libpmx_get_dev_slot_sslot_by_gslot(static_cast<int32_t>(e->gslot | v->a), &dev, &slot, &sslot);
        const auto unit = static_cast<int32_t>(e->port >> 8 & 0xff), port = static_cast<int32_t>(e->port & 0xff);
        if (count->json != nullptr)
            count->json->row({pmx::num("dev", dev), pmx::num("slot", slot), pmx::num("sslot", sslot),
                              pmx::num("unit", unit), pmx::num("port", port), pmx::num("lport", v->b)});
        else
            ssat_printf("|%3d|%4d|%5d|%4d|%4d|%5d|\n", dev, slot, sslot, unit, port, static_cast<int32_t>(v->b));
        ++count->rows;
    }
    return 0;
}

int cmd_set_ignore(const char *args)
{
    pmx::DbgArgs a(args, {"flag"});
    if (!a.error().empty() || !a.has("flag")) return pmx::dbg_usage("set_ignore_split", "flag=%d", a.error());
    libpmx_set_ignore_split_mapping(static_cast<int32_t>(a.get("flag", 0)));
    libpmx_dump_ignore_split_mapping();
    return LIBPMX_OK;
}

template <void (*Dump)()> int cmd_dump(const char *args)
{
    return pmx::dbg_table_cmd("dump_split", args, Dump);
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_split_glb_phy", "  split ports: gphyid, modid, port", cmd_dump<libpmx_split_dump_glb_phy_tbl>},
    {"dump_split_local_phy", "  split ports: lphyid, unit, port", cmd_dump<libpmx_split_dump_local_phy_tbl>},
    {"dump_split_port", "  split ports: dev, slot, sslot, unit, port, lport", cmd_dump<libpmx_split_dump_port_tbl>},
    {"set_ignore_split", "flag=%d  the shell thread's ignore flag (its own lookups only)", cmd_set_ignore},
};

} // namespace

extern "C" int libpmx_split_init(void)
{
    libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]); // logs its own failure
    return LIBPMX_OK;
}

extern "C" int libpmx_set_ignore_split_mapping(int32_t flag)
{
    t_ignore = flag;
    PMX_WARN("ignore split flag: %d", flag);
    return LIBPMX_OK;
}

extern "C" void libpmx_dump_ignore_split_mapping(void)
{
    ssat_printf("ignore split flag: %d\n", t_ignore);
}

// ---- updates ----

extern "C" int libpmx_update_mod_port_gphyid(uint32_t gphyid, uint32_t modid, uint32_t port, int32_t is_add)
{
    const uint32_t key = libpmx_split_modport_key(modid, port);
    int to_key, to_id;
    {
        Guard g(g_gphy_lock, Access::Write);
        to_key = is_add != 0 ? libpmx_modport_gphy_add_mapping(gphyid, key) : libpmx_modport_gphy_remove_mapping(gphyid, key);
        to_id = is_add != 0 ? libpmx_modport_gphy_add_mapping(key, gphyid) : libpmx_modport_gphy_remove_mapping(key, gphyid);
    }
    const int rc = to_id | to_key;
    const auto m = static_cast<int32_t>(modid), p = static_cast<int32_t>(port);
    if (rc != 0) {
        if (is_add != 0) {
            PMX_ERROR("split: add mod %d, port %d <=> gphyid 0x%x, => %d, <= %d", m, p, gphyid, to_id, to_key);
            PMX_ERROR("libpmx_add_modid_port_gphyid fail, ret:%d", rc);
        } else {
            PMX_ERROR("split: remove mod %d, port %d <=> gphyid 0x%x, => %d, <= %d", m, p, gphyid, to_id, to_key);
            PMX_ERROR("libpmx_del_modid_port_gphyid fail, ret:%d", rc);
        }
        return rc;
    }
    if (is_add != 0)
        PMX_INFO("split: add mod %d, port %d <=> gphyid 0x%x", m, p, gphyid);
    else
        PMX_INFO("split: remove mod %d, port %d <=> gphyid 0x%x", m, p, gphyid);
    PMX_NOTICE("split phyid:0x%x, modid:%d, port:%d, is_add:%d", gphyid, m, p, is_add);
    return LIBPMX_OK;
}

extern "C" int libpmx_update_unit_port_lphyid(uint32_t lphyid, uint32_t unit, uint32_t port, int32_t is_add)
{
    const uint32_t key = libpmx_split_unitport_key(unit, port);
    int to_key, to_id;
    {
        Guard g(g_lphy_lock, Access::Write);
        to_key = is_add != 0 ? libpmx_unitport_lphy_add_mapping(lphyid, key) : libpmx_unitport_lphy_remove_mapping(lphyid, key);
        to_id = is_add != 0 ? libpmx_unitport_lphy_add_mapping(key, lphyid) : libpmx_unitport_lphy_remove_mapping(key, lphyid);
    }
    const int rc = to_id | to_key;
    const auto u = static_cast<int32_t>(unit), p = static_cast<int32_t>(port);
    if (rc != 0) {
        if (is_add != 0) {
            PMX_ERROR("split: add unit %d, port %d <=> lphyid 0x%x, => %d, <= %d", u, p, lphyid, to_id, to_key);
            PMX_ERROR("libpmx_add_unit_port_lphyid fail, ret:%d", rc);
        } else {
            PMX_ERROR("split: remove unit %d, port %d <=> lphyid 0x%x, => %d, <= %d", u, p, lphyid, to_id, to_key);
            PMX_ERROR("libpmx_del_unit_port_lphyid fail, ret:%d", rc);
        }
        return rc;
    }
    if (is_add != 0)
        PMX_INFO("split: add unit %d, port %d <=> lphyid 0x%x", u, p, lphyid);
    else
        PMX_INFO("split: remove unit %d, port %d <=> lphyid 0x%x", u, p, lphyid);
    PMX_NOTICE("phyid:0x%x, unit:%d, port:%d, is_add:%d", lphyid, u, p, is_add);
    return LIBPMX_OK;
}

extern "C" int libpmx_update_gslot_unit_port_lport(uint32_t gslot, uint32_t unit, uint32_t port, uint32_t lport,
                                                   uint8_t is_add)
{
    const uint32_t key = libpmx_split_unitport_key(unit, port);
    const auto kp = static_cast<int32_t>(gslot_key(static_cast<int32_t>(gslot)));
    const uint32_t vp = gslot_value(static_cast<int32_t>(gslot));
    int to_key, to_id;
    {
        Guard g(g_port_lock, Access::Write);
        const auto lp = static_cast<int32_t>(lport), k = static_cast<int32_t>(key);
        to_key = is_add != 0 ? libpmx_gslot_port_add_mapping(kp, lp, vp, key) : libpmx_gslot_port_remove_mapping(kp, lp, vp, key);
        to_id = is_add != 0 ? libpmx_gslot_port_add_mapping(kp, k, vp, lport) : libpmx_gslot_port_remove_mapping(kp, k, vp, lport);
    }
    const int rc = to_id | to_key;
    const auto u = static_cast<int32_t>(unit), p = static_cast<int32_t>(port), l = static_cast<int32_t>(lport);
    if (rc != 0) {
        PMX_ERROR("split: gslot 0x%x unit %d, port %d <=> lport %d, => %d, <= %d", gslot, u, p, l, to_id, to_key);
        return rc;
    }
    if (is_add != 0)
        PMX_INFO("split+ gslot 0x%x unit %d, port %d <=> lport %d", gslot, u, p, l);
    else
        PMX_INFO("split- gslot 0x%x unit %d, port %d <=> lport %d", gslot, u, p, l);
    PMX_NOTICE("gslot:0x%x, unit:%d, port:%d, lport:%d, is_add:%d", gslot, u, p, l, is_add);
    return LIBPMX_OK;
}

extern "C" int libpmx_update_unit_port_lport(uint32_t unit, uint32_t port, int32_t slot, uint32_t lport,
                                             uint8_t is_add)
{
    return libpmx_update_gslot_unit_port_lport(static_cast<uint32_t>(local_gslot(slot)), unit, port, lport, is_add);
}

// ---- lookups ----

extern "C" int libpmx_split_cache_get_mod_port_by_phyid(uint32_t gphyid, uint32_t *modid, uint32_t *port)
{
    if (t_ignore != 0) {
        PMX_WARN("has ignored split ports. thread %ld", thread_id());
        return LIBPMX_E_SPLIT_IGNORED;
    }
    if (modid == nullptr || port == nullptr) {
        PMX_ERROR("invalid param, modid %p, port %p", static_cast<void *>(modid), static_cast<void *>(port));
        return LIBPMX_E_INVAL;
    }
    uint32_t key = 0;
    if (find_phy_value(g_gphy_lock, libpmx_modport_gphy_get_mapping, gphyid, any_value, &key) != LIBPMX_OK) {
        PMX_DEBUG("split: not found mod port for gphy 0x%x", gphyid);
        return LIBPMX_E_NOT_FOUND;
    }
    *modid = key >> 8 & 0x7ff;
    *port = key & 0xff;
    return LIBPMX_OK;
}

extern "C" int libpmx_split_cache_get_phyid_by_mod_port(uint32_t modid, uint32_t port, uint32_t cid, uint32_t *gphyid)
{
    if (t_ignore != 0) {
        PMX_WARN("has ignored split ports. thread %ld", thread_id());
        return LIBPMX_E_SPLIT_IGNORED;
    }
    if (gphyid == nullptr) {
        PMX_ERROR("invalid param, phyid %p", static_cast<void *>(gphyid));
        return LIBPMX_E_INVAL;
    }
    const auto match = [cid](uint32_t v) { return cid == UINT32_MAX || (v >> 19 & 0x1f) == cid; };
    if (find_phy_value(g_gphy_lock, libpmx_modport_gphy_get_mapping, libpmx_split_modport_key(modid, port), match,
                       gphyid) != LIBPMX_OK) {
        PMX_DEBUG("split: not found gphy for mod %d, port %d, cid %d", static_cast<int32_t>(modid),
                  static_cast<int32_t>(port), static_cast<int32_t>(cid));
        return LIBPMX_E_NOT_FOUND;
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_split_cache_get_unit_port_by_lphyid(uint32_t lphyid, uint32_t *unit, uint32_t *port)
{
    if (t_ignore != 0) {
        PMX_WARN("has ignored split lphy 0x%x. thread %ld", lphyid, thread_id());
        return LIBPMX_E_SPLIT_IGNORED;
    }
    if (unit == nullptr || port == nullptr) {
        PMX_ERROR("invalid param, unit %p, port %p", static_cast<void *>(unit), static_cast<void *>(port));
        return LIBPMX_E_INVAL;
    }
    uint32_t key = 0;
    if (find_phy_value(g_lphy_lock, libpmx_unitport_lphy_get_mapping, lphyid, any_value, &key) != LIBPMX_OK) {
        PMX_DEBUG("split: not found unit port for lphy 0x%x", lphyid);
        return LIBPMX_E_NOT_FOUND;
    }
    *unit = key >> 8 & 0xff;
    *port = key & 0xff;
    PMX_INFO("found unit %d, port %d for lphy 0x%x", static_cast<int32_t>(*unit), static_cast<int32_t>(*port), lphyid);
    return LIBPMX_OK;
}

extern "C" int libpmx_split_cache_get_lphyid_by_unit_port(uint32_t unit, uint32_t port, uint32_t scid, uint32_t *lphyid)
{
    const auto u = static_cast<int32_t>(unit), p = static_cast<int32_t>(port);
    if (t_ignore != 0) {
        PMX_WARN("has ignored split unit %d, port %d. thread %ld", u, p, thread_id());
        return LIBPMX_E_SPLIT_IGNORED;
    }
    if (lphyid == nullptr) {
        PMX_ERROR("invalid param, phyid %p", static_cast<void *>(lphyid));
        return LIBPMX_E_INVAL;
    }
    const auto match = [scid](uint32_t v) { return scid == UINT32_MAX || (v >> 16 & 0xff) == scid; };
    if (find_phy_value(g_lphy_lock, libpmx_unitport_lphy_get_mapping, libpmx_split_unitport_key(unit, port), match,
                       lphyid) != LIBPMX_OK) {
        PMX_DEBUG("split: not found lphy for unit %d, port %d, scid %d", u, p, static_cast<int32_t>(scid));
        return LIBPMX_E_NOT_FOUND;
    }
    PMX_INFO("found lphy 0x%x for unit %d, port %d, scid %d", *lphyid, u, p, static_cast<int32_t>(scid));
    return LIBPMX_OK;
}

extern "C" int libpmx_split_cache_get_unit_port_by_gslot_lport(int32_t gslot, uint32_t lport, uint32_t *unit,
                                                               uint32_t *port)
{
    const auto l = static_cast<int32_t>(lport);
    if (t_ignore != 0) {
        PMX_WARN("has ignored split gslot %d, lport %d. thread %ld", gslot, l, thread_id());
        return LIBPMX_E_SPLIT_IGNORED;
    }
    if (unit == nullptr || port == nullptr) {
        PMX_ERROR("invalid param, unit %p, port %p", static_cast<void *>(unit), static_cast<void *>(port));
        return LIBPMX_E_INVAL;
    }
    uint32_t key = 0;
    if (find_port_value(gslot, lport, &key) != LIBPMX_OK) {
        PMX_INFO("not found unit-port for gslot 0x%x lport %d", gslot, l);
        return LIBPMX_E_NOT_FOUND;
    }
    *unit = key >> 8 & 0xff;
    *port = key & 0xff;
    PMX_INFO("found unit %d port %d for gslot 0x%x lport %d", static_cast<int32_t>(*unit), static_cast<int32_t>(*port),
             gslot, l);
    return LIBPMX_OK;
}

extern "C" int libpmx_split_cache_get_lport_by_gslot_unit_port(int32_t gslot, uint32_t unit, uint32_t port,
                                                               uint32_t *lport)
{
    const auto u = static_cast<int32_t>(unit), p = static_cast<int32_t>(port);
    if (t_ignore != 0) {
        PMX_WARN("has ignored split gslot 0x%x unit %d port %d. thread %ld", gslot, u, p, thread_id());
        return LIBPMX_E_SPLIT_IGNORED;
    }
    if (lport == nullptr) {
        PMX_ERROR("invalid param, lport %p", static_cast<void *>(lport));
        return LIBPMX_E_INVAL;
    }
    if (find_port_value(gslot, libpmx_split_unitport_key(unit, port), lport) != LIBPMX_OK) {
        PMX_INFO("not found lport for gslot 0x%x unit %d port %d", gslot, u, p);
        return LIBPMX_E_NOT_FOUND;
    }
    PMX_INFO("found lport %d for gslot 0x%x unit %d port %d", static_cast<int32_t>(*lport), gslot, u, p);
    return LIBPMX_OK;
}

extern "C" int libpmx_split_cache_get_my_slot_lport_by_unit_port(uint32_t unit, uint32_t port, int32_t *slot,
                                                                 uint32_t *lport)
{
    // An ignoring thread fails at once, before this card's slot is asked for.
    if (t_ignore != 0) return libpmx_split_cache_get_lport_by_gslot_unit_port(-1, unit, port, lport);
    if (slot == nullptr || lport == nullptr) {
        PMX_ERROR("invalid param, slot %p, lport %p", static_cast<void *>(slot), static_cast<void *>(lport));
        return LIBPMX_E_INVAL;
    }
    const int32_t my_slot = libpmx_get_my_slot(1);
    uint32_t found = 0;
    const int rc = libpmx_split_cache_get_lport_by_gslot_unit_port(local_gslot(my_slot), unit, port, &found);
    if (rc != LIBPMX_OK) return rc;
    *slot = my_slot;
    *lport = found;
    return LIBPMX_OK;
}

// ---- dumps ----

namespace
{

// One split map's dump: its plain header and rows with the count, or its JSON table.
template <typename Walk>
void dump_map(pmx::RwLock &lock, const char *table, const char *header, Walk walk, libpmx_hash_op_t print)
{
    DumpCount count;
    std::optional<pmx::JsonTable> json;
    if (pmx::dump_json()) {
        json.emplace(table);
        count.json = &*json;
    } else {
        ssat_printf("%s", header);
    }
    {
        Guard g(lock, Access::Read);
        walk(print, &count);
    }
    if (json)
        json->end();
    else
        ssat_printf("total %u\n", count.rows);
}

} // namespace

extern "C" void libpmx_split_dump_glb_phy_tbl(void)
{
    dump_map(g_gphy_lock, "split_glb_phy", "|gphyid    |modid| port|\n", libpmx_modport_gphy_for_each, print_phy_rows);
}

extern "C" void libpmx_split_dump_local_phy_tbl(void)
{
    dump_map(g_lphy_lock, "split_local_phy", "|lphyid    | unit| port|\n", libpmx_unitport_lphy_for_each,
             print_local_rows);
}

extern "C" void libpmx_split_dump_port_tbl(void)
{
    dump_map(g_port_lock, "split_port", "|dev|slot|sslot|unit|port|lport|\n", libpmx_gslot_port_for_each,
             print_port_rows);
}
