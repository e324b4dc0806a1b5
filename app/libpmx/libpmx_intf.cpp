// Interface table: the chains by ifx and by gphyid with their index, the interface-table lock,
// the ifx and phyid lookups with their database fall-backs, the dumps and their debug commands.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_log.h"

#include "libpmx_intf.h"

#include <unistd.h>

#include <algorithm>
#include <new>
#include <tuple>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_dbg_args.hpp"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"
#include "libpmx_intf_lock.hpp"
#include "libpmx_intf_table.hpp"
#include "libpmx_mom.h"
#include "libpmx_stats.hpp"
#include "ssat.h"

namespace pmx
{

RwLock g_intf_lock{"interface-table lock", LockRank::IntfTable};

} // namespace pmx

namespace
{

// Set up at load by libpmx_intf_init, which may run before dynamic initialisation: constant-initialised.
constinit pmx::IntfTable<true> g_intf_table;

using pmx::Access;
using pmx::Guard;

const char kRule[] = "-----------+------------+------------+-------+------+------+------+-----+------+-------+-------+"
                     "------+------+-------+------\n";

void print_header(FILE *out)
{
    std::fprintf(out, "%-10s | %-10s | %-10s | %5s | %4s | %4s | %4s | %3s | %4s | %5s | %5s | %4s | %4s | %5s | %4s\n",
                 "ifx", "gphyid", "lphyid", "modid", "mprt", "unit", "port", "dev", "slot", "sslot", "lport", "vid",
                 "llcb", "valid", "core");
    std::fputs(kRule, out);
}

void print_row(FILE *out, const libpmx_intf_info_t &i)
{
    std::fprintf(out, "%-10u | 0x%08x | 0x%08x | %5d | %4d | %4d | %4d | %3d | %4d | %5d | %5d | %4d | %4d | %5u | %4d\n",
                 i.ifx, i.gphyid, i.lphyid, i.modid, i.mport, i.unit, i.port, i.dev, i.slot, i.sslot, i.lport, i.vid,
                 i.llcbtype, static_cast<unsigned>(i.is_valid), i.core);
}

void print_total(FILE *out, uint32_t shown, uint32_t all)
{
    std::fputs(kRule, out);
    if (shown == all)
        std::fprintf(out, "total: %u interfaces\n", all);
    else
        std::fprintf(out, "shown: %u of %u interfaces\n", shown, all);
}

// Copies of the nodes a dump shows, taken under the read lock so that printing holds no lock.
template <class Pick> std::vector<libpmx_intf_info_t> collect(bool by_phy, Pick pick, uint32_t *all)
{
    std::vector<libpmx_intf_info_t> rows;
    Guard g(pmx::g_intf_lock, Access::Read);
    auto take = [&](const pmx::IntfNode *n) {
        if (pick(n->info)) rows.push_back(n->info);
    };
    if (by_phy)
        g_intf_table.for_each_in_phy_order(take);
    else
        g_intf_table.for_each_in_ifx_order(take);
    *all = g_intf_table.size();
    return rows;
}

// A dump's copies need memory; without it the dump says so instead of unwinding into C callers.
template <class F> void without_throwing(F dump) noexcept
{
    try {
        dump();
    } catch (const std::bad_alloc &) {
        ssat_printf("out of memory: no room to copy the table for the dump\n");
    }
}

void print_json_rows(const std::vector<libpmx_intf_info_t> &rows)
{
    pmx::JsonTable t("interfaces");
    for (const auto &r : rows)
        t.row({pmx::num("ifx", r.ifx), pmx::hex("gphyid", r.gphyid), pmx::hex("lphyid", r.lphyid),
               pmx::num("modid", r.modid), pmx::num("mport", r.mport), pmx::num("unit", r.unit),
               pmx::num("port", r.port), pmx::num("dev", r.dev), pmx::num("slot", r.slot), pmx::num("sslot", r.sslot),
               pmx::num("lport", r.lport), pmx::num("vid", r.vid), pmx::num("llcbtype", r.llcbtype),
               pmx::num("is_valid", r.is_valid), pmx::num("core", r.core)});
    t.end();
}

void print_rows(const std::vector<libpmx_intf_info_t> &rows, uint32_t all)
{
    if (pmx::dump_json()) return print_json_rows(rows);
    FILE *out = ssat_out();
    print_header(out);
    for (const auto &r : rows) print_row(out, r);
    print_total(out, static_cast<uint32_t>(rows.size()), all);
}

int cmd_dump_ifx(const char *args)
{
    pmx::DbgArgs a(args, {"ifx", "json"});
    pmx::JsonScope json(a.get("json", 0) != 0);
    if (!a.error().empty()) return pmx::dbg_usage("dump_ifx_tbl", "[ifx=%u] [json=1]", a.error());
    libpmx_dump_ifx_tbl(static_cast<uint32_t>(a.get("ifx", 0)));
    return LIBPMX_OK;
}

int cmd_dump_phy(const char *args)
{
    pmx::DbgArgs a(args, {"phyid", "json"});
    pmx::JsonScope json(a.get("json", 0) != 0);
    if (!a.error().empty()) return pmx::dbg_usage("dump_phy_tbl", "[phyid=%x] [json=1]", a.error());
    libpmx_dump_phy_tbl(static_cast<uint32_t>(a.get("phyid", 0)));
    return LIBPMX_OK;
}

int cmd_dump_dev_slot(const char *args)
{
    pmx::DbgArgs a(args, {"dev", "slot", "json"});
    pmx::JsonScope json(a.get("json", 0) != 0);
    if (!a.error().empty()) return pmx::dbg_usage("dump_ifx_tbl_by_dev_slot", "dev=%d [slot=%d] [json=1]", a.error());
    if (a.get("dev", -1) < 0) return pmx::dbg_usage("dump_ifx_tbl_by_dev_slot", "dev=%d [slot=%d] [json=1]", "dev is needed");
    libpmx_dump_ifx_tbl_by_dev_slot(static_cast<int32_t>(a.get("dev", -1)), static_cast<int32_t>(a.get("slot", -1)));
    return LIBPMX_OK;
}

int cmd_index(const char *args)
{
    pmx::DbgArgs a(args, {"on"});
    const int64_t on = a.get("on", -1);
    if (!a.error().empty() || (on != 0 && on != 1))
        return pmx::dbg_usage("set_intf_index", "on=0|1", a.error().empty() ? "on must be 0 or 1" : a.error());
    const int rc = libpmx_intf_index_enable(static_cast<int>(on));
    ssat_printf("interface index %s\n", rc != LIBPMX_OK ? "could not be built, the chains answer" : on ? "on" : "off");
    return rc;
}

int cmd_dump_ordered(const char *args)
{
    pmx::DbgArgs a(args, {"by", "json"});
    pmx::JsonScope json(a.get("json", 0) != 0);
    const int64_t by = a.get("by", LIBPMX_INTF_ORDER_IFX);
    if (!a.error().empty() || by < LIBPMX_INTF_ORDER_IFX || by > LIBPMX_INTF_ORDER_DEV_SLOT)
        return pmx::dbg_usage("dump_ifx_tbl_ordered_by", "by=0|1|2  (0 ifx, 1 gphyid, 2 dev/slot/sslot/lport)",
                     a.error().empty() ? "by must be 0, 1 or 2" : a.error());
    libpmx_dump_ifx_tbl_ordered_by(static_cast<int32_t>(by));
    return LIBPMX_OK;
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_ifx_tbl", "[ifx=%u]  interfaces in ifx-chain order, or the node of one ifx", cmd_dump_ifx},
    {"dump_phy_tbl", "[phyid=%x]  interfaces in gphyid-chain order, or the nodes of one gphyid", cmd_dump_phy},
    {"dump_ifx_tbl_by_dev_slot", "dev=%d [slot=%d]  the interfaces of a device or of one slot", cmd_dump_dev_slot},
    {"dump_ifx_tbl_ordered_by", "by=0|1|2  interfaces sorted by ifx, gphyid, or dev/slot/sslot/lport", cmd_dump_ordered},
    {"set_intf_index", "on=0|1  the interface index (off: the chains alone answer, same answers)", cmd_index},
};

} // namespace

