// Physical-id conversions: gphyid <-> lphyid, phyid <-> module and port, unit and port <->
// lphyid, by bit arithmetic where the id carries the answer and through the caches (with the
// read mode's database fall-backs) where it does not; split ports override where they apply.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_intf"
#include "libpmx_log.h"

#include "libpmx_cap.h"
#include "libpmx_errno.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_intf_lock.hpp"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "libpmx_split.h"

namespace
{

using pmx::Access;
using pmx::Guard;

uint32_t type_of(uint32_t phyid)
{
    return (phyid >> 24) & 0xFFu;
}

uint32_t compose_gphyid(uint32_t type, int32_t cid, int32_t modid, int32_t port)
{
    return type << 24 | (static_cast<uint32_t>(cid) & 31u) << 19 | (static_cast<uint32_t>(modid) & 0x7FFu) << 8 |
           (static_cast<uint32_t>(port) & 255u);
}

uint32_t compose_lphyid(int32_t scid, int32_t unit, int32_t port)
{
    return 0x08000000u | static_cast<uint32_t>(scid) << 16 | static_cast<uint32_t>(unit) << 8 |
           static_cast<uint32_t>(port);
}

// Where a sub-port id's port sits.
struct SubPort {
    int32_t dev, slot, unit, port, core;
};

// ---- sub-port ids (type 19): the interface table, else the physical-port records ----

int libpmx_get_dev_slot_unit_port_by_gphyid_ext(uint32_t gphyid, SubPort *out)
{
    if (gphyid == 0) {
        PMX_WARN("gphyid(0) is invalid");
        return LIBPMX_E_INVAL;
    }
    libpmx_intf_info_t info{};
    if (!pmx::intf_node_by_phyid(gphyid, &info)) {
        PMX_WARN("gphyid:0x%x ret:%d", gphyid, LIBPMX_E_NOT_FOUND);
        return LIBPMX_E_NOT_FOUND;
    }
    *out = SubPort{info.dev, info.slot, info.unit, info.port, info.core};
    PMX_INFO("gphyid:0x%x dev:%d slot:%d unit:%d port:%d core:%d ret:%d", gphyid, out->dev, out->slot, out->unit,
             out->port, out->core, LIBPMX_OK);
    return LIBPMX_OK;
}

int libpmx_get_dev_slot_unit_port_by_gphyid(uint32_t gphyid, SubPort *out, int mode)
{
    libpmx_intf_info_t info{};
    const int rc = libpmx_get_info_from_pmx_phy_tbl(gphyid, &info, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get phy tbl fail, gphyid:0x%x ret:%d", gphyid, rc);
        return rc;
    }
    *out = SubPort{info.dev, info.slot, info.unit, info.port, info.core};
    PMX_INFO("gphyid:0x%x dev:%d slot:%d unit:%d port:%d core:%d", gphyid, out->dev, out->slot, out->unit, out->port,
             out->core);
    return LIBPMX_OK;
}

int libpmx_resolve_sub_gphyid(uint32_t gphyid, SubPort *out, int mode)
{
    const int rc = libpmx_get_dev_slot_unit_port_by_gphyid_ext(gphyid, out);
    if (rc == LIBPMX_OK) return LIBPMX_OK;
    if (mode == 0) return LIBPMX_E_NOT_FOUND;
    return libpmx_get_dev_slot_unit_port_by_gphyid(gphyid, out, mode);
}

int libpmx_get_unit_port_by_sub_gphyid(uint32_t gphyid, int32_t *unit, int32_t *port, int mode)
{
    SubPort sp{};
    const int rc = libpmx_resolve_sub_gphyid(gphyid, &sp, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get dev slot unit port failed, gphyid:0x%x ret:%d", gphyid, rc);
        return rc;
    }
    *unit = sp.unit;
    *port = sp.port;
    PMX_INFO("gphyid:0x%x unit:%d port:%d", gphyid, *unit, *port);
    return LIBPMX_OK;
}

// ---- card-id cache walks (interface-table lock) ----

struct ByCid {
    uint32_t cid;
    int32_t subcard_type;
    bool found;
};

int match_card_cid(void *entry, void *arg)
{
    const auto *r = static_cast<const libpmx_card_addr_id_t *>(entry);
    auto *m = static_cast<ByCid *>(arg);
    if (r->cid != m->cid) return 0;
    m->subcard_type = static_cast<int32_t>(r->subcard_type);
    m->found = true;
    return 1;
}

int match_scid(void *entry, void *arg)
{
    const auto *r = static_cast<const libpmx_subcard_type_id_t *>(entry);
    auto *m = static_cast<ByCid *>(arg);
    if (r->cid != m->cid) return 0;
    m->subcard_type = static_cast<int32_t>(r->subcard_type);
    m->found = true;
    return 1;
}

constexpr const char *kLphyidByGphyid = "libpmx_get_lphyid_by_gphyid_detail";

// The subcard type of a type-7/25 port from its cid, else from its module's card.
int subcard_type_of_gphyid(int32_t modid, int32_t port, uint32_t cid, int mode, int32_t *subcard_type)
{
    ByCid m{cid, 0, false};
    {
        Guard g(pmx::g_intf_lock, Access::Read);
        libpmx_card_addr_id_entry_each_item_op(match_card_cid, &m, 0);
    }
    if (m.found) {
        *subcard_type = m.subcard_type;
        return LIBPMX_OK;
    }
    int32_t card_type = -1;
    if (libpmx_get_card_type_by_modid_port(modid, port, &card_type, subcard_type, mode) != LIBPMX_OK) {
        PMX_LOG_AS(kLphyidByGphyid, LIBPMX_ZLOG_ERROR, "get card type failed modid:%d flag:%d", modid, mode);
        return LIBPMX_E_FAIL;
    }
    return LIBPMX_OK;
}

// The scid of a subcard type: the subcard-id cache (write lock, since a miss fills it), else the
// capability data, whose answer is then cached.
int scid_of_subcard_type(int32_t subcard_type, int32_t *scid)
{
    {
        Guard g(pmx::g_intf_lock, Access::Write);
        if (const libpmx_subcard_type_id_t *r = libpmx_subcard_type_id_get(subcard_type)) {
            *scid = static_cast<int32_t>(r->cid);
            return LIBPMX_OK;
        }
    }
    if (libpmx_get_scid_by_subcard_type(subcard_type, scid) != LIBPMX_OK) {
        PMX_LOG_AS(kLphyidByGphyid, LIBPMX_ZLOG_ERROR, "libpmx_subcard_type_id_get fail. subcard_type:%d", subcard_type);
        return LIBPMX_E_NOT_FOUND;
    }
    libpmx_cache_scid_with_subcard_type(subcard_type, *scid);
    return LIBPMX_OK;
}

int libpmx_get_lphyid_by_sub_gphyid(uint32_t gphyid, uint32_t *lphyid, int mode)
{
    SubPort sp{};
    int rc = libpmx_resolve_sub_gphyid(gphyid, &sp, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get dev slot unit port failed, gphyid:0x%x ret:%d", gphyid, rc);
    } else {
        const auto node = static_cast<uint32_t>(libpmx_get_my_node(1)) & 0x3FFFFFFu;
        const auto ldev = static_cast<int32_t>(node >> 18 & 0xFF), lslot = static_cast<int32_t>(node >> 8 & 0x7F);
        int32_t scid = 0;
        if (sp.dev != ldev || sp.slot != lslot) {
            PMX_ERROR("gphyid(0x%x) isn't local, local dev(%d) slot(%d) dev(%d) slot(%d)", gphyid, ldev, lslot, sp.dev,
                      sp.slot);
            rc = LIBPMX_E_INVAL;
        } else if (libpmx_get_scid_by_unit_port(sp.unit, sp.port, &scid, mode) != LIBPMX_OK) {
            PMX_ERROR("get subcard id failed unit:%d port:%d flag:%d", sp.unit, sp.port, mode);
            rc = LIBPMX_E_NOT_FOUND;
        } else {
            *lphyid = compose_lphyid(scid, sp.unit, sp.port);
            return LIBPMX_OK;
        }
    }
    PMX_ERROR("get lphyid of subgphyid failed, gphyid:0x%x", gphyid);
    return rc;
}

// The power-module test of a module port: type 25 for a power-module chip or a local
// virtual-unit port, else 7. It never fails: a failed test chooses 7.
uint32_t libpmx_is_power_mod_port(int32_t modid, int32_t port, int mode)
{
    PMX_INFO("check power mod by modid:%d port:%d flag:%d", modid, port, mode);
    int32_t modid_type = 0;
    if (libpmx_get_modid_type_from_cache(modid, &modid_type) == LIBPMX_OK)
        return modid_type == 2 ? LIBPMX_PHYID_POWER : LIBPMX_PHYID_GLOBAL;
    int32_t unit = -1;
    const int rc = libpmx_get_unit_by_chip_detail(modid, &unit, mode);
    const int32_t node_type = libpmx_get_my_node_type(1);
    if (rc == LIBPMX_OK)
        return libpmx_is_local_virtual_unit_port(unit, port) ? LIBPMX_PHYID_POWER : LIBPMX_PHYID_GLOBAL;
    if (node_type == 1) {
        PMX_ERROR("libpmx_is_power_mod_port failed, node_type:%d ret:%d", node_type, rc);
        return LIBPMX_PHYID_GLOBAL;
    }
    int32_t card_type = -1, subcard_type = 0, power_supply = 0;
    int ps_rc = libpmx_get_card_type_by_modid_port(modid, port, &card_type, &subcard_type, mode);
    if (ps_rc == LIBPMX_OK) ps_rc = libpmx_get_power_supply_from_dmcard_stattr(card_type, &power_supply);
    if (ps_rc != LIBPMX_OK) {
        PMX_ERROR("get power supply failed, card_type:%d ret:%d", card_type, ps_rc);
        return LIBPMX_PHYID_GLOBAL;
    }
    return power_supply != 0 ? LIBPMX_PHYID_POWER : LIBPMX_PHYID_GLOBAL;
}

int libpmx_get_mod_port_by_sub_gphyid(uint32_t phyid, uint32_t *modid, uint32_t *port, int mode)
{
    SubPort sp{};
    int rc = libpmx_resolve_sub_gphyid(phyid, &sp, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get unit port failed, gphyid:0x%x ret:%d", phyid, rc);
    } else {
        int32_t m = -1;
        rc = libpmx_get_modid_by_dev_slot_unit_core(&m, sp.dev, sp.slot, sp.unit, sp.core);
        if (rc == LIBPMX_OK) {
            *modid = static_cast<uint32_t>(m);
            *port = static_cast<uint32_t>(sp.port);
            return LIBPMX_OK;
        }
        PMX_ERROR("get modid fail, gphyid:0x%x unit:%d, core:%d ret:%d", phyid, sp.unit, sp.core, rc);
    }
    PMX_ERROR("get modid port by sub-gphyid failed, gphyid:0x%x", phyid);
    return rc;
}

// The body of both unit-port conversions; ext selects the cache-only forms.
int unit_port_by_lphyid(const char *func, uint32_t phyid, uint32_t *unit, uint32_t *port, bool ext)
{
    if (unit == nullptr || port == nullptr || !libpmx_is_physical_port(phyid)) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_WARN, "invald param, unit:%p port:%p phyid:0x%x\n", static_cast<void *>(unit),
                   static_cast<void *>(port), phyid);
        return LIBPMX_E_INVAL;
    }
    uint32_t su = 0, sp = 0;
    const int split = libpmx_split_cache_get_unit_port_by_lphyid(phyid, &su, &sp);
    if (split == LIBPMX_OK) {
        *unit = su;
        *port = sp;
        return LIBPMX_OK;
    }
    if (split == LIBPMX_E_INVAL) return split;
    const uint32_t type = type_of(phyid);
    int32_t u = 0, p = 0;
    if (type == LIBPMX_PHYID_GLOBAL || type == LIBPMX_PHYID_POWER) {
        const auto modid = static_cast<int32_t>(phyid >> 8 & 0x7FF);
        const int rc = ext ? libpmx_get_unit_by_chip_ext(modid, &u) : libpmx_get_unit_by_chip(modid, &u);
        if (rc != LIBPMX_OK) {
            PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "libpmx_get_unit_by_chip fail, modid:%d, ret:%d", modid, rc);
            return rc;
        }
        p = static_cast<int32_t>(phyid & 0xFF);
    } else if (type == LIBPMX_PHYID_BACKPLANE) {
        u = static_cast<int32_t>(phyid >> 10 & 0x3F);
        p = static_cast<int32_t>(phyid & 0x3FF);
    } else if (type == LIBPMX_PHYID_SUB_ROUTE) {
        const int rc = libpmx_get_unit_port_by_sub_gphyid(phyid, &u, &p, 2);
        if (rc != LIBPMX_OK) {
            PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "get unit port of sub-gphyid failed, gphyid:0x%x", phyid);
            return rc;
        }
    } else {
        u = static_cast<int32_t>(phyid >> 8 & 0xFF);
        p = static_cast<int32_t>(phyid & 0xFF);
    }
    // Types 7, 18 and 19 write their unit and port before the locality test, which may still fail.
    if (type != LIBPMX_PHYID_LOCAL) {
        *unit = static_cast<uint32_t>(u);
        *port = static_cast<uint32_t>(p);
    }
    int32_t lport = -1;
    const int rc = ext ? libpmx_get_lport_by_unit_port_ext(u, p, &lport) : libpmx_get_lport_by_unit_port(u, p, &lport);
    if (rc != LIBPMX_OK) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "not local port, phyid:0x%x, unit:%d port:%d", phyid, u, p);
        return rc;
    }
    const auto l = static_cast<uint32_t>(lport);
    if (type != LIBPMX_PHYID_BACKPLANE && (ext ? libpmx_is_bp_lport_ext(l) : libpmx_is_bp_lport(l))) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "lphyid:0x%x lport:%d, phyid is not bp phyid", phyid, lport);
        return LIBPMX_E_NOT_FOUND;
    }
    *unit = static_cast<uint32_t>(u);
    *port = static_cast<uint32_t>(p);
    PMX_LOG_AS(func, LIBPMX_ZLOG_INFO, "phyid:0x%x, unit:%d, port:%d", phyid, u, p);
    return LIBPMX_OK;
}

} // namespace

