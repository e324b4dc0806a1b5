// Card and subcard ids: the cid of a card type and subcard type, the scid of a subcard type, both
// cached under the interface-table lock, with their database and capability fall-backs.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_log.h"

#include "libpmx_cap.h"
#include "libpmx_dbg.h"
#include "libpmx_dbg_args.hpp"
#include "libpmx_dbg_json.hpp"
#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_intf_lock.hpp"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "ssat.h"

namespace
{

using pmx::Access;
using pmx::Guard;

struct CidFilter {
    int32_t card_type;
    int32_t subcard_type;
    pmx::JsonTable *json; // the JSON form's table, or null
};

int print_cid_row(void *entry, void *arg)
{
    const auto *r = static_cast<const libpmx_card_addr_id_t *>(entry);
    const auto *f = static_cast<const CidFilter *>(arg);
    const bool shown = f->card_type == 0 || (static_cast<int32_t>(r->card_type) == f->card_type &&
                                             static_cast<int32_t>(r->subcard_type) == f->subcard_type);
    if (shown && f->json != nullptr)
        f->json->row({pmx::num("card_type", static_cast<int32_t>(r->card_type)),
                      pmx::num("subcard_type", static_cast<int32_t>(r->subcard_type)),
                      pmx::num("cid", static_cast<int32_t>(r->cid))});
    else if (shown)
        ssat_printf("%-12d|%-12d|%-3d\n", static_cast<int32_t>(r->card_type), static_cast<int32_t>(r->subcard_type),
                    static_cast<int32_t>(r->cid));
    return 0;
}

int print_scid_row(void *entry, void *arg)
{
    const auto *r = static_cast<const libpmx_subcard_type_id_t *>(entry);
    const auto *f = static_cast<const CidFilter *>(arg);
    const bool shown = f->subcard_type == 0 || static_cast<int32_t>(r->subcard_type) == f->subcard_type;
    if (shown && f->json != nullptr)
        f->json->row({pmx::num("subcard_type", static_cast<int32_t>(r->subcard_type)),
                      pmx::num("scid", static_cast<int32_t>(r->cid))});
    else if (shown)
        ssat_printf("%-12d|%-3d\n", static_cast<int32_t>(r->subcard_type), static_cast<int32_t>(r->cid));
    return 0;
}

int cmd_dump_cid(const char *args)
{
    pmx::DbgArgs a(args, {"card_type", "subcard_type", "json"});
    if (!a.error().empty()) return pmx::dbg_usage("dump_cid_tbl", "[card_type=%d] [subcard_type=%d] [json=1]", a.error());
    pmx::JsonScope json(a.get("json", 0) != 0);
    libpmx_dump_cid_tbl(static_cast<int32_t>(a.get("card_type", 0)), static_cast<int32_t>(a.get("subcard_type", 0)));
    return LIBPMX_OK;
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_cid_tbl", "[card_type=%d] [subcard_type=%d]  card ids by card type, subcard ids by subcard type",
     cmd_dump_cid},
};

} // namespace

extern "C" int libpmx_intf_cid_init(void)
{
    return libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]);
}

extern "C" int libpmx_cache_cid_with_card_type(int32_t card_type, int32_t subcard_type, int32_t cid)
{
    PMX_NOTICE("card_type:%d subcard_type:%d cid:%d", card_type, subcard_type, cid);
    Guard g(pmx::g_intf_lock, Access::Write);
    libpmx_card_addr_id_t *r = libpmx_card_addr_id_get(card_type, subcard_type);
    if (r == nullptr) {
        const libpmx_card_addr_id_t fresh{static_cast<uint32_t>(card_type), static_cast<uint32_t>(subcard_type),
                                          static_cast<uint32_t>(cid)};
        libpmx_card_addr_id_create(&fresh); // logs its own failure
    } else if (static_cast<int32_t>(r->cid) != cid) {
        PMX_ERROR("existed card_type:%d subcard_type:%d local_cid:%d, cid:%d ", card_type, subcard_type,
                  static_cast<int32_t>(r->cid), cid);
        r->cid = static_cast<uint32_t>(cid);
    }
    return g.release();
}

extern "C" int libpmx_cache_scid_with_subcard_type(int32_t subcard_type, int32_t scid)
{
    PMX_NOTICE("subcard_type:%d cid:%d", subcard_type, scid);
    Guard g(pmx::g_intf_lock, Access::Write);
    libpmx_subcard_type_id_t *r = libpmx_subcard_type_id_get(subcard_type);
    if (r == nullptr) {
        const libpmx_subcard_type_id_t fresh{static_cast<uint32_t>(subcard_type), static_cast<uint32_t>(scid)};
        libpmx_subcard_type_id_create(&fresh); // logs its own failure
    } else if (static_cast<int32_t>(r->cid) != scid) {
        PMX_ERROR("existed subcard_type:%d local_scid:%d, scid:%d ", subcard_type, static_cast<int32_t>(r->cid), scid);
        r->cid = static_cast<uint32_t>(scid);
    }
    return g.release();
}

