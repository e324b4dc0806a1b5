// Modules and chips: the module table (chip-id resources and per-slot records) under the
// module-table lock, the card-info cache under its own lock, the lookups on them with their
// database fall-backs, and their dumps.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mod"
#include "libpmx_log.h"

#include "libpmx_mod.h"

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "libpmx_cap.h"
#include "libpmx_dbg.h"
#include "libpmx_dbg_args.hpp"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_lock.hpp"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "ssat.h"

namespace
{

using pmx::Access;
using pmx::Guard;

// Module-table lock: the chip-id resources and the per-slot records.
pmx::RwLock g_mod_lock{"module-table lock", pmx::LockRank::ModTable};
// Card-info lock: the card type of each dev/slot/sslot.
pmx::RwLock g_card_info_lock{"card-info lock", pmx::LockRank::CardInfo};

constexpr int kCoresMax = LIBPMX_FUID_MODIDS_PER_UNIT;

bool dev_in_range(int32_t dev)
{
    return dev >= 1 && dev <= 16;
}

// Unit entries of a per-slot record that are in use (never more than the record holds).
uint32_t units_in_use(const ce_pmx_fuid_info_per_slot_t &r)
{
    return std::min<uint32_t>(r.fuid_num, LIBPMX_FUID_UNITS_PER_SLOT);
}

uint32_t ids_of(const libpmx_fuid_unit_t &u)
{
    return u.idnum <= 0 ? 0 : std::min<uint32_t>(static_cast<uint32_t>(u.idnum), kCoresMax);
}

// A copy of the valid chip-id resource of a modid (module-table lock taken for reading).
bool find_res(int32_t modid, chipid_res_t *out)
{
    Guard g(g_mod_lock, Access::Read);
    const chipid_res_t *r = libpmx_chipid_res_get(modid);
    if (r == nullptr || r->valid == 0) return false;
    *out = *r;
    return true;
}

// Reads the module table that lists modid and applies it as the change callbacks would.
int load_mod_tbl_of_modid(int32_t modid)
{
    libpmx_mod_tbl_info_t info{};
    const int rc = libpmx_get_info_from_pmx_mod_tbl(modid, libpmx_mod_tbl_decode, &info);
    if (rc != LIBPMX_OK) return rc;
    return libpmx_add_mod_tbl(info.dev, info.slot, info.sslot, &info.tbl);
}

// The chip-id resource of modid, reading the module tables on a miss when read_db: 0, -7 when
// still missing, or the read's code.
int res_with_fallback(int32_t modid, bool read_db, chipid_res_t *res)
{
    if (find_res(modid, res)) return LIBPMX_OK;
    if (!read_db) return LIBPMX_E_NOT_FOUND;
    const int rc = load_mod_tbl_of_modid(modid);
    if (rc != LIBPMX_OK) return rc;
    return find_res(modid, res) ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
}

// The modid of a node's unit and core from the per-slot record of the node's gslot.
int libpmx_get_modid_by_node_unit_core(int32_t node, int32_t unit, int32_t core, int32_t *modid)
{
    const int32_t gslot = libpmx_get_gslot_by_node(node);
    if (gslot < 0 || gslot >= LIBPMX_GSLOT_MAX) {
        PMX_ERROR("get gslot from node fail, node=%#08x", node);
        return LIBPMX_E_FAIL;
    }
    Guard g(g_mod_lock, Access::Read);
    const ce_pmx_fuid_info_per_slot_t *r = libpmx_ce_pmx_fuid_info_per_slot_get(gslot);
    if (r == nullptr) {
        PMX_WARN("gslot[%#08x] don't existed", gslot);
        return LIBPMX_E_NOT_FOUND;
    }
    if (r->status != LIBPMX_MOD_TBL_ALLOC) {
        PMX_WARN("gslot[%#08x] not alloc chipid", gslot);
        return LIBPMX_E_NOT_FOUND;
    }
    if (unit >= static_cast<int64_t>(r->fuid_num) || core >= kCoresMax || core < 0) {
        PMX_ERROR("unit[%d %d], core[%d %d]", unit, static_cast<int32_t>(r->fuid_num), core, kCoresMax);
        return LIBPMX_E_INVAL;
    }
    for (const libpmx_fuid_unit_t &u : r->fuid) {
        if (u.unit != unit) continue;
        *modid = static_cast<int32_t>(u.modid[core]);
        PMX_DEBUG("unit[%d] first modid = %d", unit, *modid);
        return LIBPMX_OK;
    }
    return LIBPMX_E_INVAL;
}

// The modid of a unit and core of this card; every way of not finding it is -7.
int libpmx_get_local_modid_by_unit_core(uint32_t unit, int32_t core, int32_t *modid)
{
    const int32_t node = libpmx_get_my_node(1);
    if (node <= 0) {
        PMX_ERROR("get my node failed, unit:%d, core:%d", static_cast<int32_t>(unit), core);
        return LIBPMX_E_FAIL;
    }
    const int32_t gslot = libpmx_get_gslot_by_node(node);
    int32_t found = -1;
    int rc = LIBPMX_E_NOT_FOUND;
    {
        Guard g(g_mod_lock, Access::Read);
        const ce_pmx_fuid_info_per_slot_t *r = libpmx_ce_pmx_fuid_info_per_slot_get(gslot);
        if (r != nullptr && r->status == LIBPMX_MOD_TBL_ALLOC && core < kCoresMax && unit < r->fuid_num) {
            for (const libpmx_fuid_unit_t &u : r->fuid) {
                if (u.unit != static_cast<int64_t>(unit)) continue;
                found = static_cast<int32_t>(u.modid[core]);
                rc = LIBPMX_OK;
                break;
            }
        }
    }
    PMX_DEBUG("gslot:0x%x unit:%d, coreid:%d, modid:%d, ret:%d", gslot, static_cast<int32_t>(unit), core, found, rc);
    if (rc == LIBPMX_OK) *modid = found;
    return rc;
}

// ---- dumps ----

// What a dump shows: rows of one key (0: all), and the JSON form's table when asked for.
struct DumpFilter {
    int32_t want;
    pmx::JsonTable *json;
};

int print_res_row(void *entry, void *arg)
{
    const auto *r = static_cast<const chipid_res_t *>(entry);
    const auto *f = static_cast<const DumpFilter *>(arg);
    if (f->want != 0 && static_cast<int32_t>(r->modid) != f->want) return 0;
    if (f->json != nullptr)
        f->json->row({pmx::num("modid", r->modid), pmx::hex("gslot", r->gslot), pmx::num("unit", r->unit),
                      pmx::num("valid", r->valid), pmx::num("coreid", r->coreid), pmx::num("type", r->type)});
    else
        ssat_printf("%6d\t  %#08x\t%-6d %-8d %d\n", static_cast<int32_t>(r->modid), r->gslot,
                    static_cast<int32_t>(r->unit), static_cast<int32_t>(r->coreid), static_cast<int32_t>(r->type));
    return 0;
}

void print_modids(const ce_pmx_fuid_info_per_slot_t &r)
{
    for (uint32_t i = 0; i < units_in_use(r); ++i)
        for (uint32_t j = 0; j < ids_of(r.fuid[i]); ++j) ssat_printf("%d ", static_cast<int32_t>(r.fuid[i].modid[j]));
}

const char *status_text(uint32_t status)
{
    return status == LIBPMX_MOD_TBL_ALLOC ? "alloc" : status == LIBPMX_MOD_TBL_LIMIT ? "limit"
                                                   : status == LIBPMX_MOD_TBL_NONE  ? "none"
                                                                                     : "unknown";
}

void json_slot_row(pmx::JsonTable &t, const ce_pmx_fuid_info_per_slot_t &r)
{
    std::string ids;
    for (uint32_t i = 0; i < units_in_use(r); ++i)
        for (uint32_t j = 0; j < ids_of(r.fuid[i]); ++j)
            ids += (ids.empty() ? "" : " ") + std::to_string(r.fuid[i].modid[j]);
    t.row({pmx::hex("gslot", r.gslot), pmx::text("status", status_text(r.status)),
           pmx::num("card_type", r.card_type), pmx::num("fuid_num", r.fuid_num), pmx::text("modids", ids.c_str())});
}

int print_slot_row(void *entry, void *arg)
{
    const auto *r = static_cast<const ce_pmx_fuid_info_per_slot_t *>(entry);
    const auto *f = static_cast<const DumpFilter *>(arg);
    if (f->want != 0 && static_cast<int32_t>(r->gslot) != f->want) return 0;
    if (f->json != nullptr) {
        json_slot_row(*f->json, *r);
        return 0;
    }
    ssat_printf("%#08x  \t", r->gslot);
    if (r->status == LIBPMX_MOD_TBL_ALLOC)
        print_modids(*r);
    else if (r->status == LIBPMX_MOD_TBL_LIMIT)
        ssat_printf("limit");
    else if (r->status == LIBPMX_MOD_TBL_NONE)
        ssat_printf("none");
    ssat_printf("\t%#x\n", r->card_type);
    return 0;
}

int print_card_info_row(void *entry, void *arg)
{
    const auto *r = static_cast<const libpmx_card_info_t *>(entry);
    if (auto *json = static_cast<pmx::JsonTable *>(arg); json != nullptr) {
        json->row({pmx::num("dev", static_cast<int32_t>(r->dev)), pmx::num("slot", static_cast<int32_t>(r->slot)),
                   pmx::num("sslot", static_cast<int32_t>(r->sslot)),
                   pmx::num("card_type", static_cast<int32_t>(r->card_info))});
        return 0;
    }
    ssat_printf("dev:%d slot:%d sslot:%d card_type:%d\n", static_cast<int32_t>(r->dev), static_cast<int32_t>(r->slot),
                static_cast<int32_t>(r->sslot), static_cast<int32_t>(r->card_info));
    return 0;
}

int cmd_dump_chipid_res(const char *args)
{
    pmx::DbgArgs a(args, {"modid", "json"});
    if (!a.error().empty()) return pmx::dbg_usage("dump_chipid_res", "[modid=%d] [json=1]", a.error());
    pmx::JsonScope json(a.get("json", 0) != 0);
    libpmx_dump_chipid_res(static_cast<int32_t>(a.get("modid", 0)));
    return LIBPMX_OK;
}

int cmd_dump_chipslot(const char *args)
{
    pmx::DbgArgs a(args, {"gslot", "json"});
    if (!a.error().empty()) return pmx::dbg_usage("dump_chipslot", "[gslot=%d] [json=1]", a.error());
    pmx::JsonScope json(a.get("json", 0) != 0);
    libpmx_dump_chipslot(static_cast<int32_t>(a.get("gslot", 0)));
    return LIBPMX_OK;
}

int cmd_dump_local_modid(const char *args)
{
    return pmx::dbg_table_cmd("dump_local_modid", args, libpmx_dump_local_modid, false);
}

int cmd_dump_card_info(const char *args)
{
    return pmx::dbg_table_cmd("dump_card_info", args, libpmx_dbg_dump_card_info);
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_chipid_res", "[modid=%d]  chip-id resources (modid, gslot, unit, core, type); all by default",
     cmd_dump_chipid_res},
    {"dump_chipslot", "[gslot=%d]  per-slot module tables (modids per unit, card type); all by default",
     cmd_dump_chipslot},
    {"dump_local_modid", "  the modids of this card", cmd_dump_local_modid},
    {"dump_card_info", "  card type of every dev/slot/sslot", cmd_dump_card_info},
};

} // namespace