extern "C" int libpmx_is_tunnel_phyid(uint32_t phyid)
{
    return type_of(phyid) == LIBPMX_PHYID_TUNNEL;
}

// ---- gphyid -> lphyid ----

extern "C" int libpmx_get_lphyid_by_gphyid_detail(uint32_t gphyid, uint32_t *lphyid, int mode)
{
    if (lphyid == nullptr) {
        PMX_ERROR("lphyid is null, gphyid:0x%x, flag:%d", gphyid, mode);
        return LIBPMX_E_FAIL;
    }
    if (gphyid == 0) {
        PMX_WARN("phyid:0 is invalid");
        return LIBPMX_E_NOT_FOUND;
    }
    const uint32_t type = type_of(gphyid);
    if (type == LIBPMX_PHYID_SUB_ROUTE) return libpmx_get_lphyid_by_sub_gphyid(gphyid, lphyid, mode);
    if (type != LIBPMX_PHYID_GLOBAL && type != LIBPMX_PHYID_POWER) {
        *lphyid = gphyid;
        return LIBPMX_OK;
    }
    const auto modid = static_cast<int32_t>(gphyid >> 8 & 0x7FF);
    int32_t unit = -1;
    int rc = libpmx_get_unit_by_chip_detail(modid, &unit, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get unit by modid fail, modid:%d, ret:%d", modid, rc);
        return rc;
    }
    const uint32_t cid = gphyid >> 19 & 0x1F;
    const auto port = static_cast<int32_t>(gphyid & 0xFF);
    int32_t subcard_type = 0, scid = 0;
    rc = subcard_type_of_gphyid(modid, port, cid, mode, &subcard_type);
    if (rc == LIBPMX_OK) rc = scid_of_subcard_type(subcard_type, &scid);
    if (rc != LIBPMX_OK) return rc;
    *lphyid = compose_lphyid(scid, unit, port);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_lphyid_by_gphyid(uint32_t gphyid, uint32_t *lphyid)
{
    return libpmx_get_lphyid_by_gphyid_detail(gphyid, lphyid, 2);
}

extern "C" int libpmx_get_lphyid_by_gphyid_ext(uint32_t gphyid, uint32_t *lphyid)
{
    return libpmx_get_lphyid_by_gphyid_detail(gphyid, lphyid, 0);
}

// ---- lphyid -> gphyid ----

extern "C" int libpmx_get_gphyid_by_lphyid_detail(uint32_t lphyid, uint32_t *gphyid, int mode)
{
    if (gphyid == nullptr) {
        PMX_ERROR("gphyid is null, lphyid:0x%x, flag:%d", lphyid, mode);
        return LIBPMX_E_FAIL;
    }
    if (type_of(lphyid) != LIBPMX_PHYID_LOCAL) {
        *gphyid = lphyid; // a gphyid stays itself
        return LIBPMX_OK;
    }
    const auto unit = static_cast<int32_t>(lphyid >> 8 & 0xFF), port = static_cast<int32_t>(lphyid & 0xFF);
    const uint32_t scid = lphyid >> 16 & 0xFF;
    int32_t core = -1;
    if (libpmx_get_coreid_by_unit_port_detail(unit, port, &core, mode) != LIBPMX_OK) {
        PMX_ERROR("get coreid failed, lphyid:0x%x unit:%d port:%d", lphyid, unit, port);
        return LIBPMX_E_FAIL;
    }
    int32_t modid = -1;
    int rc = libpmx_get_lmodid_by_unit_core_detail(static_cast<uint32_t>(unit), core, &modid, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get modid fail, unit:%d coreid:%d ret:%d", unit, core, rc);
        return rc;
    }
    // The subcard type of the scid; scid 0 is a port of the card itself, no subcard.
    int32_t subcard_type = 0;
    if (libpmx_cap_get_subcard_id_enable() != 0 && scid != 0) {
        ByCid m{scid, 0, false};
        {
            Guard g(pmx::g_intf_lock, Access::Read);
            libpmx_subcard_type_id_entry_each_item_op(match_scid, &m, 0);
        }
        if (!m.found) {
            PMX_ERROR("get subcard_type failed, scid:%d, ret:%d", static_cast<int32_t>(scid), LIBPMX_E_NOT_FOUND);
            return LIBPMX_E_NOT_FOUND;
        }
        subcard_type = m.subcard_type;
    }
    int32_t cid = -1;
    rc = libpmx_get_cid_with_card_type(libpmx_get_my_card_type(1), subcard_type, &cid, mode);
    if (rc != LIBPMX_OK) {
        PMX_ERROR("get cid failed, modid:%d port:%d, ret:%d", modid, port, rc);
        return rc;
    }
    const uint32_t type = libpmx_is_local_virtual_unit_port(unit, port) ? LIBPMX_PHYID_POWER : LIBPMX_PHYID_GLOBAL;
    *gphyid = compose_gphyid(type, cid, modid, port);
    PMX_INFO("lphyid:0x%x, gphyid:0x%x", lphyid, *gphyid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_gphyid_by_lphyid(uint32_t lphyid, uint32_t *gphyid)
{
    return libpmx_get_gphyid_by_lphyid_detail(lphyid, gphyid, 2);
}

extern "C" int libpmx_get_gphyid_by_lphyid_ext(uint32_t lphyid, uint32_t *gphyid)
{
    return libpmx_get_gphyid_by_lphyid_detail(lphyid, gphyid, 0);
}

// ---- module and port <-> phyid ----

extern "C" int libpmx_get_phyid_by_mod_port_detail(int32_t modid, int32_t port, uint32_t *phyid, int mode)
{
    if (phyid == nullptr) {
        PMX_ERROR("phyid is null, modid:%d, port:%d, flag:%d", modid, port, mode);
        return LIBPMX_E_FAIL;
    }
    int32_t cid = -1;
    const int rc = libpmx_get_cid_by_modid_port(modid, port, &cid, mode);
    uint32_t split = 0;
    const auto m = static_cast<uint32_t>(modid), p = static_cast<uint32_t>(port);
    if (rc != LIBPMX_OK) {
        if (libpmx_split_cache_get_phyid_by_mod_port(m, p, UINT32_MAX, &split) == LIBPMX_OK) {
            *phyid = split;
            return LIBPMX_OK;
        }
        PMX_WARN("get cid fail, modid:%d port:%d ret:%d", modid, port, rc);
        return LIBPMX_E_NOT_FOUND;
    }
    if (libpmx_split_cache_get_phyid_by_mod_port(m, p, static_cast<uint32_t>(cid), &split) == LIBPMX_OK) {
        *phyid = split;
        return LIBPMX_OK;
    }
    *phyid = compose_gphyid(libpmx_is_power_mod_port(modid, port, mode), cid, modid, port);
    PMX_INFO("cid:%d modid:%d port:%d phyid:0x%x", cid, modid, port, *phyid);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_phyid_by_mod_port(int32_t modid, int32_t port, uint32_t *phyid)
{
    return libpmx_get_phyid_by_mod_port_detail(modid, port, phyid, 2);
}

extern "C" int libpmx_get_phyid_by_mod_port_ext(int32_t modid, int32_t port, uint32_t *phyid)
{
    return libpmx_get_phyid_by_mod_port_detail(modid, port, phyid, 0);
}

extern "C" int libpmx_get_phyid_by_mod_port_ext_db(int32_t modid, int32_t port, uint32_t *phyid)
{
    return libpmx_get_phyid_by_mod_port_detail(modid, port, phyid, 1);
}

extern "C" int libpmx_get_mod_port_by_phyid_detail(uint32_t phyid, uint32_t *modid, uint32_t *port, int mode)
{
    if (modid == nullptr || port == nullptr || !libpmx_is_physical_port(phyid)) {
        PMX_WARN("invalid param, modid:%p port:%p, phyid:0x%x", static_cast<void *>(modid), static_cast<void *>(port),
                 phyid);
        return LIBPMX_E_INVAL;
    }
    const uint32_t type = type_of(phyid);
    if (type == LIBPMX_PHYID_LOCAL) {
        const auto unit = static_cast<int32_t>(phyid >> 8 & 0xFF), p = static_cast<int32_t>(phyid & 0xFF);
        *port = static_cast<uint32_t>(p); // written at once, before the lookups
        int32_t core = -1;
        if (libpmx_get_coreid_by_unit_port_detail(unit, p, &core, mode) != LIBPMX_OK) {
            PMX_ERROR("get coreid failed, phyid:0x%x unit:%d port:%d", phyid, unit, p);
            return LIBPMX_E_FAIL;
        }
        int32_t m = -1;
        const int rc = libpmx_get_lmodid_by_unit_core_detail(static_cast<uint32_t>(unit), core, &m, mode);
        if (rc != LIBPMX_OK) {
            PMX_ERROR("get modid fail, phyid:0x%x unit:%d coreid:%d ret:%d", phyid, unit, core, rc);
            return rc;
        }
        *modid = static_cast<uint32_t>(m);
        return LIBPMX_OK;
    }
    if (type == LIBPMX_PHYID_BACKPLANE) {
        PMX_ERROR("bp phyid:0x%x don't supoort mod port", phyid);
        return LIBPMX_E_INVAL;
    }
    if (type == LIBPMX_PHYID_SUB_ROUTE) return libpmx_get_mod_port_by_sub_gphyid(phyid, modid, port, mode);
    if (type == LIBPMX_PHYID_TUNNEL) {
        PMX_WARN("tunnel phyid:0x%x don't supoort mod port", phyid);
        return LIBPMX_E_INVAL;
    }
    if (libpmx_split_cache_get_mod_port_by_phyid(phyid, modid, port) == LIBPMX_OK) return LIBPMX_OK;
    *modid = phyid >> 8 & 0x7FF;
    *port = phyid & 0xFF;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_mod_port_by_phyid(uint32_t phyid, uint32_t *modid, uint32_t *port)
{
    return libpmx_get_mod_port_by_phyid_detail(phyid, modid, port, 2);
}

extern "C" int libpmx_get_mod_port_by_phyid_ext(uint32_t phyid, uint32_t *modid, uint32_t *port)
{
    return libpmx_get_mod_port_by_phyid_detail(phyid, modid, port, 0);
}

// ---- unit and port <-> lphyid ----

extern "C" int libpmx_get_lphyid_by_unit_port_detail(int32_t unit, int32_t port, uint32_t *lphyid, int mode)
{
    if (lphyid == nullptr) {
        PMX_ERROR("phyid is null");
        return LIBPMX_E_FAIL;
    }
    int32_t subcard_type = 0, scid = -1;
    const int rc = libpmx_get_subcard_type_scid_by_unit_port(unit, port, &subcard_type, &scid, mode);
    const auto u = static_cast<uint32_t>(unit), p = static_cast<uint32_t>(port);
    if (rc != LIBPMX_OK) {
        if (libpmx_split_cache_get_lphyid_by_unit_port(u, p, UINT32_MAX, lphyid) == LIBPMX_OK) return LIBPMX_OK;
        PMX_WARN("get subcard id failed %d unit:%d port:%d flag:%d", rc, unit, port, mode);
        return LIBPMX_E_NOT_FOUND;
    }
    if (scid < 0) scid = 0;
    if (libpmx_split_cache_get_lphyid_by_unit_port(u, p, static_cast<uint32_t>(scid), lphyid) == LIBPMX_OK)
        return LIBPMX_OK;
    libpmx_port_info_t info{};
    if (libpmx_port_portinfo_by_unit_port(unit, port, &info) == LIBPMX_OK) {
        *lphyid = compose_lphyid(scid, unit, port);
        PMX_INFO("get lphyid:0x%x, scid:%d unit:%d, port:%d, card-type:%d, sslot:%d", *lphyid, scid, unit, port,
                 info.card_type, subcard_type != 0 ? -1 : 0);
        return LIBPMX_OK;
    }
    if (mode == 0) {
        PMX_WARN("get lphyid failed unit:%d, port:%d", unit, port);
        return LIBPMX_E_NOT_FOUND;
    }
    PMX_WARN("find lphyid by unit:%d port:%d from cache fail, and try to get from DB", unit, port);
    int32_t lport = -1;
    if (libpmx_get_info_from_unit_port(unit, port, &lport) != LIBPMX_OK) {
        PMX_ERROR("get lport failed unit:%d, port:%d", unit, port);
        return LIBPMX_E_NOT_FOUND;
    }
    const int32_t max_lport = libpmx_get_local_lport_num(); // -1 while unknown: nothing to check against
    if (max_lport >= 0 && lport > max_lport) {
        PMX_ERROR("unit %d port %d: lport %d > max_lport %d", unit, port, lport, max_lport);
        return LIBPMX_E_PORT_RANGE;
    }
    *lphyid = compose_lphyid(scid, unit, port);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_lphyid_by_unit_port(int32_t unit, int32_t port, uint32_t *lphyid)
{
    return libpmx_get_lphyid_by_unit_port_detail(unit, port, lphyid, 2);
}

extern "C" int libpmx_get_lphyid_by_unit_port_ext(int32_t unit, int32_t port, uint32_t *lphyid)
{
    return libpmx_get_lphyid_by_unit_port_detail(unit, port, lphyid, 0);
}

extern "C" int libpmx_get_lphyid_by_unit_port_internal(int32_t unit, int32_t port, uint32_t *lphyid)
{
    return libpmx_get_lphyid_by_unit_port_detail(unit, port, lphyid, 2);
}

extern "C" int libpmx_get_unit_port_by_lphyid(uint32_t phyid, uint32_t *unit, uint32_t *port)
{
    return unit_port_by_lphyid(__func__, phyid, unit, port, false);
}

extern "C" int libpmx_get_unit_port_by_lphyid_ext(uint32_t phyid, uint32_t *unit, uint32_t *port)
{
    return unit_port_by_lphyid(__func__, phyid, unit, port, true);
}