extern "C" int libpmx_get_cid_with_card_type(int32_t card_type, int32_t subcard_type, int32_t *cid, int flag)
{
    PMX_INFO("card_type:%d subcard_type:%d flag:%d", card_type, subcard_type, flag);
    if (card_type == -1) {
        PMX_WARN("invalid card_type:%d", card_type);
        return LIBPMX_E_FAIL;
    }
    if (cid == nullptr) {
        PMX_ERROR("cid is null, card_type:%d subcard_type:%d", card_type, subcard_type);
        return LIBPMX_E_FAIL;
    }
    *cid = -1;
    {
        Guard g(pmx::g_intf_lock, Access::Read);
        if (const libpmx_card_addr_id_t *r = libpmx_card_addr_id_get(card_type, subcard_type))
            *cid = static_cast<int32_t>(r->cid);
    }
    if (*cid != -1) {
        PMX_INFO("card_type:%d cid:%d from cache", card_type, *cid);
        return LIBPMX_OK;
    }
    if (flag == 0) {
        PMX_WARN("get cid failed card_type:%d", card_type);
        return LIBPMX_E_NOT_FOUND;
    }
    const int rc = libpmx_get_cid_from_db(card_type, subcard_type, cid, flag);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get cid failed by card_type:%d subcard_type:%d flag:%d", card_type, subcard_type, flag);
        return rc;
    }
    PMX_INFO("card_type:%d subcard_type:%d cid:%d from db", card_type, subcard_type, *cid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_cid_by_modid_port(int32_t modid, int32_t port, int32_t *cid, int flag)
{
    PMX_INFO("get cid by modid:%d port:%d flag:%d", modid, port, flag);
    int32_t card_type = -1;
    int32_t subcard_type = 0;
    if (libpmx_get_card_type_by_modid_port(modid, port, &card_type, &subcard_type, flag) != LIBPMX_OK) {
        PMX_WARN("get card type failed modid:%d flag:%d", modid, flag);
        return LIBPMX_E_FAIL;
    }
    return libpmx_get_cid_with_card_type(card_type, subcard_type, cid, flag);
}

extern "C" int libpmx_get_scid_with_subcard_type(int32_t subcard_type, int32_t *scid, int flag)
{
    if (scid == nullptr) {
        PMX_ERROR("cid is null. subcard_type=%d", subcard_type);
        return LIBPMX_E_FAIL;
    }
    *scid = 0;
    const uint8_t enable = libpmx_cap_get_subcard_id_enable();
    if (enable == 0 || (enable == 1 && subcard_type == -1)) return LIBPMX_OK;
    {
        // The write lock, not the read lock: the established locking of this lookup.
        Guard g(pmx::g_intf_lock, Access::Write);
        if (const libpmx_subcard_type_id_t *r = libpmx_subcard_type_id_get(subcard_type)) {
            *scid = static_cast<int32_t>(r->cid);
            return LIBPMX_OK;
        }
    }
    if (flag == 0) {
        PMX_ERROR("not found subcard scid. subcard_type:%d", subcard_type);
        return LIBPMX_E_NOT_FOUND;
    }
    PMX_WARN("find scid from cache by subcard:%d fail, and try to get from xml", subcard_type);
    int32_t found = 0;
    const int rc = libpmx_get_scid_by_subcard_type(subcard_type, &found);
    if (rc != LIBPMX_OK) {
        PMX_WARN("get from db fail, user_subcard_type:%d ret:%d", subcard_type, rc);
        return LIBPMX_E_NOT_FOUND;
    }
    libpmx_cache_scid_with_subcard_type(subcard_type, found);
    *scid = found;
    PMX_NOTICE("subcard_type:%d scid:%d", subcard_type, found);
    return LIBPMX_OK;
}

extern "C" void libpmx_dump_cid_tbl(int32_t card_type, int32_t subcard_type)
{
    CidFilter f{card_type, subcard_type, nullptr};
    Guard g(pmx::g_intf_lock, Access::Read);
    if (pmx::dump_json()) {
        pmx::JsonTable cids("card_ids");
        f.json = &cids;
        libpmx_card_addr_id_entry_each_item_op(print_cid_row, &f, 1);
        cids.end();
        pmx::JsonTable scids("subcard_ids");
        f.json = &scids;
        libpmx_subcard_type_id_entry_each_item_op(print_scid_row, &f, 1);
        scids.end();
        return;
    }
    ssat_printf("\n%-12s|%-12s|%-3s\n", "card_type", "subcard_type", "cid");
    libpmx_card_addr_id_entry_each_item_op(print_cid_row, &f, 1);
    ssat_printf("\n%-12s|%-3s\n", "subcard_type", "scid");
    libpmx_subcard_type_id_entry_each_item_op(print_scid_row, &f, 1);
}