extern "C" int libpmx_intf_init(void)
{
    // Runs at load, before any other thread; the lock needs no call (statically initialised).
    static bool done = false;
    if (done) return LIBPMX_OK;
    done = true;
    if (!g_intf_table.init()) PMX_ERROR("NO MEMORY!!! no interface index, the chains answer");
    libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]);
    libpmx_intf_cid_init();
    libpmx_intf_sub_init();
    libpmx_intf_sport_init();
    return LIBPMX_OK;
}

extern "C" int libpmx_intf_index_enable(int on)
{
    Guard g(pmx::g_intf_lock, Access::Write);
    if (g_intf_table.set_indexed(on != 0)) return LIBPMX_OK;
    PMX_ERROR("NO MEMORY!!! interface index not built, the chains answer");
    return LIBPMX_E_NOMEM;
}

// ---- changes ----

extern "C" int libpmx_add_intf_node(const libpmx_intf_info_t *info)
{
    if (info == nullptr) {
        PMX_ERROR("input param is invalid");
        return LIBPMX_E_FAIL;
    }
    if (info->gphyid == 0xFFFFFFFFu) {
        PMX_WARN("invalid mgmt gphyid:0x%x", info->gphyid);
        return LIBPMX_OK;
    }
    Guard g(pmx::g_intf_lock, Access::Write);
    return g_intf_table.update(info) == 0 ? g_intf_table.alloc(info) : LIBPMX_OK;
}

