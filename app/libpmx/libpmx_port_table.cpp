// The local port table: the chip ports of this card with their panel ports, cores, unit kinds
// and owning card types; the panel-port count; the back-plane ports; the subcard port queries.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_port"
#include "libpmx_log.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <utility>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_dbg_args.hpp"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_lock.hpp"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "ssat.h"

namespace
{

using pmx::Access;
using pmx::Guard;

// Port-table lock: everything below but the atomics.
pmx::RwLock g_lock{"port-table lock", pmx::LockRank::PortTable};

// One record per known chip port; libpmx_port_cache maps unit+port to its index here.
std::vector<libpmx_port_info_t> g_recs;
std::vector<uint32_t> g_free;               // indexes of forgotten records, for reuse
std::vector<int32_t> g_by_lport;            // panel port -> record index, -1 none
std::map<uint32_t, std::pair<uint32_t, uint32_t>> g_bp; // back-plane panel port -> unit, port

std::atomic<int32_t> g_lport_num{-1};
std::atomic<bool> g_bp_known{false};
std::atomic<uint32_t> g_bp_base{0};
std::atomic<uint32_t> g_bp_num{0};

bool lport_in_table(int32_t lport)
{
    return lport >= 0 && lport < LIBPMX_ONLINE_LPORT_MAX;
}

// A copy of the record of unit+port (read lock).
bool find(int32_t unit, int32_t port, libpmx_port_info_t *out)
{
    Guard g(g_lock, Access::Read);
    const libpmx_port_cache_t *e = libpmx_port_cache_get(unit, port);
    if (e == nullptr) return false;
    *out = g_recs[e->value];
    return true;
}

// The record of unit+port from the table, else (mode not 0) from the database, then kept; a
// port that is not there is logged under the caller's name (func).
int find_or_read(const char *func, int32_t unit, int32_t port, libpmx_port_info_t *out, int mode)
{
    if (find(unit, port, out)) return LIBPMX_OK;
    int rc = LIBPMX_E_NOT_FOUND;
    if (mode != 0) {
        rc = libpmx_get_port_info_from_unit_port(unit, port, out);
        if (rc == LIBPMX_OK) {
            libpmx_port_set_unit_port(out); // a port that cannot be kept still answers (logged)
            return LIBPMX_OK;
        }
    }
    PMX_LOG_AS(func, LIBPMX_ZLOG_WARN, "no port unit:%d port:%d on this card, mode:%d ret:%d", unit, port, mode, rc);
    return rc;
}

// A chip port's record for a lookup with an output (null: logged, -11).
int lookup(const char *func, const void *out, int32_t unit, int32_t port, libpmx_port_info_t *info, int mode)
{
    if (out == nullptr) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "output is null, unit:%d port:%d", unit, port);
        return LIBPMX_E_FAIL;
    }
    return find_or_read(func, unit, port, info, mode);
}

void forget_lport_of(uint32_t index)
{
    const int32_t old = g_recs[index].lport;
    if (lport_in_table(old) && g_by_lport[static_cast<size_t>(old)] == static_cast<int32_t>(index))
        g_by_lport[static_cast<size_t>(old)] = -1;
}

void load_bp_range()
{
    uint32_t base = 0, num = 0;
    if (libpmx_get_info_from_ixn_lport_info(&base, &num) == LIBPMX_OK) libpmx_port_set_bp_range(base, num);
}

int cmd_dump_port_table(const char *args)
{
    return pmx::dbg_table_cmd("dump_port_table", args, libpmx_dump_port_table);
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_port_table", "  the local chip ports: unit, port, lport, core, unit kind, card type, online",
     cmd_dump_port_table},
};

} // namespace

extern "C" int libpmx_port_table_init(void)
{
    {
        Guard g(g_lock, Access::Write);
        for (const libpmx_port_info_t &r : g_recs)
            if (r.unit >= 0) libpmx_port_cache_destroy(r.unit, r.port);
        g_recs.clear();
        g_free.clear();
        g_by_lport.assign(LIBPMX_ONLINE_LPORT_MAX, -1);
        g_bp.clear();
    }
    g_lport_num.store(-1, std::memory_order_relaxed);
    g_bp_known.store(false, std::memory_order_relaxed);
    g_bp_base.store(0, std::memory_order_relaxed);
    g_bp_num.store(0, std::memory_order_relaxed);
    libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]); // logs its own failure
    return LIBPMX_OK;
}

// ---- change entry points ----

