// What a change of a followed record does to the caches: each kind handed to the change entry
// point of the cache that owns it. The database callbacks apply through here, and so do the
// tools that fill a process's caches from records.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "libpmx_errno.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "libpmx_records.h"
#include "libpmx_split.h"
#include "p_dev.pb-c.h"
#include "s_cluster.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{


bool is(const ProtobufCMessage *m, const ProtobufCMessageDescriptor &d)
{
    return m->descriptor == &d;
}

// This card's gslot, or -1 while its identity is unknown.
int32_t my_gslot()
{
    const int32_t node = libpmx_get_my_node(0);
    return node > 0 ? libpmx_get_gslot_by_node(node) : -1;
}

// Split members that may be this card's, met before its identity: their unit-port entries wait
// for it (records come in any order, the identity not always first).
struct LocalSplitMember {
    int32_t gslot;
    uint32_t lphyid, unit, port;
};
std::mutex g_unplaced_mutex;
std::vector<LocalSplitMember> g_unplaced;

void keep_unplaced(const LocalSplitMember &m, bool add)
{
    std::lock_guard<std::mutex> lock(g_unplaced_mutex);
    std::erase_if(g_unplaced, [&m](const LocalSplitMember &o) {
        return o.gslot == m.gslot && o.unit == m.unit && o.port == m.port;
    });
    if (add) g_unplaced.push_back(m);
}

// A physical port that belongs to a split port (count above 1: the members of its panel port)
// feeds the split maps: module-port and gslot maps for every card, unit-port for this card's.
int apply_phy_tbl(const UIntf__PmxPhyTbl *r, bool add)
{
    if (r->count <= 1) return LIBPMX_OK;
    const int is_add = add ? 1 : 0;
    int rc = libpmx_update_mod_port_gphyid(r->gphyid, static_cast<uint32_t>(r->modid), static_cast<uint32_t>(r->mport),
                                           is_add);
    const int32_t gslot = libpmx_get_gslot_by_dev_slot_sslot(r->dev, r->slot, r->sslot);
    rc |= libpmx_update_gslot_unit_port_lport(static_cast<uint32_t>(gslot), static_cast<uint32_t>(r->unit),
                                              static_cast<uint32_t>(r->port), static_cast<uint32_t>(r->lport),
                                              static_cast<uint8_t>(is_add));
    const int32_t mine = my_gslot();
    if (mine < 0)
        keep_unplaced({gslot, r->lphyid, static_cast<uint32_t>(r->unit), static_cast<uint32_t>(r->port)}, add);
    else if (mine == gslot)
        rc |= libpmx_update_unit_port_lphyid(r->lphyid, static_cast<uint32_t>(r->unit), static_cast<uint32_t>(r->port),
                                             is_add);
    return rc;
}

int apply_sub_ap(const UIntf__PmxSubApIntf *r, bool add)
{
    libpmx_sub_ap_info_t info{}, old{};
    pmx::decode_sub_ap_intf(r, &info);
    info.ifx = r->index != nullptr ? r->index->ifx : 0;
    uint32_t has_old = 0, changed = 0;
    return add ? libpmx_save_cache_sub_ap_info(&info, &old, &has_old, &changed)
               : libpmx_remove_cache_sub_ap_info(&info, &old, &has_old);
}

int apply_sub_route(const UIntf__PmxSubRouteIntf *r, bool add)
{
    libpmx_sub_route_info_t info{}, old{};
    pmx::decode_sub_route_intf(r, &info);
    info.ifx = r->index != nullptr ? r->index->ifx : 0;
    uint32_t has_old = 0, changed = 0;
    return add ? libpmx_save_cache_sub_route_info(&info, &old, &has_old, &changed)
               : libpmx_remove_cache_sub_route_info(&info, &old, &has_old);
}

} // namespace

extern "C" int libpmx_dmcard_stattr_parse_unit_port(const PDev__DmCardStattrT *r)
{
    if (r == nullptr || r->index == nullptr) {
        PMX_ERROR("card static attributes are null or have no index");
        return LIBPMX_E_FAIL;
    }
    // Every card type's own chip ports: on the card itself, sub-slot 0.
    int n = 0;
    for (size_t c = 0; c < r->n_chip_attr_array; ++c) {
        const PDev__DmChipAttrT *chip = r->chip_attr_array[c];
        for (size_t p = 0; chip != nullptr && p < chip->n_port_attr; ++p)
            if (const PDev__DmPortAttrT *pa = chip->port_attr[p]; pa != nullptr) {
                libpmx_global_sport_set_card_port(r->index->type, pa->unit, pa->port, pa->lport);
                ++n;
            }
    }
    PMX_DEBUG("card type %d: %d unit ports", r->index->type, n);
    return LIBPMX_OK;
}