extern "C" int libpmx_update_intf_ifx_list(const libpmx_intf_info_t *info)
{
    if (info == nullptr) {
        PMX_ERROR("input param is invalid");
        return LIBPMX_E_FAIL;
    }
    Guard g(pmx::g_intf_lock, Access::Write);
    return g_intf_table.update(info);
}

extern "C" int libpmx_alloc_intf_node(const libpmx_intf_info_t *info)
{
    if (info == nullptr) {
        PMX_ERROR("info is null");
        return LIBPMX_E_FAIL;
    }
    Guard g(pmx::g_intf_lock, Access::Write);
    return g_intf_table.alloc(info);
}

extern "C" int libpmx_del_intf_node(uint32_t ifx)
{
    Guard g(pmx::g_intf_lock, Access::Write);
    return g_intf_table.del(ifx);
}

// ---- lookups ----

namespace
{

using Answer = decltype(g_intf_table)::Answer;

// The answer of the first node of key into *out: its gphyid when by_ifx, else its ifx; false when
// there is none (*out untouched). Read without the lock when no change overlaps the read (the
// hot path of every process), else under the lock.
bool cached_answer(bool by_ifx, uint32_t key, uint32_t *out)
{
    const auto cache = by_ifx ? pmx::stats::Cache::IfxIndex : pmx::stats::Cache::PhyidIndex;
    const uint32_t seen = pmx::g_intf_lock.read_begin();
    uint32_t value = 0;
    const Answer a = by_ifx ? g_intf_table.answer_phyid(key, &value) : g_intf_table.answer_ifx(key, &value);
    if (a != Answer::Unknown && pmx::g_intf_lock.read_valid(seen)) {
        pmx::stats::count_lookup(cache, a == Answer::Found);
        if (a == Answer::Found) *out = value;
        return a == Answer::Found;
    }
    Guard g(pmx::g_intf_lock, Access::Read);
    const pmx::IntfNode *n = pmx::stats::lookup(cache, by_ifx ? g_intf_table.by_ifx(key) : g_intf_table.by_phyid(key));
    if (n == nullptr) return false;
    *out = by_ifx ? n->info.gphyid : n->info.ifx;
    return true;
}

} // namespace