extern "C" int libpmx_port_set_unit_port(const libpmx_port_info_t *info)
{
    if (info == nullptr) {
        PMX_ERROR("port info is null");
        return LIBPMX_E_FAIL;
    }
    if (info->lport != -1 && !lport_in_table(info->lport)) {
        PMX_ERROR("unit:%d port:%d lport:%d outside the port table (0..%d)", info->unit, info->port, info->lport,
                  LIBPMX_ONLINE_LPORT_MAX - 1);
        return LIBPMX_E_INVAL;
    }
    Guard g(g_lock, Access::Write);
    uint32_t index;
    if (const libpmx_port_cache_t *e = libpmx_port_cache_get(info->unit, info->port)) {
        index = e->value;
        forget_lport_of(index);
    } else {
        if (!g_free.empty()) {
            index = g_free.back();
            g_free.pop_back();
        } else {
            index = static_cast<uint32_t>(g_recs.size());
            g_recs.push_back({});
        }
        const libpmx_port_cache_t key{static_cast<uint32_t>(info->unit), static_cast<uint32_t>(info->port), index};
        if (libpmx_port_cache_create(&key) == nullptr) { // the create logged it
            g_free.push_back(index);
            return LIBPMX_E_NOMEM;
        }
    }
    g_recs[index] = *info;
    if (lport_in_table(info->lport)) g_by_lport[static_cast<size_t>(info->lport)] = static_cast<int32_t>(index);
    PMX_DEBUG("unit:%d port:%d lport:%d core:%d unit_type:%d card_type:%d", info->unit, info->port, info->lport,
              info->core, info->unit_type, info->card_type);
    return LIBPMX_OK;
}

extern "C" int libpmx_port_del_unit_port(int32_t unit, int32_t port)
{
    Guard g(g_lock, Access::Write);
    const libpmx_port_cache_t *e = libpmx_port_cache_get(unit, port);
    if (e == nullptr) return LIBPMX_E_NOT_FOUND;
    const uint32_t index = e->value;
    forget_lport_of(index);
    g_recs[index] = libpmx_port_info_t{-1, -1, -1, 0, 0, 0};
    g_free.push_back(index);
    libpmx_port_cache_destroy(unit, port);
    return LIBPMX_OK;
}

extern "C" int libpmx_port_set_local_port_info(int32_t lport_num, const int32_t *online, uint32_t n)
{
    if (online == nullptr && n > 0) {
        PMX_ERROR("online is null, lport_num:%d n:%u", lport_num, n);
        return LIBPMX_E_FAIL;
    }
    g_lport_num.store(lport_num, std::memory_order_relaxed);
    libpmx_online_port_array_init();
    for (uint32_t i = 0; i < n; ++i) libpmx_port_set_lport_online(online[i], 1);
    PMX_INFO("lport_num:%d online:%u", lport_num, n);
    return LIBPMX_OK;
}

extern "C" int libpmx_port_set_card_port_ready(int32_t sslot, int32_t ready, int32_t card_type, int is_add)
{
    const libpmx_local_card_port_ready_t rec{static_cast<uint32_t>(sslot), static_cast<uint32_t>(ready != 0),
                                             static_cast<uint32_t>(card_type)};
    Guard g(g_lock, Access::Write);
    if (is_add == 0) return libpmx_local_card_port_ready_destroy(&rec);
    return libpmx_local_card_port_ready_create(&rec) != nullptr ? LIBPMX_OK : LIBPMX_E_NOMEM;
}

extern "C" int libpmx_port_card_port_ready_find(int32_t sslot, libpmx_local_card_port_ready_t *out)
{
    libpmx_local_card_port_ready_t key{};
    key.sslot = static_cast<uint32_t>(sslot);
    Guard g(g_lock, Access::Read);
    const libpmx_local_card_port_ready_t *rec = libpmx_local_card_port_ready_get(&key);
    if (rec == nullptr) return LIBPMX_E_NOT_FOUND;
    if (out != nullptr) *out = *rec;
    return LIBPMX_OK;
}

extern "C" void libpmx_port_set_bp_range(uint32_t lport_base, uint32_t lport_num)
{
    g_bp_base.store(lport_base, std::memory_order_relaxed);
    g_bp_num.store(lport_num, std::memory_order_relaxed);
    g_bp_known.store(true, std::memory_order_release);
    PMX_INFO("back-plane lports %u..%u", lport_base, lport_base + lport_num);
}

extern "C" int libpmx_port_set_bp_lport(uint32_t lport, uint32_t unit, uint32_t port, int is_add)
{
    Guard g(g_lock, Access::Write);
    if (is_add == 0) return g_bp.erase(lport) == 1 ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
    g_bp[lport] = {unit, port};
    return LIBPMX_OK;
}