extern "C" int libpmx_mod_init(void)
{
    libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]); // logs its own failure
    return libpmx_sysport_init();
}

// ---- slot arithmetic ----

extern "C" int32_t libpmx_get_gslot_by_dev_slot_sslot(int32_t dev, int32_t slot, int32_t sslot)
{
    const int32_t base = (sslot & 31) << 10 | (slot & 31);
    return dev_in_range(dev) ? base | (dev - 1) << 5 : base;
}

extern "C" void libpmx_get_dev_slot_sslot_by_gslot(int32_t gslot, int32_t *dev, int32_t *slot, int32_t *sslot)
{
    if (dev != nullptr) *dev = ((gslot >> 5) & 31) + 1;
    if (slot != nullptr) *slot = gslot & 31;
    if (sslot != nullptr) *sslot = (gslot >> 10) & 31;
}

extern "C" int32_t libpmx_get_node_by_dev_slot(int32_t dev, int32_t slot)
{
    return static_cast<int32_t>(LIBPMX_NODE_BASE | static_cast<uint32_t>(dev) << 18 | static_cast<uint32_t>(slot) << 8);
}

extern "C" int32_t libpmx_get_node_by_gslot(int32_t gslot)
{
    const auto g = static_cast<uint32_t>(gslot);
    return static_cast<int32_t>(LIBPMX_NODE_BASE | (g & 31) << 8 | ((g >> 10) & 31) << 15 | (((g >> 5) & 31) + 1) << 18);
}

