// System ports: the chassis-wide number of a front-panel port (gslot * 256 + lport) and the
// libpmx_sysport cache of the ports the interface records name, under the system-port lock.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mod"
#include "libpmx_log.h"

#include <algorithm>
#include <optional>
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
#include "libpmx_records.h"
#include "ssat.h"
#include "u_intf.pb-c.h"

namespace
{

using pmx::Access;
using pmx::Guard;

pmx::RwLock g_sysport_lock{"system-port lock", pmx::LockRank::Sysport};

bool is_port_phyid(uint32_t phyid)
{
    const uint32_t type = phyid >> 24;
    return type == LIBPMX_PHYID_GLOBAL || type == LIBPMX_PHYID_POWER;
}

// A physical-port record at a system port's position, looked for by a scan.
struct AtPosition {
    int32_t dev, slot, sslot, lport;
    uint32_t gphyid;
};

int match_position(const void *reply, void *out)
{
    libpmx_intf_info_t info{};
    pmx::decode_phy_tbl(reply, &info);
    auto *p = static_cast<AtPosition *>(out);
    if (!is_port_phyid(info.gphyid) || info.dev != p->dev || info.slot != p->slot || info.sslot != p->sslot ||
        info.lport != p->lport)
        return LIBPMX_E_NOT_FOUND;
    p->gphyid = info.gphyid;
    return LIBPMX_OK;
}

int collect(void *entry, void *arg)
{
    static_cast<std::vector<libpmx_sysport_t> *>(arg)->push_back(*static_cast<libpmx_sysport_t *>(entry));
    return 0;
}

int cmd_dump_sysport(const char *args)
{
    return pmx::dbg_table_cmd("dump_sysport", args, libpmx_dump_sysport);
}

const libpmx_dbg_cmd_t kCommands[] = {
    {"dump_sysport", "  system ports: sysport, dev/slot/sslot/lport, gphyid", cmd_dump_sysport},
};

} // namespace

extern "C" int libpmx_sysport_init(void)
{
    libpmx_dbg_add_cmds(kCommands, sizeof kCommands / sizeof kCommands[0]); // logs its own failure
    return LIBPMX_OK;
}

extern "C" int libpmx_get_sysport_by_dev_slot_sslot_lport(int32_t dev, int32_t slot, int32_t sslot, int32_t lport,
                                                          uint32_t *sysport)
{
    if (sysport == nullptr || lport < 0 || lport >= LIBPMX_SYSPORTS_PER_SLOT) {
        PMX_ERROR("invalid param, dev:%d slot:%d sslot:%d lport:%d sysport:%p", dev, slot, sslot, lport,
                  static_cast<void *>(sysport));
        return LIBPMX_E_INVAL;
    }
    *sysport = static_cast<uint32_t>(libpmx_get_gslot_by_dev_slot_sslot(dev, slot, sslot)) * LIBPMX_SYSPORTS_PER_SLOT +
               static_cast<uint32_t>(lport);
    return LIBPMX_OK;
}

extern "C" void libpmx_get_dev_slot_sslot_lport_by_sysport(uint32_t sysport, int32_t *dev, int32_t *slot,
                                                           int32_t *sslot, int32_t *lport)
{
    libpmx_get_dev_slot_sslot_by_gslot(static_cast<int32_t>(sysport / LIBPMX_SYSPORTS_PER_SLOT), dev, slot, sslot);
    if (lport != nullptr) *lport = static_cast<int32_t>(sysport % LIBPMX_SYSPORTS_PER_SLOT);
}

extern "C" int libpmx_sysport_update(int32_t dev, int32_t slot, int32_t sslot, int32_t lport, uint32_t gphyid,
                                     int is_add)
{
    if (!is_port_phyid(gphyid)) return LIBPMX_E_INVAL;
    uint32_t sysport = 0;
    int rc = libpmx_get_sysport_by_dev_slot_sslot_lport(dev, slot, sslot, lport, &sysport);
    if (rc != LIBPMX_OK) return rc;
    Guard g(g_sysport_lock, Access::Write);
    const libpmx_sysport_t *cur = libpmx_sysport_get(static_cast<int32_t>(sysport));
    if (is_add != 0) {
        if (cur != nullptr) return LIBPMX_OK; // a split port's other member: the first one stays
        const libpmx_sysport_t rec{sysport, gphyid};
        return libpmx_sysport_create(&rec) != nullptr ? LIBPMX_OK : LIBPMX_E_NOMEM;
    }
    if (cur == nullptr || cur->phyid != gphyid) return LIBPMX_E_NOT_FOUND;
    libpmx_sysport_destroy(static_cast<int32_t>(sysport));
    return LIBPMX_OK;
}