extern "C" int libpmx_get_intf_node_by_ifx(uint32_t ifx, libpmx_intf_info_t *info)
{
    if (info == nullptr) {
        PMX_ERROR("info is null ifx:%u", ifx);
        return LIBPMX_E_FAIL;
    }
    Guard g(pmx::g_intf_lock, Access::Read);
    const pmx::IntfNode *n = pmx::stats::lookup(pmx::stats::Cache::IfxIndex, g_intf_table.by_ifx(ifx));
    if (n == nullptr) return LIBPMX_E_NOT_FOUND;
    *info = n->info;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_phyid_by_ifx_detail(uint32_t ifx, uint32_t *gphyid, int cache_op)
{
    if (gphyid == nullptr || ifx == 0) {
        PMX_WARN("input param is invalid");
        return gphyid == nullptr ? LIBPMX_E_FAIL : LIBPMX_E_INVAL;
    }
    *gphyid = 0;
    cached_answer(true, ifx, gphyid);
    PMX_INFO("get phyid from cache, ifx:%u, phyid:0x%x", ifx, *gphyid);
    if (*gphyid != 0) return LIBPMX_OK;
    if (cache_op == 0) {
        PMX_WARN("get fail from cache, ifx:%u, ret:%d", ifx, LIBPMX_E_NOT_FOUND);
        return LIBPMX_E_NOT_FOUND;
    }
    PMX_WARN("find phyid from cache by ifx:%u fail, and try to get from DB", ifx);
    libpmx_intf_info_t rec{};
    const int rc = libpmx_get_info_from_pmx_ifx_tbl(ifx, &rec, cache_op);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get from db fail, ifx:%u ret:%d", ifx, rc);
        return rc;
    }
    *gphyid = rec.gphyid;
    PMX_INFO("ifx:%u phyid:0x%x", ifx, rec.gphyid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_ifx_by_phyid_detail(uint32_t phyid, uint32_t *ifx, int cache_op)
{
    if (ifx == nullptr) {
        PMX_ERROR("ifx is null, phyid:0x%x, cache_op:%d", phyid, cache_op);
        return LIBPMX_E_FAIL;
    }
    if (phyid == 0) {
        PMX_WARN("phyid:0 is invalid");
        return LIBPMX_E_NOT_FOUND;
    }
    if (cached_answer(false, phyid, ifx)) {
        PMX_INFO("get ifx:%u from cache by phyid:0x%x", *ifx, phyid);
        return LIBPMX_OK;
    }
    if (cache_op == 0) {
        PMX_WARN("get ifx fail, phyid:0x%x, ret:%d", phyid, LIBPMX_E_NOT_FOUND);
        return LIBPMX_E_NOT_FOUND;
    }
    PMX_WARN("find ifx from cache by phyid:0x%x fail, and try to get from DB", phyid);
    libpmx_intf_info_t rec{};
    const int rc = libpmx_get_info_from_pmx_phy_tbl(phyid, &rec, cache_op);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get ifx fail from db, phyid:0x%x ret:%d", phyid, rc);
        return LIBPMX_E_NOT_FOUND;
    }
    *ifx = rec.ifx;
    PMX_INFO("phyid:0x%x ifx:%u", phyid, rec.ifx);
    return LIBPMX_OK;
}

bool pmx::intf_node_by_phyid(uint32_t phyid, libpmx_intf_info_t *out)
{
    Guard g(pmx::g_intf_lock, Access::Read);
    const pmx::IntfNode *n = pmx::stats::lookup(pmx::stats::Cache::PhyidIndex, g_intf_table.by_phyid(phyid));
    if (n == nullptr) return false;
    *out = n->info;
    return true;
}

extern "C" int libpmx_get_ifx_by_phyid_block_detail(uint32_t phyid, uint32_t *ifx)
{
    int rc = libpmx_get_ifx_by_phyid_detail(phyid, ifx, 0);
    if (rc == LIBPMX_OK || ifx == nullptr) return rc;
    const uint32_t type = (phyid >> 24) & 0xFFu;
    if (type != LIBPMX_PHYID_GLOBAL && type != LIBPMX_PHYID_POWER) {
        PMX_WARN("not support phyid:0x%x", phyid);
        return LIBPMX_E_NOT_FOUND;
    }
    PMX_WARN("find ifx from cache by phyid:0x%x fail, and try to get from DB", phyid);
    const auto modid = static_cast<int32_t>((phyid >> 8) & 0x7FFu);
    const auto port = static_cast<int32_t>(phyid & 0xFFu);
    int32_t cid = -1;
    rc = libpmx_get_cid_by_modid_port(modid, port, &cid, 2);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("modid invaild, get cid fail, modid:%d port:%d ret:%d", modid, port, rc);
        return LIBPMX_E_FAIL;
    }
    const auto phyid_cid = static_cast<int32_t>((phyid >> 19) & 0x1Fu);
    if (cid != phyid_cid) {
        PMX_ERROR("cid invaild, modid:%d port:%d cid:%d l_cid:%d", modid, port, phyid_cid, cid);
        return LIBPMX_E_FAIL;
    }
    // The port's card is present (its module and cid agree): wait for its record, unbounded.
    libpmx_intf_info_t rec{};
    // Each read waits and is counted in the statistics by itself.
    while (libpmx_get_info_from_pmx_phy_tbl(phyid, &rec, 2) != LIBPMX_OK) usleep(100000);
    *ifx = rec.ifx;
    PMX_INFO("phyid:0x%x ifx:%u", phyid, rec.ifx);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_ifx_by_phyid_block(uint32_t phyid, uint32_t *ifx)
{
    return libpmx_get_ifx_by_phyid_block_detail(phyid, ifx);
}

extern "C" int libpmx_get_phyid_by_ifx(uint32_t ifx, uint32_t *gphyid)
{
    return libpmx_get_phyid_by_ifx_detail(ifx, gphyid, 2);
}

extern "C" int libpmx_get_phyid_by_ifx_ext(uint32_t ifx, uint32_t *gphyid)
{
    return libpmx_get_phyid_by_ifx_detail(ifx, gphyid, 0);
}

extern "C" int libpmx_get_phyid_by_ifx_ext_db(uint32_t ifx, uint32_t *gphyid)
{
    return libpmx_get_phyid_by_ifx_detail(ifx, gphyid, 1);
}

extern "C" int libpmx_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    return libpmx_get_ifx_by_phyid_detail(phyid, ifx, 2);
}