extern "C" int32_t libpmx_get_gslot_by_node(int32_t node)
{
    const auto n = static_cast<uint32_t>(node) & 0x3FFFFFF;
    return libpmx_get_gslot_by_dev_slot_sslot(static_cast<int32_t>((n >> 18) & 0xFF), static_cast<int32_t>((n >> 8) & 31),
                                              static_cast<int32_t>((n >> 15) & 7));
}

// ---- the module table ----

extern "C" int libpmx_add_mod_tbl(int32_t dev, int32_t slot, int32_t sslot, const ce_pmx_fuid_info_per_slot_t *tbl)
{
    const int32_t gslot = libpmx_get_gslot_by_dev_slot_sslot(dev, slot, sslot);
    if (tbl == nullptr) {
        PMX_ERROR("mod tbl is null, dev:%d slot:%d sslot:%d", dev, slot, sslot);
        return LIBPMX_E_FAIL;
    }
    if (gslot >= LIBPMX_GSLOT_MAX) {
        PMX_ERROR("chipid info eror, gslot=%#08x", gslot);
        return LIBPMX_E_FAIL;
    }
    PMX_NOTICE(">>>>gslot[%#08x card_type=%#x] fuid_num[%d] chipid alloc", gslot, tbl->card_type,
               static_cast<int32_t>(tbl->fuid_num));
    Guard g(g_mod_lock, Access::Write);
    if (tbl->status == LIBPMX_MOD_TBL_ALLOC) {
        if (tbl->fuid_num == 0) {
            PMX_ERROR("chipid info eror, gslot=%#08x fuid_num=%d", gslot, static_cast<int32_t>(tbl->fuid_num));
            return LIBPMX_E_INVAL;
        }
        for (uint32_t i = 0; i < units_in_use(*tbl); ++i) {
            const libpmx_fuid_unit_t &u = tbl->fuid[i];
            for (uint32_t j = 0; j < ids_of(u); ++j) {
                const chipid_res_t res{u.modid[j], static_cast<uint32_t>(gslot), static_cast<uint32_t>(u.unit), 1, j,
                                       u.modid_type};
                if (libpmx_chipid_res_create(&res) == nullptr) PMX_ERROR("chipid res update failed:%u", u.modid[j]);
                PMX_DEBUG("[%u]", u.modid[j]);
            }
        }
        ce_pmx_fuid_info_per_slot_t stored = *tbl;
        stored.gslot = static_cast<uint32_t>(gslot);
        if (libpmx_ce_pmx_fuid_info_per_slot_create(&stored) == nullptr) {
            PMX_ERROR("chipid slot create/update failed, gslot:0x%x card_type:%d", gslot,
                      static_cast<int32_t>(tbl->card_type));
            return LIBPMX_E_NOMEM;
        }
        return LIBPMX_OK;
    }
    if (tbl->status == LIBPMX_MOD_TBL_NONE) {
        PMX_NOTICE(">>>>gslot[%#08x] chipid retrieve", gslot);
        const ce_pmx_fuid_info_per_slot_t *r = libpmx_ce_pmx_fuid_info_per_slot_get(gslot);
        if (r == nullptr || r->fuid_num == 0) return LIBPMX_OK;
        for (uint32_t i = 0; i < units_in_use(*r); ++i) {
            for (uint32_t j = 0; j < ids_of(r->fuid[i]); ++j) {
                chipid_res_t *res = libpmx_chipid_res_get(static_cast<int32_t>(r->fuid[i].modid[j]));
                if (res != nullptr) *res = chipid_res_t{res->modid, 0, 0, 0, 0, 0};
            }
        }
        return LIBPMX_OK;
    }
    PMX_NOTICE(">>>>gslot:%d status:%d error", gslot, static_cast<int32_t>(tbl->status));
    return LIBPMX_E_INVAL;
}