// ---- lookups ----

extern "C" int libpmx_port_portinfo_by_unit_port(int32_t unit, int32_t port, libpmx_port_info_t *out)
{
    if (out == nullptr) {
        PMX_ERROR("out is null, unit:%d port:%d", unit, port);
        return LIBPMX_E_FAIL;
    }
    return find(unit, port, out) ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
}

extern "C" int libpmx_get_lport_by_unit_port_detail(int32_t unit, int32_t port, int32_t *lport, int mode)
{
    if (lport != nullptr) { // a back-plane port is a panel port of this card too
        Guard g(g_lock, Access::Read);
        for (const auto &[bp_lport, up] : g_bp)
            if (static_cast<int32_t>(up.first) == unit && static_cast<int32_t>(up.second) == port) {
                *lport = static_cast<int32_t>(bp_lport);
                return LIBPMX_OK;
            }
    }
    libpmx_port_info_t info{};
    const int rc = lookup(__func__, lport, unit, port, &info, mode);
    if (rc != LIBPMX_OK) return rc;
    if (info.lport < 0) {
        PMX_WARN("unit:%d port:%d has no panel port", unit, port);
        return LIBPMX_E_NOT_FOUND;
    }
    *lport = info.lport;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_lport_by_unit_port(int32_t unit, int32_t port, int32_t *lport)
{
    return libpmx_get_lport_by_unit_port_detail(unit, port, lport, 2);
}

extern "C" int libpmx_get_lport_by_unit_port_ext(int32_t unit, int32_t port, int32_t *lport)
{
    return libpmx_get_lport_by_unit_port_detail(unit, port, lport, 0);
}

extern "C" int libpmx_get_coreid_by_unit_port_detail(int32_t unit, int32_t port, int32_t *core, int mode)
{
    libpmx_port_info_t info{};
    const int rc = lookup(__func__, core, unit, port, &info, mode);
    if (rc == LIBPMX_OK) *core = info.core;
    return rc;
}

extern "C" int libpmx_get_unit_port_by_lport_ext(int32_t lport, int32_t *unit, int32_t *port)
{
    if (unit == nullptr || port == nullptr) {
        PMX_ERROR("param is null, lport:%d", lport);
        return LIBPMX_E_FAIL;
    }
    if (!lport_in_table(lport)) return LIBPMX_E_NOT_FOUND;
    Guard g(g_lock, Access::Read);
    const int32_t index = g_by_lport[static_cast<size_t>(lport)];
    if (index < 0) return LIBPMX_E_NOT_FOUND;
    *unit = g_recs[static_cast<size_t>(index)].unit;
    *port = g_recs[static_cast<size_t>(index)].port;
    return LIBPMX_OK;
}

extern "C" int32_t libpmx_get_local_lport_num(void)
{
    int32_t n = g_lport_num.load(std::memory_order_relaxed);
    if (n >= 0) return n;
    int32_t online[LIBPMX_ONLINE_LPORT_MAX];
    uint32_t online_num = 0;
    if (libpmx_get_local_port_from_localport_info(&n, online, LIBPMX_ONLINE_LPORT_MAX, &online_num) != LIBPMX_OK)
        return -1;
    libpmx_port_set_local_port_info(n, online, online_num);
    return n;
}

extern "C" int libpmx_is_local_virtual_unit_port(int32_t unit, int32_t port)
{
    libpmx_port_info_t info{};
    if (!find(unit, port, &info)) return 0;
    if (info.unit_type == 1) return 1;
    // A power-module unit's ports take type 25 as well: the modid type of the unit is 2.
    int32_t modid = -1, type = 0;
    return libpmx_get_lmodid_by_unit_core_ext(static_cast<uint32_t>(unit), info.core, &modid) == LIBPMX_OK &&
           libpmx_get_modid_type_from_cache(modid, &type) == LIBPMX_OK && type == 2;
}

extern "C" int libpmx_is_bp_lport_ext(uint32_t lport)
{
    const uint32_t base = g_bp_base.load(std::memory_order_relaxed);
    const uint32_t num = g_bp_num.load(std::memory_order_relaxed);
    return num > 0 && lport >= base && lport - base < num;
}

extern "C" int libpmx_is_bp_lport(uint32_t lport)
{
    if (!g_bp_known.load(std::memory_order_acquire)) load_bp_range();
    return libpmx_is_bp_lport_ext(lport);
}

extern "C" int libpmx_get_bp_unit_port_by_lport(uint32_t lport, uint32_t *unit, uint32_t *port, int mode)
{
    if (unit == nullptr || port == nullptr) {
        PMX_ERROR("param is null, lport:%u", lport);
        return LIBPMX_E_FAIL;
    }
    {
        Guard g(g_lock, Access::Read);
        auto it = g_bp.find(lport);
        if (it != g_bp.end()) {
            *unit = it->second.first;
            *port = it->second.second;
            return LIBPMX_OK;
        }
    }
    if (mode == 0) return LIBPMX_E_NOT_FOUND;
    uint32_t u = 0, p = 0;
    const int rc = libpmx_get_info_from_ixnlporttoupt(lport, &u, &p);
    if (rc != LIBPMX_OK) return rc;
    libpmx_port_set_bp_lport(lport, u, p, 1);
    *unit = u;
    *port = p;
    return LIBPMX_OK;
}

// ---- subcard port queries ----

extern "C" int libpmx_get_subcard_type_scid_by_unit_port(int32_t unit, int32_t port, int32_t *subcard_type,
                                                         int32_t *scid, int mode)
{
    if (subcard_type == nullptr || scid == nullptr) {
        PMX_ERROR("param is null, unit:%d port:%d", unit, port);
        return LIBPMX_E_FAIL;
    }
    libpmx_port_info_t info{};
    int rc = find_or_read(__func__, unit, port, &info, mode);
    if (rc != LIBPMX_OK) return rc;
    const int32_t mine = libpmx_get_my_card_type(mode != 0 ? 1 : 0);
    if (mine < 0) {
        PMX_WARN("card type of this card unknown, unit:%d port:%d", unit, port);
        return LIBPMX_E_INVAL;
    }
    const bool on_subcard = info.card_type != 0 && (info.card_type != mine ||
                                                    libpmx_get_my_node_type(mode != 0 ? 1 : 0) == LIBPMX_NODE_TYPE_SUB_LC);
    if (!on_subcard) {
        *subcard_type = 0;
        *scid = 0;
        return LIBPMX_OK;
    }
    int32_t found = 0;
    rc = libpmx_get_scid_with_subcard_type(info.card_type, &found, mode);
    if (rc != LIBPMX_OK) return rc;
    *subcard_type = info.card_type;
    *scid = found;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_scid_by_unit_port(int32_t unit, int32_t port, int32_t *scid, int mode)
{
    int32_t subcard_type = 0;
    return libpmx_get_subcard_type_scid_by_unit_port(unit, port, &subcard_type, scid, mode);
}

extern "C" void libpmx_dump_port_table(void)
{
    std::vector<libpmx_port_info_t> rows;
    {
        Guard g(g_lock, Access::Read);
        for (const libpmx_port_info_t &r : g_recs)
            if (r.unit >= 0) rows.push_back(r);
    }
    std::sort(rows.begin(), rows.end(), [](const libpmx_port_info_t &a, const libpmx_port_info_t &b) {
        const bool pa = a.lport >= 0, pb = b.lport >= 0;
        if (pa != pb) return pa;
        if (a.lport != b.lport) return a.lport < b.lport;
        return std::make_pair(a.unit, a.port) < std::make_pair(b.unit, b.port);
    });
    if (pmx::dump_json()) {
        pmx::JsonTable t("port_table");
        for (const libpmx_port_info_t &r : rows)
            t.row({pmx::num("lport", r.lport), pmx::num("unit", r.unit), pmx::num("port", r.port),
                   pmx::num("core", r.core), pmx::text("unit_kind", r.unit_type == 1 ? "virtual" : "physical"),
                   pmx::num("card_type", r.card_type),
                   pmx::num("online", r.lport >= 0 && libpmx_port_lport_is_online(r.lport))});
        t.end();
        return;
    }
    ssat_printf("%5s | %4s | %4s | %4s | %-8s | %9s | %s\n", "lport", "unit", "port", "core", "unit", "card_type",
                "online");
    for (const libpmx_port_info_t &r : rows)
        ssat_printf("%5d | %4d | %4d | %4d | %-8s | %9d | %s\n", r.lport, r.unit, r.port, r.core,
                    r.unit_type == 1 ? "virtual" : "physical", r.card_type,
                    r.lport >= 0 && libpmx_port_lport_is_online(r.lport) ? "yes" : "no");
    ssat_printf("total %zu ports, lport_num %d, back-plane lports", rows.size(), g_lport_num.load());
    if (libpmx_is_bp_lport_ext(g_bp_base.load()))
        ssat_printf(" %u..%u\n", g_bp_base.load(), g_bp_base.load() + g_bp_num.load() - 1);
    else
        ssat_printf(" none\n");
}