extern "C" int libpmx_get_phyid_by_sysport_detail(uint32_t sysport, uint32_t *gphyid, int mode)
{
    if (gphyid == nullptr) {
        PMX_ERROR("gphyid is null, sysport:%u", sysport);
        return LIBPMX_E_FAIL;
    }
    {
        Guard g(g_sysport_lock, Access::Read);
        if (const libpmx_sysport_t *r = libpmx_sysport_get(static_cast<int32_t>(sysport))) {
            *gphyid = r->phyid;
            return LIBPMX_OK;
        }
    }
    AtPosition at{0, 0, 0, 0, 0};
    libpmx_get_dev_slot_sslot_lport_by_sysport(sysport, &at.dev, &at.slot, &at.sslot, &at.lport);
    if (mode == 0) {
        PMX_WARN("sysport:%u (dev:%d slot:%d sslot:%d lport:%d) not cached", sysport, at.dev, at.slot, at.sslot,
                 at.lport);
        return LIBPMX_E_NOT_FOUND;
    }
    const int rc = libpmx_scan_info_from_db(&u_intf__pmx_phy_tbl__descriptor, LIBPMX_DB_PMX, match_position, &at);
    if (rc != LIBPMX_OK) {
        PMX_WARN("no port at sysport:%u (dev:%d slot:%d sslot:%d lport:%d), ret:%d", sysport, at.dev, at.slot,
                 at.sslot, at.lport, rc);
        return rc;
    }
    libpmx_sysport_update(at.dev, at.slot, at.sslot, at.lport, at.gphyid, 1);
    *gphyid = at.gphyid;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_sysport_by_phyid_detail(uint32_t gphyid, uint32_t *sysport, int mode)
{
    if (sysport == nullptr) {
        PMX_ERROR("sysport is null, gphyid:0x%x", gphyid);
        return LIBPMX_E_FAIL;
    }
    if (!is_port_phyid(gphyid)) {
        PMX_WARN("gphyid:0x%x is no front-panel port (type %u)", gphyid, gphyid >> 24);
        return LIBPMX_E_INVAL;
    }
    libpmx_intf_info_t info{};
    uint32_t ifx = 0;
    int rc = libpmx_get_ifx_by_phyid_detail(gphyid, &ifx, 0);
    if (rc == LIBPMX_OK) rc = libpmx_get_intf_node_by_ifx(ifx, &info);
    if (rc != LIBPMX_OK && mode != 0) rc = libpmx_get_info_from_pmx_phy_tbl(gphyid, &info, mode);
    if (rc != LIBPMX_OK) return rc;
    return libpmx_get_sysport_by_dev_slot_sslot_lport(info.dev, info.slot, info.sslot, info.lport, sysport);
}

extern "C" void libpmx_dump_sysport(void)
{
    std::vector<libpmx_sysport_t> rows;
    {
        Guard g(g_sysport_lock, Access::Read);
        libpmx_sysport_entry_each_item_op(collect, &rows, 0);
    }
    std::sort(rows.begin(), rows.end(),
              [](const libpmx_sysport_t &a, const libpmx_sysport_t &b) { return a.sysport < b.sysport; });
    std::optional<pmx::JsonTable> json;
    if (pmx::dump_json())
        json.emplace("sysport");
    else
        ssat_printf("%-8s | %3s | %4s | %5s | %5s | %s\n", "sysport", "dev", "slot", "sslot", "lport", "gphyid");
    for (const libpmx_sysport_t &r : rows) {
        int32_t dev = 0, slot = 0, sslot = 0, lport = 0;
        libpmx_get_dev_slot_sslot_lport_by_sysport(r.sysport, &dev, &slot, &sslot, &lport);
        if (json)
            json->row({pmx::num("sysport", r.sysport), pmx::num("dev", dev), pmx::num("slot", slot),
                       pmx::num("sslot", sslot), pmx::num("lport", lport), pmx::hex("gphyid", r.phyid)});
        else
            ssat_printf("%-8u | %3d | %4d | %5d | %5d | 0x%08x\n", r.sysport, dev, slot, sslot, lport, r.phyid);
    }
    if (json)
        json->end();
    else
        ssat_printf("total %zu\n", rows.size());
}