extern "C" int libpmx_get_ifx_by_phyid_ext(uint32_t phyid, uint32_t *ifx)
{
    return libpmx_get_ifx_by_phyid_detail(phyid, ifx, 0);
}

extern "C" int libpmx_is_phyid_fit(uint32_t phyid, uint32_t type)
{
    return ((phyid >> 24) & 0xFFu) == type;
}

extern "C" int libpmx_is_physical_port(uint32_t phyid)
{
    switch ((phyid >> 24) & 0xFFu) {
    case LIBPMX_PHYID_GLOBAL:
    case LIBPMX_PHYID_LOCAL:
    case LIBPMX_PHYID_BACKPLANE:
    case LIBPMX_PHYID_SUB_ROUTE:
    case LIBPMX_PHYID_POWER:
        return 1;
    default:
        return 0;
    }
}

// ---- dumps ----

extern "C" void libpmx_dump_ifx_tbl(uint32_t ifx)
{
    without_throwing([ifx] {
        uint32_t all = 0;
        const auto rows = collect(false, [ifx](const libpmx_intf_info_t &i) { return ifx == 0 || i.ifx == ifx; }, &all);
        print_rows(rows, all);
    });
}

extern "C" void libpmx_dump_phy_tbl(uint32_t phyid)
{
    without_throwing([phyid] {
        uint32_t all = 0;
        const auto rows =
            collect(true, [phyid](const libpmx_intf_info_t &i) { return phyid == 0 || i.gphyid == phyid; }, &all);
        print_rows(rows, all);
    });
}

extern "C" void libpmx_dump_ifx_tbl_by_dev_slot(int32_t dev, int32_t slot)
{
    without_throwing([dev, slot] {
        uint32_t all = 0;
        auto rows = collect(
            false, [dev, slot](const libpmx_intf_info_t &i) { return i.dev == dev && (slot < 0 || i.slot == slot); }, &all);
        std::stable_sort(rows.begin(), rows.end(), [](const libpmx_intf_info_t &a, const libpmx_intf_info_t &b) {
            return std::tie(a.slot, a.sslot, a.lport, a.ifx) < std::tie(b.slot, b.sslot, b.lport, b.ifx);
        });
        print_rows(rows, all);
    });
}

extern "C" void libpmx_dump_ifx_tbl_ordered_by(int32_t order)
{
    without_throwing([order] {
        uint32_t all = 0;
        auto rows = collect(false, [](const libpmx_intf_info_t &) { return true; }, &all);
        std::stable_sort(rows.begin(), rows.end(), [order](const libpmx_intf_info_t &a, const libpmx_intf_info_t &b) {
            if (order == LIBPMX_INTF_ORDER_GPHYID) return std::tie(a.gphyid, a.ifx) < std::tie(b.gphyid, b.ifx);
            if (order == LIBPMX_INTF_ORDER_DEV_SLOT)
                return std::tie(a.dev, a.slot, a.sslot, a.lport, a.ifx) < std::tie(b.dev, b.slot, b.sslot, b.lport, b.ifx);
            return a.ifx < b.ifx;
        });
        print_rows(rows, all);
    });
}