namespace
{

// Every card type's attributes as last delivered: the local card type's go to the attribute cache
// when they come, or when the identity comes after them.
std::mutex g_stattr_mutex;
std::map<int32_t, libpmx_card_stattr_t> g_stattr_by_type;

void cache_local_stattr(const libpmx_card_stattr_t &a)
{
    libpmx_cache_set_card_statt(a.max_lport_id, a.chip_num, a.max_port, a.alloc_mode, a.intraband_chip_num,
                                a.virtual_unit_num);
}

int apply_card_stattr(const PDev__DmCardStattrT *r)
{
    if (r->index == nullptr) return LIBPMX_E_INVAL;
    libpmx_dmcard_stattr_parse_unit_port(r);
    libpmx_card_stattr_t a{};
    const int rc = libpmx_dmcard_stattr_decode(r, &a);
    if (rc != LIBPMX_OK) return rc;
    {
        std::lock_guard<std::mutex> lock(g_stattr_mutex);
        g_stattr_by_type[r->index->type] = a;
    }
    if (r->index->type == libpmx_get_my_card_type(0)) cache_local_stattr(a);
    return LIBPMX_OK;
}

// Port readiness of local sub-slots met before the identity said which slot is this card's: the
// cache is keyed by sub-slot alone, so they wait for it.
struct UnplacedPortReady {
    int32_t slot, sslot, ready, card_type;
};
std::vector<UnplacedPortReady> g_unplaced_ready; // guarded by g_unplaced_mutex

// The owner's result, or nothing for a kind that is not one of these.
std::optional<int> apply_pmx_tables(const ProtobufCMessage *m, bool add)
{
    if (is(m, u_intf__pmx_ifx_tbl__descriptor)) {
        const auto *r = pmx::record_as<UIntf__PmxIfxTbl>(m);
        // A front-panel port also names its system port (sub-interfaces do not).
        libpmx_sysport_update(r->dev, r->slot, r->sslot, r->lport, r->gphyid, add ? 1 : 0);
        if (!add) return libpmx_del_intf_node(r->index != nullptr ? r->index->ifx : r->ifx);
        libpmx_intf_info_t info{};
        pmx::decode_ifx_tbl(r, &info);
        return libpmx_add_intf_node(&info);
    }
    if (is(m, u_intf__pmx_phy_tbl__descriptor)) return apply_phy_tbl(pmx::record_as<UIntf__PmxPhyTbl>(m), add);
    if (is(m, u_intf__pmx_sub_ap_intf__descriptor)) return apply_sub_ap(pmx::record_as<UIntf__PmxSubApIntf>(m), add);
    if (is(m, u_intf__pmx_sub_route_intf__descriptor)) return apply_sub_route(pmx::record_as<UIntf__PmxSubRouteIntf>(m), add);
    if (is(m, u_intf__pmx_mod_tbl__descriptor)) {
        libpmx_mod_tbl_info_t info{};
        libpmx_mod_tbl_decode(m, &info);
        // A deleted table takes the slot's module ids back, as a retrieve does.
        if (!add) info.tbl.status = LIBPMX_MOD_TBL_NONE;
        return libpmx_add_mod_tbl(info.dev, info.slot, info.sslot, &info.tbl);
    }
    if (is(m, u_intf__pmx_card_address_id__descriptor)) {
        const auto *r = pmx::record_as<UIntf__PmxCardAddressId>(m);
        // The id caches keep no removal: a deleted card address leaves its ids.
        if (!add || r->index == nullptr) return LIBPMX_OK;
        libpmx_cache_cid_with_card_type(r->index->card_type, r->index->subcard_type, r->card_pmx_id);
        if (r->index->subcard_type != 0) libpmx_cache_scid_with_subcard_type(r->index->subcard_type, r->subcard_pmx_id);
        return LIBPMX_OK;
    }
    return std::nullopt;
}

// Once the identity is known, what was kept for it takes its place: this card's split members
// their unit-port entries, its sub-slots' port readiness, its card type's attributes. What was
// another card's is dropped.
void place_what_waited_for_the_identity()
{
    const int32_t mine = my_gslot();
    if (mine < 0) return;
    std::vector<LocalSplitMember> members;
    std::vector<UnplacedPortReady> ready;
    {
        std::lock_guard<std::mutex> lock(g_unplaced_mutex);
        members.swap(g_unplaced);
        ready.swap(g_unplaced_ready);
    }
    for (const LocalSplitMember &m : members)
        if (m.gslot == mine) libpmx_update_unit_port_lphyid(m.lphyid, m.unit, m.port, 1);
    const int32_t my_slot = libpmx_get_my_slot(0);
    for (const UnplacedPortReady &r : ready)
        if (r.slot == my_slot) libpmx_port_set_card_port_ready(r.sslot, r.ready, r.card_type, 1);
    std::optional<libpmx_card_stattr_t> attrs;
    {
        std::lock_guard<std::mutex> lock(g_stattr_mutex);
        if (auto it = g_stattr_by_type.find(libpmx_get_my_card_type(0)); it != g_stattr_by_type.end())
            attrs = it->second;
    }
    if (attrs) cache_local_stattr(*attrs);
}

std::optional<int> apply_device_records(const ProtobufCMessage *m, bool add)
{
    if (is(m, p_dev__dp_lib_my_info__descriptor)) {
        const auto *r = pmx::record_as<PDev__DpLibMyInfo>(m);
        // The identity stays when its record goes: the card is still this card.
        if (!add) return LIBPMX_OK;
        const int32_t info[5] = {static_cast<int32_t>(r->dm_my_node_type), r->slotid, r->card_type, r->card_nodeid,
                                 r->sslotid};
        libpmx_cache_set_my_info(info);
        place_what_waited_for_the_identity();
        return LIBPMX_OK;
    }
    if (is(m, p_dev__dp_lib_my_chss__descriptor)) {
        if (add) libpmx_cache_set_my_chss(pmx::record_as<PDev__DpLibMyChss>(m)->devid);
        return LIBPMX_OK;
    }
    if (is(m, p_dev__local_port_info__descriptor)) {
        const auto *r = pmx::record_as<PDev__LocalPortInfo>(m);
        return add ? libpmx_port_set_local_port_info(r->lport_num, r->online_lport, static_cast<uint32_t>(r->n_online_lport))
                   : libpmx_port_set_local_port_info(-1, nullptr, 0);
    }
    if (is(m, p_dev__unit_cport_info__descriptor)) {
        const auto *r = pmx::record_as<PDev__UnitCportInfo>(m);
        libpmx_port_info_t info{};
        libpmx_unit_cport_info_decode(r, &info);
        return add ? libpmx_port_set_unit_port(&info) : libpmx_port_del_unit_port(info.unit, info.port);
    }
    if (is(m, p_dev__dm_card_stattr_t__descriptor)) return add ? apply_card_stattr(pmx::record_as<PDev__DmCardStattrT>(m)) : LIBPMX_OK;
    if (is(m, p_dev__dp_lib_complete__descriptor)) {
        const auto *r = pmx::record_as<PDev__DpLibComplete>(m);
        libpmx_port_set_card_complete(add && r->local_card_is_complete, add && r->local_lc_is_complete,
                                      add && r->all_is_complete);
        return LIBPMX_OK;
    }
    if (is(m, p_dev__card_info__descriptor)) {
        const auto *r = pmx::record_as<PDev__CardInfo>(m);
        if (r->index == nullptr) return LIBPMX_E_INVAL;
        int32_t card_type = 0;
        pmx::decode_card_type_of_card_info(r, &card_type);
        const libpmx_card_info_t ci{static_cast<uint32_t>(r->index->devid), static_cast<uint32_t>(r->index->slotid),
                                    static_cast<uint32_t>(r->index->sslotid), static_cast<uint32_t>(card_type)};
        return add ? libpmx_cache_set_card_info(&ci) : libpmx_cache_del_card_info(&ci);
    }
    if (is(m, p_dev__local_card_port_ready__descriptor)) {
        const auto *r = pmx::record_as<PDev__LocalCardPortReady>(m);
        if (r->index == nullptr) return LIBPMX_E_INVAL;
        // The cache holds this card's sub-slots (keyed by sub-slot alone): other cards' records
        // are not its, and before the identity nobody can tell.
        const int32_t my_slot = libpmx_get_my_slot(0);
        if (my_slot <= 0) {
            std::lock_guard<std::mutex> lock(g_unplaced_mutex);
            std::erase_if(g_unplaced_ready, [r](const UnplacedPortReady &o) {
                return o.slot == r->index->slotid && o.sslot == r->index->sslotid;
            });
            if (add) g_unplaced_ready.push_back({r->index->slotid, r->index->sslotid, r->local_port_ready, r->card_type});
            return LIBPMX_OK;
        }
        if (r->index->slotid != my_slot) {
            PMX_DEBUG("port readiness of slot %d sslot %d is another card's", r->index->slotid, r->index->sslotid);
            return LIBPMX_OK;
        }
        return libpmx_port_set_card_port_ready(r->index->sslotid, r->local_port_ready, r->card_type, add ? 1 : 0);
    }
    if (is(m, s_cluster__ixn_lport_info__descriptor)) {
        const auto *r = pmx::record_as<SCluster__IxnLportInfo>(m);
        libpmx_port_set_bp_range(add ? r->lport_base : 0, add ? r->lport_num : 0);
        return LIBPMX_OK;
    }
    if (is(m, s_cluster__ixn_lport_to_upt__descriptor)) {
        const auto *r = pmx::record_as<SCluster__IxnLportToUpt>(m);
        if (r->index == nullptr) return LIBPMX_E_INVAL;
        return libpmx_port_set_bp_lport(r->index->lport, r->unit, r->port, add ? 1 : 0);
    }
    return std::nullopt;
}

} // namespace

extern "C" int libpmx_mom_record_apply(const ProtobufCMessage *record, int event)
{
    if (record == nullptr || record->descriptor == nullptr) {
        PMX_ERROR("record is null, event:%d", event);
        return LIBPMX_E_FAIL;
    }
    const bool add = event == QV_MOM_EVENT_ADD;
    std::optional<int> rc = apply_pmx_tables(record, add);
    if (!rc) rc = apply_device_records(record, add);
    if (!rc) {
        PMX_WARN("%s is no record the library follows, event:%d", record->descriptor->name, event);
        return LIBPMX_E_INVAL;
    }
    PMX_DEBUG("applied %s %s, ret:%d", add ? "add" : "delete", record->descriptor->name, *rc);
    return *rc;
}