extern "C" int libpmx_check_mod_tbl_valid(uint32_t status)
{
    return status == LIBPMX_MOD_TBL_ALLOC;
}

// ---- the card-info cache ----

extern "C" int libpmx_cache_set_card_info(const libpmx_card_info_t *info)
{
    if (info != nullptr) {
        Guard g(g_card_info_lock, Access::Write);
        if (libpmx_card_info_create(info) != nullptr) return LIBPMX_OK;
    }
    PMX_ERROR("libpmx_cache_set_card_info fail");
    return LIBPMX_E_FAIL;
}

extern "C" int libpmx_cache_del_card_info(const libpmx_card_info_t *info)
{
    if (info != nullptr) {
        Guard g(g_card_info_lock, Access::Write);
        if (libpmx_card_info_destroy(static_cast<int32_t>(info->dev), static_cast<int32_t>(info->slot),
                                     static_cast<int32_t>(info->sslot)) == LIBPMX_OK)
            return LIBPMX_OK;
    }
    PMX_ERROR("libpmx_cache_del_card_info fail");
    return LIBPMX_E_FAIL;
}

extern "C" void libpmx_dbg_dump_card_info(void)
{
    Guard g(g_card_info_lock, Access::Read);
    if (pmx::dump_json()) {
        pmx::JsonTable t("card_info");
        libpmx_card_info_entry_each_item_op(print_card_info_row, &t, 1);
        t.end();
        return;
    }
    libpmx_card_info_entry_each_item_op(print_card_info_row, nullptr, 1);
}

// ---- lookups ----

