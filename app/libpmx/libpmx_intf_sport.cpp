// Slot and panel-port queries: which sub-slot and panel port a card type's chip port serves,
// cached in libpmx_global_sport under the global-sport lock and learnt from the static
// attributes of the card type and of its subcards.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_log.h"

#include <algorithm>
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
#include "ssat.h"

namespace
{

using pmx::Access;
using pmx::Guard;

pmx::RwLock g_sport_lock{"global-sport lock", pmx::LockRank::GlobalSport};

// The sub-slot of dev/slot (card type card_type) whose card lists the chip port, and the panel
// port it gives it: the card itself or the subcard that lists the port, else the one listing the
// nearest port below it on the unit (a break-out member follows its port). 0, -7 when none lists
// a port at or below it, or a read's code.
int find_sub_slot(int32_t dev, int32_t slot, int32_t card_type, libpmx_global_sport_t *sport)
{
    int32_t lport = 0, listed = -1, best = -1;
    int rc = libpmx_get_lport_from_dmcard_stattr(card_type, sport->unit, sport->port, &lport, &listed);
    if (rc == LIBPMX_OK) {
        sport->sslot = 0;
        sport->lport = static_cast<int16_t>(lport);
        best = listed;
    } else if (rc != LIBPMX_E_NOT_FOUND) {
        return rc;
    }
    int32_t n = 0;
    if (best != sport->port) {
        rc = libpmx_get_sub_slot_num_from_dmcard_stattr(card_type, &n);
        if (rc != LIBPMX_OK) return rc;
    }
    for (int32_t s = 1; s <= n && best != sport->port; ++s) {
        int32_t sub_type = 0;
        // One read: an empty sub-slot is normal, not something to wait for.
        if (libpmx_get_card_type_from_db(dev, slot, s, &sub_type, 1) != LIBPMX_OK) continue;
        if (libpmx_get_lport_from_dmcard_stattr(sub_type, sport->unit, sport->port, &lport, &listed) != LIBPMX_OK ||
            listed <= best)
            continue;
        sport->sslot = static_cast<int16_t>(s);
        sport->lport = static_cast<int16_t>(lport);
        best = listed;
    }
    if (best >= 0) return LIBPMX_OK;
    PMX_WARN("no sub-slot of dev:%d slot:%d (card_type:%d, %d sub-slots) holds unit:%d port:%d", dev, slot,
             card_type, n, sport->unit, sport->port);
    return LIBPMX_E_NOT_FOUND;
}

int collect(void *entry, void *arg)
{
    static_cast<std::vector<libpmx_global_sport_t> *>(arg)->push_back(*static_cast<libpmx_global_sport_t *>(entry));
    return 0;
}

int cmd_dump_global_sport(const char *args)
{
    return pmx::dbg_table_cmd("dump_global_sport", args, libpmx_dump_global_sport);
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_global_sport", "  sub-slot and panel port of each card type's chip ports", cmd_dump_global_sport},
};

} // namespace

extern "C" int libpmx_intf_sport_init(void)
{
    return libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]);
}

extern "C" int libpmx_get_global_sport_info(int32_t dev, int32_t slot, libpmx_global_sport_t *sport, int mode)
{
    if (sport == nullptr) {
        PMX_ERROR("sport is null, dev:%d slot:%d", dev, slot);
        return LIBPMX_E_FAIL;
    }
    int32_t card_type = -1;
    int rc = libpmx_get_card_type_by_dev_slot(dev, slot, &card_type, mode);
    if (rc != LIBPMX_OK) return rc;
    libpmx_global_sport_t found = *sport;
    found.card_type = static_cast<uint32_t>(card_type);
    {
        Guard g(g_sport_lock, Access::Read);
        if (const libpmx_global_sport_t *r = libpmx_global_sport_get(card_type, sport->unit, sport->port)) {
            *sport = *r;
            return LIBPMX_OK;
        }
    }
    if (mode == 0) {
        PMX_WARN("global sport not cached, dev:%d slot:%d card_type:%d unit:%d port:%d", dev, slot, card_type,
                 sport->unit, sport->port);
        return LIBPMX_E_NOT_FOUND;
    }
    rc = find_sub_slot(dev, slot, card_type, &found);
    if (rc != LIBPMX_OK) return rc;
    {
        Guard g(g_sport_lock, Access::Write);
        libpmx_global_sport_create(&found); // logs its own failure; the answer stands
    }
    PMX_INFO("dev:%d slot:%d card_type:%d unit:%d port:%d -> sslot:%d lport:%d", dev, slot, card_type, found.unit,
             found.port, found.sslot, found.lport);
    *sport = found;
    return LIBPMX_OK;
}

extern "C" int libpmx_global_sport_set_card_port(int32_t card_type, int32_t unit, int32_t port, int32_t lport)
{
    libpmx_global_sport_t rec{};
    rec.card_type = static_cast<uint32_t>(card_type);
    rec.unit = static_cast<int16_t>(unit);
    rec.port = static_cast<int16_t>(port);
    rec.sslot = 0;
    rec.lport = static_cast<int16_t>(lport);
    Guard g(g_sport_lock, Access::Write);
    libpmx_global_sport_t *cur = libpmx_global_sport_get(card_type, unit, port);
    if (cur != nullptr) {
        *cur = rec;
        return LIBPMX_OK;
    }
    return libpmx_global_sport_create(&rec) != nullptr ? LIBPMX_OK : LIBPMX_E_NOMEM;
}

extern "C" void libpmx_dump_global_sport(void)
{
    std::vector<libpmx_global_sport_t> rows;
    {
        Guard g(g_sport_lock, Access::Read);
        libpmx_global_sport_entry_each_item_op(collect, &rows, 0);
    }
    std::sort(rows.begin(), rows.end(), [](const libpmx_global_sport_t &a, const libpmx_global_sport_t &b) {
        if (a.card_type != b.card_type) return a.card_type < b.card_type;
        return a.unit != b.unit ? a.unit < b.unit : a.port < b.port;
    });
    if (pmx::dump_json()) {
        pmx::JsonTable t("global_sport");
        for (const libpmx_global_sport_t &r : rows)
            t.row({pmx::num("card_type", static_cast<int32_t>(r.card_type)), pmx::num("unit", r.unit),
                   pmx::num("port", r.port), pmx::num("sslot", r.sslot), pmx::num("lport", r.lport)});
        t.end();
        return;
    }
    ssat_printf("%-10s | %4s | %4s | %5s | %5s\n", "card_type", "unit", "port", "sslot", "lport");
    for (const libpmx_global_sport_t &r : rows)
        ssat_printf("%-10d | %4d | %4d | %5d | %5d\n", static_cast<int32_t>(r.card_type), r.unit, r.port, r.sslot,
                    r.lport);
    ssat_printf("total %zu\n", rows.size());
}