extern "C" int libpmx_get_modid_type_from_cache(int32_t modid, int32_t *type)
{
    if (type == nullptr) {
        PMX_ERROR("type is null, modid:%d", modid);
        return LIBPMX_E_FAIL;
    }
    chipid_res_t res{};
    if (!find_res(modid, &res)) {
        PMX_WARN("don't found modid:%d ret:%d", modid, LIBPMX_E_NOT_FOUND);
        return LIBPMX_E_NOT_FOUND;
    }
    *type = static_cast<int32_t>(res.type);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_dev_slot_unit_by_modid_detail(int32_t modid, int32_t *dev, int32_t *slot, int32_t *unit,
                                                        int mode)
{
    if (dev == nullptr || slot == nullptr || unit == nullptr || modid < 0) {
        PMX_ERROR("invalid param modid:%d dev:%p, slot:%p, unit:%p", modid, static_cast<void *>(dev),
                  static_cast<void *>(slot), static_cast<void *>(unit));
        return LIBPMX_E_INVAL;
    }
    chipid_res_t res{};
    if (!find_res(modid, &res)) {
        if (mode == 0) {
            PMX_WARN("modid %d is not alloc", modid);
            return LIBPMX_E_NOT_FOUND;
        }
        const int rc = load_mod_tbl_of_modid(modid);
        if (rc != LIBPMX_OK) {
            PMX_ERROR("get pmx mod tbl fail, modid:%d, ret:%d", modid, rc);
            return rc;
        }
        if (!find_res(modid, &res)) {
            PMX_ERROR("get gslot fail, modid:%d, ret:%d", modid, LIBPMX_E_NOT_FOUND);
            return LIBPMX_E_NOT_FOUND;
        }
    }
    libpmx_get_dev_slot_sslot_by_gslot(static_cast<int32_t>(res.gslot), dev, slot, nullptr);
    *unit = static_cast<int32_t>(res.unit);
    PMX_DEBUG("dev:%d slot:%d unit:%d modid:%d", *dev, *slot, *unit, modid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_dev_slot_unit_by_modid(int32_t modid, int32_t *dev, int32_t *slot, int32_t *unit)
{
    return libpmx_get_dev_slot_unit_by_modid_detail(modid, dev, slot, unit, 2);
}

extern "C" int libpmx_get_dev_slot_unit_by_modid_ext(int32_t modid, int32_t *dev, int32_t *slot, int32_t *unit)
{
    return libpmx_get_dev_slot_unit_by_modid_detail(modid, dev, slot, unit, 0);
}

extern "C" int libpmx_is_local_card(int32_t gslot)
{
    const int32_t node = libpmx_get_my_node(1);
    if (node <= 0) {
        PMX_WARN("get my node fail");
        return 0;
    }
    const int32_t local = libpmx_get_gslot_by_node(node);
    PMX_DEBUG("gslot:0x%x local_gslot:0x%x", gslot, local);
    return gslot == local;
}

extern "C" int libpmx_is_local_modid_detail(int32_t modid, int mode)
{
    PMX_DEBUG("check if modid:%d is local", modid);
    chipid_res_t res{};
    if (!find_res(modid, &res)) {
        if (mode == 0) {
            PMX_WARN("modid:%d can't found from cache\n", modid);
            return 0;
        }
        if (load_mod_tbl_of_modid(modid) != LIBPMX_OK) {
            PMX_ERROR("get mod tbl failed, modid:%d\n", modid);
            return 0;
        }
        if (!find_res(modid, &res)) {
            PMX_WARN("modid:%d don't existed\n", modid);
            return 0;
        }
    }
    return libpmx_is_local_card(static_cast<int32_t>(res.gslot));
}

extern "C" int libpmx_is_local_modid(int32_t modid)
{
    return libpmx_is_local_modid_detail(modid, 2);
}

extern "C" int libpmx_is_local_modid_ext(int32_t modid)
{
    return libpmx_is_local_modid_detail(modid, 0);
}

extern "C" int libpmx_get_node_unit_from_modid_detail(int32_t modid, int32_t *node, int32_t *unit, int mode)
{
    if (node == nullptr || unit == nullptr) {
        PMX_ERROR("invalid param, node:%p  unit:%p\n", static_cast<void *>(node), static_cast<void *>(unit));
        return LIBPMX_E_INVAL;
    }
    chipid_res_t res{};
    if (!find_res(modid, &res)) {
        if (mode == 0) {
            PMX_WARN("not found cache for modid: %d\n", modid);
            return LIBPMX_E_NOT_FOUND;
        }
        const int rc = load_mod_tbl_of_modid(modid);
        if (rc != LIBPMX_OK) {
            PMX_ERROR("get mod tbl fail, modid:%d ret:%d", modid, rc);
            return rc;
        }
        if (!find_res(modid, &res)) {
            PMX_ERROR("don't found modid modid:%d ret:%d", modid, LIBPMX_E_NOT_FOUND);
            return LIBPMX_E_NOT_FOUND;
        }
    }
    *node = libpmx_get_node_by_gslot(static_cast<int32_t>(res.gslot));
    *unit = static_cast<int32_t>(res.unit);
    PMX_DEBUG("modid:%d node:%d unit:%d", modid, *node, *unit);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_node_unit_from_modid(int32_t modid, int32_t *node, int32_t *unit)
{
    return libpmx_get_node_unit_from_modid_detail(modid, node, unit, 2);
}

extern "C" int libpmx_get_node_unit_from_modid_ext(int32_t modid, int32_t *node, int32_t *unit)
{
    return libpmx_get_node_unit_from_modid_detail(modid, node, unit, 0);
}

extern "C" int libpmx_get_modid_by_dev_slot_unit_core(int32_t *modid, int32_t dev, int32_t slot, int32_t unit,
                                                      int32_t core)
{
    if (!dev_in_range(dev) || slot < 0 || slot > 31 || modid == nullptr) {
        PMX_ERROR("invalid param dev:%d slot:%d unit:%d core:%d modid=%p", dev, slot, unit, core,
                  static_cast<void *>(modid));
        return LIBPMX_E_INVAL;
    }
    const int32_t node = libpmx_get_node_by_dev_slot(dev, slot);
    const int rc = libpmx_get_modid_by_node_unit_core(node, unit, core, modid);
    if (rc != LIBPMX_OK) PMX_ERROR("get modid failed, nodeid=%d unit:%d core:%d", node, unit, core);
    return rc;
}

extern "C" int libpmx_get_chip_by_dev_slot_unit(int32_t *modid, int32_t dev, int32_t slot, int32_t unit)
{
    return libpmx_get_modid_by_dev_slot_unit_core(modid, dev, slot, unit, 0);
}

extern "C" int libpmx_get_first_modid_by_unit(int32_t unit, int32_t *modid, int mode)
{
    if (modid == nullptr) {
        PMX_ERROR("invalid param, unit:%d modid:%p", unit, static_cast<void *>(modid));
        return LIBPMX_E_INVAL;
    }
    const int32_t node = libpmx_get_my_node(mode);
    if (node <= 0) {
        PMX_ERROR("get my node failed, unit:%d", unit);
        return LIBPMX_E_FAIL;
    }
    return libpmx_get_modid_by_node_unit_core(node, unit, 0, modid);
}

extern "C" int libpmx_get_mod_port_by_node(int32_t node, int32_t *modid, int32_t *cpu_port)
{
    if (modid == nullptr || cpu_port == nullptr) {
        PMX_ERROR("invalid param, node:%#08x modid:%p cpu_port:%p", node, static_cast<void *>(modid),
                  static_cast<void *>(cpu_port));
        return LIBPMX_E_INVAL;
    }
    const int rc = libpmx_get_modid_by_node_unit_core(node, 0, 0, modid);
    if (rc == LIBPMX_OK) *cpu_port = 0;
    return rc;
}

extern "C" int libpmx_get_lmodid_by_unit_core_detail(uint32_t unit, int32_t core, int32_t *modid, int mode)
{
    if (modid == nullptr || core < 0 || unit > 0x7FFFFFFFu) {
        PMX_ERROR("invalid param, unit:%d, core:%d modid:%p", static_cast<int32_t>(unit), core,
                  static_cast<void *>(modid));
        return LIBPMX_E_INVAL;
    }
    int rc = libpmx_get_local_modid_by_unit_core(unit, core, modid);
    if (rc == LIBPMX_OK) {
        PMX_DEBUG("unit:%d, coreid:%d, modid:%d", static_cast<int32_t>(unit), core, *modid);
        return LIBPMX_OK;
    }
    if (rc == LIBPMX_E_FAIL) return rc; // this card's node is unknown: no table of its own to read
    if (mode == 0) {
        PMX_WARN("modid isn't exit, unit:%d coreid:%d", static_cast<int32_t>(unit), core);
        return LIBPMX_E_NOT_FOUND;
    }
    int32_t dev = 0, slot = 0, sslot = 0;
    libpmx_get_dev_slot_sslot_by_gslot(libpmx_get_gslot_by_node(libpmx_get_my_node(1)), &dev, &slot, &sslot);
    libpmx_mod_tbl_info_t info{};
    const int read_rc = libpmx_get_info_from_pmx_vaild_mod_tbl(dev, slot, sslot, libpmx_mod_tbl_decode, &info);
    if (read_rc == LIBPMX_OK) libpmx_add_mod_tbl(info.dev, info.slot, info.sslot, &info.tbl);
    if (read_rc != LIBPMX_OK) {
        PMX_ERROR("get mod tbl fail, unit:%d coreid:%d ret:%d", static_cast<int32_t>(unit), core, read_rc);
        return read_rc;
    }
    rc = libpmx_get_local_modid_by_unit_core(unit, core, modid);
    if (rc != LIBPMX_OK) {
        PMX_WARN("modid isn't exit, unit:%d coreid:%d", static_cast<int32_t>(unit), core);
        return rc;
    }
    PMX_DEBUG("unit:%d, coreid:%d, modid:%d", static_cast<int32_t>(unit), core, *modid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_lmodid_by_unit_core(uint32_t unit, int32_t core, int32_t *modid)
{
    return libpmx_get_lmodid_by_unit_core_detail(unit, core, modid, 2);
}

extern "C" int libpmx_get_lmodid_by_unit_core_ext(uint32_t unit, int32_t core, int32_t *modid)
{
    return libpmx_get_lmodid_by_unit_core_detail(unit, core, modid, 0);
}

extern "C" int libpmx_get_chip_by_unit(uint32_t unit, int32_t *modid)
{
    return libpmx_get_lmodid_by_unit_core_detail(unit, 0, modid, 2);
}

extern "C" int libpmx_get_chip_by_unit_ext(uint32_t unit, int32_t *modid)
{
    return libpmx_get_lmodid_by_unit_core_detail(unit, 0, modid, 0);
}

extern "C" int libpmx_get_unit_by_chip_detail(int32_t modid, int32_t *unit, int mode)
{
    if (unit == nullptr || modid < 0) {
        PMX_ERROR("invalid param modid:%d unit:%p\n", modid, static_cast<void *>(unit));
        return LIBPMX_E_INVAL;
    }
    if (!libpmx_is_local_modid_detail(modid, mode)) {
        PMX_WARN("modid:%d isn't local\n", modid);
        return LIBPMX_E_NOT_FOUND;
    }
    chipid_res_t res{};
    if (!find_res(modid, &res)) {
        if (mode == 0) {
            PMX_WARN("chip res don't existed, modid:%d", modid);
            return LIBPMX_E_NOT_FOUND;
        }
        const int rc = load_mod_tbl_of_modid(modid);
        if (rc != LIBPMX_OK) {
            PMX_ERROR("get mod tbl fail, modid:%d, ret:%d", modid, rc);
            return rc;
        }
        if (!find_res(modid, &res)) {
            PMX_ERROR("get unit failed, modid:%d", modid);
            return LIBPMX_E_NOT_FOUND;
        }
    }
    *unit = static_cast<int32_t>(res.unit);
    PMX_DEBUG("unit:%d, modid:%d", *unit, modid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_unit_by_chip(int32_t modid, int32_t *unit)
{
    return libpmx_get_unit_by_chip_detail(modid, unit, 2);
}

extern "C" int libpmx_get_unit_by_chip_ext(int32_t modid, int32_t *unit)
{
    return libpmx_get_unit_by_chip_detail(modid, unit, 0);
}

extern "C" int libpmx_get_card_type_by_dev_slot(int32_t dev, int32_t slot, int32_t *card_type, int mode)
{
    if (card_type == nullptr) {
        PMX_ERROR("card_type is NULL, dev:%d slot:%d", dev, slot);
        return LIBPMX_E_FAIL;
    }
    // The per-slot key of dev and slot alone, the slot not masked.
    const int32_t gslot = dev_in_range(dev) ? (dev - 1) << 5 | slot : slot;
    {
        Guard g(g_mod_lock, Access::Read);
        if (const ce_pmx_fuid_info_per_slot_t *r = libpmx_ce_pmx_fuid_info_per_slot_get(gslot)) {
            *card_type = static_cast<int32_t>(r->card_type);
            return LIBPMX_OK;
        }
    }
    if (mode == 0) {
        PMX_WARN("get card_type from cache failed, dev:%d slot:%d", dev, slot);
        return LIBPMX_E_NOT_FOUND;
    }
    const int rc = libpmx_get_card_type_from_db(dev, slot, 0, card_type, mode);
    if (rc != LIBPMX_OK) PMX_ERROR("get card_type from db failed, dev:%d slot:%d", dev, slot);
    return rc;
}

extern "C" int libpmx_get_card_type_by_modid_port(int32_t modid, int32_t port, int32_t *card_type,
                                                  int32_t *subcard_type, int mode)
{
    if (card_type == nullptr || subcard_type == nullptr) {
        PMX_ERROR("invalid param!");
        return LIBPMX_E_FAIL;
    }
    chipid_res_t res{};
    const int found = res_with_fallback(modid, mode == 2, &res);
    if (found != LIBPMX_OK) {
        PMX_ERROR("get gslot fail, modid:%d ret:%d", modid, found);
        return LIBPMX_E_FAIL;
    }
    int32_t dev = 0, slot = 0;
    libpmx_get_dev_slot_sslot_by_gslot(static_cast<int32_t>(res.gslot), &dev, &slot, nullptr);
    int32_t ct = -1;
    int rc = libpmx_get_card_type_by_dev_slot(dev, slot, &ct, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("libpmx_get_card_type_by_dev_slot failed. dev:%d slot:%d flag:%d ret:%d", dev, slot, mode, rc);
        return rc;
    }
    int32_t sct = 0;
    if (libpmx_cap_get_subcard_id_enable() != 0) {
        libpmx_global_sport_t sport{};
        sport.unit = static_cast<int16_t>(res.unit);
        sport.port = static_cast<int16_t>(port);
        rc = libpmx_get_global_sport_info(dev, slot, &sport, mode);
        if (rc != LIBPMX_OK) {
            PMX_ERROR("fail, dev:%d slot:%d, sslot:%d unit:%d port:%d ret:%d", dev, slot, sport.sslot,
                      static_cast<int32_t>(res.unit), port, rc);
            return rc;
        }
        if (sport.sslot < 0) {
            PMX_ERROR("fail, dev:%d slot:%d, sslot:%d unit:%d port:%d", dev, slot, sport.sslot,
                      static_cast<int32_t>(res.unit), port);
            return LIBPMX_E_FAIL;
        }
        // A port on the card itself has no subcard: its subcard type stays 0.
        if (sport.sslot > 0) {
            const int32_t sslot = sport.sslot;
            rc = libpmx_get_card_type_from_db(dev, slot, sslot, &sct, mode);
            if (rc != LIBPMX_OK) {
                PMX_WARN("libpmx_get_card_type_from_db fail. dev:%d slot:%d, sslot:%d, flag:%dret:%d", dev, slot, sslot,
                         mode, rc);
                Guard g(g_card_info_lock, Access::Write);
                const libpmx_card_info_t *ci = libpmx_card_info_get(dev, slot, sslot);
                if (ci == nullptr) {
                    g.release();
                    PMX_ERROR("libpmx_get_card_type_from_cache fail");
                    PMX_ERROR("libpmx_get_card_type_from_db and cache fail. dev:%d slot:%d, sslot:%d, flag:%dret:%d",
                              dev, slot, sslot, mode, rc);
                    return LIBPMX_E_FAIL;
                }
                sct = static_cast<int32_t>(ci->card_info);
            }
        }
    }
    *card_type = ct;
    *subcard_type = sct;
    return LIBPMX_OK;
}

// ---- forwarding units ----

extern "C" int libpmx_get_fuid_info_by_gslot(int32_t gslot, ce_pmx_fuid_info_per_slot_t *out)
{
    if (out == nullptr) {
        PMX_ERROR("out is null, gslot:0x%x", gslot);
        return LIBPMX_E_FAIL;
    }
    Guard g(g_mod_lock, Access::Read);
    const ce_pmx_fuid_info_per_slot_t *r = libpmx_ce_pmx_fuid_info_per_slot_get(gslot);
    if (r == nullptr) return LIBPMX_E_NOT_FOUND;
    *out = *r;
    return LIBPMX_OK;
}

extern "C" int libpmx_fuid_info_for_each(libpmx_hash_op_t op, void *arg)
{
    if (op == nullptr) {
        PMX_ERROR("each_op is null");
        return LIBPMX_E_FAIL;
    }
    std::vector<ce_pmx_fuid_info_per_slot_t> copies;
    try {
        Guard g(g_mod_lock, Access::Read);
        copies.reserve(ce_pmx_fuid_info_per_slot_hash_size());
        libpmx_ce_pmx_fuid_info_per_slot_entry_each_item_op(
            [](void *entry, void *v) {
                static_cast<std::vector<ce_pmx_fuid_info_per_slot_t> *>(v)->push_back(
                    *static_cast<ce_pmx_fuid_info_per_slot_t *>(entry));
                return 0;
            },
            &copies, 1);
    } catch (const std::bad_alloc &) {
        PMX_ERROR("NO MEMORY!!! for the copies of %u per-slot records", ce_pmx_fuid_info_per_slot_hash_size());
        return LIBPMX_E_NOMEM;
    }
    for (ce_pmx_fuid_info_per_slot_t &r : copies) {
        const int rc = op(&r, arg);
        if (rc != 0) return rc;
    }
    return LIBPMX_OK;
}

extern "C" int32_t libpmx_get_system_invalid_modid(void)
{
    return LIBPMX_SYSTEM_INVALID_MODID;
}

// ---- dumps ----

extern "C" void libpmx_dump_chipid_res(int32_t modid)
{
    Guard g(g_mod_lock, Access::Read);
    DumpFilter f{modid, nullptr};
    if (pmx::dump_json()) {
        pmx::JsonTable t("chipid_res");
        f.json = &t;
        libpmx_chipid_res_entry_each_item_op(print_res_row, &f, 1);
        t.end();
        return;
    }
    ssat_printf("\ndisplay chip id[%d] resource\n", modid);
    ssat_printf("chipid\t  gslot   \tunit   coreid   type\n");
    libpmx_chipid_res_entry_each_item_op(print_res_row, &f, 1);
}

extern "C" void libpmx_dump_chipslot(int32_t gslot)
{
    Guard g(g_mod_lock, Access::Read);
    DumpFilter f{gslot, nullptr};
    if (pmx::dump_json()) {
        pmx::JsonTable t("chipslot");
        f.json = &t;
        libpmx_ce_pmx_fuid_info_per_slot_entry_each_item_op(print_slot_row, &f, 1);
        t.end();
        return;
    }
    ssat_printf("\ndisplay chip slot[%d] resource\n", gslot);
    ssat_printf("gslot   \tidnum_per_unit\tchipid\tcard_type\n");
    libpmx_ce_pmx_fuid_info_per_slot_entry_each_item_op(print_slot_row, &f, 1);
}

extern "C" void libpmx_dump_local_modid(void)
{
    const int32_t node = libpmx_get_my_node(1);
    if (node <= 0) {
        ssat_printf("get my node failed\n");
        return;
    }
    const int32_t gslot = libpmx_get_gslot_by_node(node);
    Guard g(g_mod_lock, Access::Read);
    const ce_pmx_fuid_info_per_slot_t *r = libpmx_ce_pmx_fuid_info_per_slot_get(gslot);
    if (r == nullptr || r->status != LIBPMX_MOD_TBL_ALLOC) {
        ssat_printf("has no local modid.\n");
        return;
    }
    print_modids(*r);
    ssat_printf("\n");
}
