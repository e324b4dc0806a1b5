// Typed record getters: one record kind each. Each fills its key message, reads through the
// catalogue (which knows the database, the form and whether the read waits) and decodes what
// its caller needs; none of them stores anything.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include <algorithm>
#include <cstring>

#include "libpmx_errno.h"
#include "libpmx_records.h"
#include "p_dev.pb-c.h"
#include "s_cluster.pb-c.h"
#include "u_intf.pb-c.h"

using pmx::read_record;
using pmx::Record;

// A null output pointer: logged with the getter's arguments, -11.
#define PMX_REQUIRE_OUT(ok, ...)                                                                   \
    do {                                                                                           \
        if (!(ok)) {                                                                               \
            PMX_ERROR(__VA_ARGS__);                                                                \
            return LIBPMX_E_FAIL;                                                                  \
        }                                                                                          \
    } while (0)

namespace
{

// op of the getters whose kind never waits: the catalogue makes their reads single attempts.
constexpr int kOnce = 0;


// ---- local identity and completeness ----

struct LocalPortOut {
    int32_t lport_num;
    int32_t *online;
    uint32_t capacity;
    uint32_t online_num;
};

int decode_local_port_info(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__LocalPortInfo>(reply);
    auto *o = static_cast<LocalPortOut *>(out);
    const size_t n = std::min<size_t>(r->n_online_lport, o->capacity);
    if (n < r->n_online_lport)
        PMX_WARN("%zu online lports, room for %u: the rest dropped", r->n_online_lport,
                 o->capacity);
    if (n > 0) std::memcpy(o->online, r->online_lport, n * sizeof(int32_t));
    o->lport_num = r->lport_num;
    o->online_num = static_cast<uint32_t>(n);
    return LIBPMX_OK;
}

// The synchronous read stores the sub-slot as 0; only the change callback stores the record's.
int decode_my_info(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__DpLibMyInfo>(reply);
    auto *info = static_cast<int32_t *>(out);
    // The my-info order: node_type, slot_id, card_type, node_id, sslot_id.
    info[0] = static_cast<int32_t>(r->dm_my_node_type);
    info[1] = r->slotid;
    info[2] = r->card_type;
    info[3] = r->card_nodeid;
    info[4] = 0;
    return LIBPMX_OK;
}

int decode_my_chss(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = pmx::record_as<PDev__DpLibMyChss>(reply)->devid;
    return LIBPMX_OK;
}

struct CompleteFlags {
    unsigned char card;
    unsigned char lc;
    unsigned char all;
};

int decode_dplib_complete(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__DpLibComplete>(reply);
    auto *o = static_cast<CompleteFlags *>(out);
    o->card = r->local_card_is_complete != 0;
    o->lc = r->local_lc_is_complete != 0;
    o->all = r->all_is_complete != 0;
    return LIBPMX_OK;
}

int decode_dm_stattr_complete(const void *reply, void *out)
{
    *static_cast<unsigned char *>(out) = pmx::record_as<PDev__DmStattrComplete>(reply)->all_complete != 0;
    return LIBPMX_OK;
}

// Succeeds only once every card type's attributes are published, so a waiting read waits for it.
int decode_dm_stattr_all_complete(const void *reply, void *)
{
    return pmx::record_as<PDev__DmStattrComplete>(reply)->all_complete != 0 ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
}

// ---- card-type static attributes ----

// A port of a card type's static attributes, looked up by its panel port (by_lport) or by its
// chip unit and port; the lookup fills the other side. By chip port, the nearest listed port at
// or below it on the unit answers when the port itself is not listed: the lanes above a port
// are those of its break-out members.
struct StaticPort {
    bool by_lport;
    int32_t lport;
    int32_t unit;
    int32_t port;
    int32_t listed_port; // the chip port that answered, -1 before any
};

int decode_static_port(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__DmCardStattrT>(reply);
    auto *o = static_cast<StaticPort *>(out);
    for (size_t c = 0; c < r->n_chip_attr_array; ++c) {
        const PDev__DmChipAttrT *chip = r->chip_attr_array[c];
        if (chip == nullptr) continue;
        for (size_t p = 0; p < chip->n_port_attr; ++p) {
            const PDev__DmPortAttrT *pa = chip->port_attr[p];
            if (pa == nullptr) continue;
            if (o->by_lport) {
                if (pa->lport != o->lport) continue;
                o->unit = pa->unit;
                o->port = pa->port;
                o->listed_port = pa->port;
                return LIBPMX_OK;
            }
            if (pa->unit != o->unit || pa->port > o->port || pa->port <= o->listed_port) continue;
            o->lport = pa->lport;
            o->listed_port = pa->port;
        }
    }
    return o->listed_port >= 0 ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
}

int decode_sub_slot_num(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = pmx::record_as<PDev__DmCardStattrT>(reply)->sub_slot_num;
    return LIBPMX_OK;
}

int decode_power_supply(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = pmx::record_as<PDev__DmCardStattrT>(reply)->power_supply != 0;
    return LIBPMX_OK;
}

int decode_virtual_unit_num(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = pmx::record_as<PDev__DmCardStattrT>(reply)->virtual_chip_num;
    return LIBPMX_OK;
}

// ---- database 26 tables ----

// The interface and physical-port records have the same fields.
template <typename Tbl> int decode_port_tbl(const void *reply, void *out)
{
    const auto *r = pmx::record_as<Tbl>(reply);
    auto *o = static_cast<libpmx_intf_info_t *>(out);
    o->ifx = r->ifx;
    o->gphyid = r->gphyid;
    o->lphyid = r->lphyid;
    o->modid = r->modid;
    o->mport = r->mport;
    o->unit = r->unit;
    o->port = r->port;
    o->dev = r->dev;
    o->slot = r->slot;
    o->sslot = r->sslot;
    o->lport = r->lport;
    o->vid = r->vid;
    o->llcbtype = r->llcbtype;
    o->is_valid = static_cast<uint8_t>(r->is_valid);
    o->core = r->core;
    return LIBPMX_OK;
}

int decode_sub_ap(const void *reply, void *out)
{
    const auto *r = pmx::record_as<UIntf__PmxSubApIntf>(reply);
    auto *o = static_cast<libpmx_sub_ap_info_t *>(out);
    o->phyid = r->phyid;
    o->evlan = r->evlan;
    o->trunk = r->trunk;
    o->master_phyid = r->master_phyid;
    return LIBPMX_OK;
}

int decode_sub_route(const void *reply, void *out)
{
    const auto *r = pmx::record_as<UIntf__PmxSubRouteIntf>(reply);
    auto *o = static_cast<libpmx_sub_route_info_t *>(out);
    o->phyid = r->phyid;
    o->evlan = r->evlan;
    o->master_phyid = r->master_phyid;
    return LIBPMX_OK;
}

// The caller's decoder of a module table, behind the check of the valid variant.
struct ModTblCall {
    libpmx_db_decode_fn decode;
    void *out;
    int32_t status; // of the last table seen, -1 before any
};

int decode_valid_mod_tbl(const void *reply, void *out)
{
    const auto *r = pmx::record_as<UIntf__PmxModTbl>(reply);
    auto *call = static_cast<ModTblCall *>(out);
    call->status = static_cast<int32_t>(r->status);
    if (r->status != U_INTF__SLOT_MODID_ST_E__MODID_VALID) return LIBPMX_E_NOT_FOUND;
    return call->decode(reply, call->out);
}

int read_mod_tbl(const char *func, int32_t dev, int32_t slot, int32_t sslot, libpmx_db_decode_fn decode,
                 void *out, int op)
{
    PMX_REQUIRE_OUT(decode != nullptr, "decode is null, dev:%d slot:%d sslot:%d", dev, slot, sslot);
    UIntf__ModIndex index = U_INTF__MOD_INDEX__INIT;
    index.devid = dev;
    index.slotid = slot;
    index.sslotid = sslot;
    return read_record(func, Record::MOD_TBL, &index.base, decode, out, op);
}

// A modid looked for among the module tables, and the slot of the table that lists it.
struct ModLocate {
    uint32_t modid;
    int32_t dev;
    int32_t slot;
    int32_t sslot;
};

int match_mod_tbl_modid(const void *reply, void *out)
{
    const auto *r = pmx::record_as<UIntf__PmxModTbl>(reply);
    auto *o = static_cast<ModLocate *>(out);
    const uint32_t modid = o->modid;
    bool listed = false;
    for (size_t i = 0; i < r->n_id && !listed; ++i) listed = r->id[i] == modid;
    for (size_t u = 0; u < r->n_fuid_info && !listed; ++u) {
        const UIntf__PmxFuidInfo *f = r->fuid_info[u];
        for (size_t j = 0; f != nullptr && j < f->n_id && !listed; ++j) listed = f->id[j] == modid;
    }
    if (!listed || r->index == nullptr) return LIBPMX_E_NOT_FOUND;
    o->dev = r->index->devid;
    o->slot = r->index->slotid;
    o->sslot = r->index->sslotid;
    return LIBPMX_OK;
}

// ---- local ports, units and back-plane ports ----

struct UnitPort {
    int32_t unit;
    int32_t port;
};

int decode_lport_info(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__LportInfo>(reply);
    auto *o = static_cast<UnitPort *>(out);
    o->unit = r->unit;
    o->port = r->cport;
    return LIBPMX_OK;
}

// A unit port without static attributes has no panel port.
int decode_unit_port_lport(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__UnitCportInfo>(reply);
    if (r->static_info == nullptr) return LIBPMX_E_NOT_FOUND;
    *static_cast<int32_t *>(out) = r->static_info->lport;
    return LIBPMX_OK;
}

int decode_unit_port_type(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__UnitCportInfo>(reply);
    if (r->static_info == nullptr) return LIBPMX_E_NOT_FOUND;
    *static_cast<int32_t *>(out) = static_cast<int32_t>(r->static_info->unit_virtual_type);
    return LIBPMX_OK;
}

struct UUnitPort {
    uint32_t unit;
    uint32_t port;
};

int decode_ixn_lport_to_upt(const void *reply, void *out)
{
    const auto *r = pmx::record_as<SCluster__IxnLportToUpt>(reply);
    auto *o = static_cast<UUnitPort *>(out);
    o->unit = r->unit;
    o->port = r->port;
    return LIBPMX_OK;
}

struct LportRange {
    uint32_t base;
    uint32_t num;
};

int decode_ixn_lport_info(const void *reply, void *out)
{
    const auto *r = pmx::record_as<SCluster__IxnLportInfo>(reply);
    auto *o = static_cast<LportRange *>(out);
    o->base = r->lport_base;
    o->num = r->lport_num;
    return LIBPMX_OK;
}

// ---- cards ----

int decode_card_address_id(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = pmx::record_as<UIntf__PmxCardAddressId>(reply)->card_pmx_id;
    return LIBPMX_OK;
}

// An absent static part reads as an empty message: card type 0.
int decode_card_info_type(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__CardInfo>(reply);
    const PDev__CardStaticInfo *st = r->static_info;
    *static_cast<int32_t *>(out) = (st != nullptr && st->index != nullptr) ? st->index->type : 0;
    return LIBPMX_OK;
}

// The status byte holds the readiness asked for (0: the record's presence is enough, 1: the
// ports must be ready); it takes the record's readiness once that is reached.
int decode_port_ready(const void *reply, void *out)
{
    const auto *r = pmx::record_as<PDev__LocalCardPortReady>(reply);
    auto *status = static_cast<unsigned char *>(out);
    const unsigned char ready = r->local_port_ready != 0;
    if (ready < *status) return LIBPMX_E_NOT_FOUND;
    *status = ready;
    return LIBPMX_OK;
}

} // namespace

int pmx::decode_ifx_tbl(const void *reply, void *out)
{
    return decode_port_tbl<UIntf__PmxIfxTbl>(reply, out);
}

int pmx::decode_phy_tbl(const void *reply, void *out)
{
    return decode_port_tbl<UIntf__PmxPhyTbl>(reply, out);
}

int pmx::decode_sub_ap_intf(const void *reply, void *out)
{
    return decode_sub_ap(reply, out);
}

int pmx::decode_sub_route_intf(const void *reply, void *out)
{
    return decode_sub_route(reply, out);
}

int pmx::decode_card_type_of_card_info(const void *reply, void *out)
{
    return decode_card_info_type(reply, out);
}

// ---- local identity and completeness ----

extern "C" int libpmx_get_local_port_from_localport_info(int32_t *lport_num, int32_t *online, uint32_t capacity,
                                                         uint32_t *online_num)
{
    PMX_REQUIRE_OUT(lport_num != nullptr && (online != nullptr || capacity == 0),
                    "param is null, lport_num:%p online:%p capacity:%u", static_cast<void *>(lport_num),
                    static_cast<void *>(online), capacity);
    PDev__LocalPortInfo self = P_DEV__LOCAL_PORT_INFO__INIT;
    LocalPortOut o{0, online, capacity, 0};
    const int rc = read_record(__func__, Record::LOCAL_PORT_INFO, &self.base, decode_local_port_info, &o, kOnce);
    if (rc != LIBPMX_OK) return rc;
    *lport_num = o.lport_num;
    if (online_num != nullptr) *online_num = o.online_num;
    return LIBPMX_OK;
}

int pmx::read_my_info(int32_t info[5])
{
    PDev__DpLibMyInfo self = P_DEV__DP_LIB_MY_INFO__INIT;
    return read_record("libpmx_get_myinfo_from_dp_lib_myinfo", Record::MY_INFO, &self.base, decode_my_info, info,
                       kOnce);
}

int pmx::read_my_chss(int32_t *dev_id)
{
    PDev__DpLibMyChss self = P_DEV__DP_LIB_MY_CHSS__INIT;
    return read_record("libpmx_get_devid_from_dplib_mychss", Record::MY_CHSS, &self.base, decode_my_chss, dev_id,
                       kOnce);
}

extern "C" int libpmx_get_dplib_complete_status(int type, unsigned char *status)
{
    PMX_REQUIRE_OUT(status != nullptr, "status is NULL");
    PDev__DpLibComplete self = P_DEV__DP_LIB_COMPLETE__INIT;
    CompleteFlags flags{0, 0, 0};
    const int rc = read_record(__func__, Record::DPLIB_COMPLETE, &self.base, decode_dplib_complete, &flags, kOnce);
    switch (type) {
    case 0:
        if (rc == 0) *status = flags.card;
        break;
    case 1:
        if (rc == 0) *status = flags.lc;
        break;
    case 2:
        if (rc == 0) *status = flags.all;
        break;
    default:
        *status = 0;
        PMX_WARN("invalid type:%d", type);
        break;
    }
    PMX_INFO("card:%d lc:%d all:%d ret:%d", flags.card, flags.lc, flags.all, rc);
    return rc;
}

extern "C" void libpmx_get_dm_stattr_complete(unsigned char *complete)
{
    if (complete == nullptr) {
        PMX_ERROR("param is NULL");
        return;
    }
    *complete = 0;
    PDev__DmStattrComplete self = P_DEV__DM_STATTR_COMPLETE__INIT;
    const int rc =
        read_record(__func__, Record::DM_STATTR_COMPLETE, &self.base, decode_dm_stattr_complete, complete, kOnce);
    PMX_INFO("ret %d, dm_stattr_complete %d", rc, *complete);
}

// ---- card-type static attributes ----

extern "C" int libpmx_dmcard_stattr_decode(const void *reply, void *out)
{
    PMX_REQUIRE_OUT(reply != nullptr && out != nullptr, "param is null, reply:%p out:%p", reply, out);
    const auto *r = pmx::record_as<PDev__DmCardStattrT>(reply);
    libpmx_card_stattr_t a;
    std::memset(&a, 0, sizeof a);
    a.max_lport_id = -1;
    for (size_t c = 0; c < r->n_chip_attr_array; ++c) {
        const PDev__DmChipAttrT *chip = r->chip_attr_array[c];
        if (chip == nullptr) continue;
        for (size_t p = 0; p < chip->n_port_attr; ++p) {
            const PDev__DmPortAttrT *pa = chip->port_attr[p];
            if (pa == nullptr) continue;
            a.max_lport_id = std::max(a.max_lport_id, pa->lport);
            if (pa->unit >= 0 && pa->unit < LIBPMX_UNITS_MAX)
                a.max_port[pa->unit] = std::max(a.max_port[pa->unit], pa->port);
        }
    }
    a.chip_num = r->chip_num;
    if (const PDev__ChipidCardMode *mode = r->chipid_card_mode; mode != nullptr) {
        a.alloc_mode[0] = static_cast<uint32_t>(mode->alloc_type);
        a.alloc_mode[1] = mode->id_num;
        a.alloc_mode[2] = mode->idnum_per_unit;
        a.alloc_mode[3] = mode->support_num;
    }
    a.intraband_chip_num = r->switch_num;
    a.virtual_unit_num = r->virtual_chip_num;
    std::memcpy(out, &a, sizeof a);
    return LIBPMX_OK;
}

namespace
{

int read_card_stattr(const char *func, int32_t card_type, libpmx_db_decode_fn decode, void *out)
{
    PDev__DmCardStattrIndex index = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    index.type = card_type;
    return read_record(func, Record::CARD_STATTR, &index.base, decode, out, kOnce);
}

} // namespace

extern "C" int libpmx_get_lc_card_stattr(int32_t card_type, libpmx_card_stattr_t *out)
{
    PMX_REQUIRE_OUT(out != nullptr, "out is null, card_type:%d", card_type);
    // The attributes of a card type are only whole once the database says all are published:
    // a waiting read of the completeness record (bar and block records as for any wait), then
    // a read of what there is.
    PDev__DmStattrComplete self = P_DEV__DM_STATTR_COMPLETE__INIT;
    const int rc = read_record(__func__, Record::DM_STATTR_COMPLETE, &self.base, decode_dm_stattr_all_complete,
                               nullptr, LIBPMX_READ_WAIT);
    if (rc != 0) PMX_WARN("card_type:%d, dm_stattr not complete (%d), read what there is", card_type, rc);
    return read_card_stattr(__func__, card_type, libpmx_dmcard_stattr_decode, out);
}

extern "C" int libpmx_get_static_port_from_dmcard_stattr(int32_t card_type, int32_t lport, int32_t *unit,
                                                         int32_t *port)
{
    PMX_REQUIRE_OUT(unit != nullptr && port != nullptr, "param is null, card_type:%d lport:%d", card_type, lport);
    StaticPort sp{true, lport, 0, 0, -1};
    const int rc = read_card_stattr(__func__, card_type, decode_static_port, &sp);
    if (rc != LIBPMX_OK) return rc;
    *unit = sp.unit;
    *port = sp.port;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_lport_from_dmcard_stattr(int32_t card_type, int32_t unit, int32_t port, int32_t *lport,
                                                   int32_t *listed_port)
{
    PMX_REQUIRE_OUT(lport != nullptr && listed_port != nullptr, "param is null, card_type:%d unit:%d port:%d",
                    card_type, unit, port);
    StaticPort sp{false, 0, unit, port, -1};
    const int rc = read_card_stattr(__func__, card_type, decode_static_port, &sp);
    if (rc != LIBPMX_OK) return rc;
    *lport = sp.lport;
    *listed_port = sp.listed_port;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_sub_slot_num_from_dmcard_stattr(int32_t card_type, int32_t *num)
{
    PMX_REQUIRE_OUT(num != nullptr, "param is null, card_type:%d", card_type);
    return read_card_stattr(__func__, card_type, decode_sub_slot_num, num);
}

extern "C" int libpmx_get_power_supply_from_dmcard_stattr(int32_t card_type, int32_t *power_supply)
{
    PMX_REQUIRE_OUT(power_supply != nullptr, "param is null, card_type:%d", card_type);
    return read_card_stattr(__func__, card_type, decode_power_supply, power_supply);
}

extern "C" int libpmx_get_virtual_unit_num_by_card_type(int32_t card_type, int32_t *num)
{
    PMX_REQUIRE_OUT(num != nullptr, "param is null, card_type:%d", card_type);
    return read_card_stattr(__func__, card_type, decode_virtual_unit_num, num);
}

// ---- database 26 tables ----

extern "C" int libpmx_get_info_from_pmx_ifx_tbl(uint32_t ifx, libpmx_intf_info_t *info, int op)
{
    PMX_REQUIRE_OUT(info != nullptr, "info is null, ifx:%u", ifx);
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    return read_record(__func__, Record::IFX_TBL, &index.base, decode_port_tbl<UIntf__PmxIfxTbl>, info, op);
}

extern "C" int libpmx_get_info_from_pmx_phy_tbl(uint32_t phyid, libpmx_intf_info_t *info, int op)
{
    PMX_REQUIRE_OUT(info != nullptr, "info is null, phyid:0x%x", phyid);
    UIntf__PhyIndex index = U_INTF__PHY_INDEX__INIT;
    index.phyid = phyid;
    return read_record(__func__, Record::PHY_TBL, &index.base, decode_port_tbl<UIntf__PmxPhyTbl>, info, op);
}

extern "C" int libpmx_get_sub_ap_info_from_db(uint32_t ifx, libpmx_sub_ap_info_t *out, int op)
{
    PMX_REQUIRE_OUT(out != nullptr, "out is null, ifx:%u", ifx);
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    const int rc = read_record(__func__, Record::SUB_AP_INTF, &index.base, decode_sub_ap, out, op);
    if (rc == LIBPMX_OK) out->ifx = ifx;
    return rc;
}

extern "C" int libpmx_get_sub_route_info_from_db(uint32_t ifx, libpmx_sub_route_info_t *out, int op)
{
    PMX_REQUIRE_OUT(out != nullptr, "out is null, ifx:%u", ifx);
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    const int rc = read_record(__func__, Record::SUB_ROUTE_INTF, &index.base, decode_sub_route, out, op);
    if (rc == LIBPMX_OK) out->ifx = ifx;
    return rc;
}

extern "C" int libpmx_mod_tbl_decode(const void *reply, void *out)
{
    if (reply == nullptr || out == nullptr) return LIBPMX_E_FAIL;
    const auto *r = pmx::record_as<UIntf__PmxModTbl>(reply);
    auto *o = static_cast<libpmx_mod_tbl_info_t *>(out);
    *o = libpmx_mod_tbl_info_t{};
    if (r->index != nullptr) {
        o->dev = r->index->devid;
        o->slot = r->index->slotid;
        o->sslot = r->index->sslotid;
    }
    o->tbl.status = static_cast<uint32_t>(r->status);
    o->tbl.gslot = static_cast<uint32_t>(r->gslot);
    o->tbl.card_type = static_cast<uint32_t>(r->card_type);
    o->tbl.fuid_num = static_cast<uint32_t>(r->n_fuid_info);
    for (size_t u = 0; u < r->n_fuid_info && u < LIBPMX_FUID_UNITS_PER_SLOT; ++u) {
        const UIntf__PmxFuidInfo *f = r->fuid_info[u];
        if (f == nullptr) continue;
        libpmx_fuid_unit_t &e = o->tbl.fuid[u];
        e.unit = static_cast<int8_t>(f->unit);
        e.modid_type = static_cast<uint8_t>(f->fuid_type);
        const size_t n = std::min<size_t>(f->n_id, LIBPMX_FUID_MODIDS_PER_UNIT);
        e.idnum = static_cast<int8_t>(n);
        for (size_t j = 0; j < n; ++j) e.modid[j] = f->id[j];
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_get_info_from_pmx_mod_tbl(int32_t modid, libpmx_db_decode_fn decode, void *out)
{
    PMX_REQUIRE_OUT(decode != nullptr, "decode is null, modid:%d", modid);
    ModLocate where{static_cast<uint32_t>(modid), 0, 0, 0};
    const int rc = libpmx_scan_info_from_db(&u_intf__pmx_mod_tbl__descriptor, LIBPMX_DB_PMX, match_mod_tbl_modid, &where);
    if (rc != LIBPMX_OK) {
        PMX_WARN("no module table lists modid:%d, ret:%d", modid, rc);
        return rc;
    }
    return read_mod_tbl(__func__, where.dev, where.slot, where.sslot, decode, out, LIBPMX_READ_WAIT);
}

// Waits, like the plain variant, until the slot's module ids are allocated.
extern "C" int libpmx_get_info_from_pmx_vaild_mod_tbl(int32_t dev, int32_t slot, int32_t sslot,
                                                      libpmx_db_decode_fn decode, void *out)
{
    if (decode == nullptr) return read_mod_tbl(__func__, dev, slot, sslot, nullptr, out, LIBPMX_READ_WAIT);
    ModTblCall call{decode, out, -1};
    const int rc = read_mod_tbl(__func__, dev, slot, sslot, decode_valid_mod_tbl, &call, LIBPMX_READ_WAIT);
    if (rc == LIBPMX_E_NOT_FOUND && call.status >= 0)
        PMX_WARN("module ids of dev:%d slot:%d sslot:%d not allocated, status:%d", dev, slot, sslot, call.status);
    return rc;
}

extern "C" int libpmx_get_mod_tbl_from_dev_slot_sslot(int32_t dev, int32_t slot, int32_t sslot,
                                                      libpmx_db_decode_fn decode, void *out, int op)
{
    return read_mod_tbl(__func__, dev, slot, sslot, decode, out, op);
}

// ---- local ports, units and back-plane ports ----

extern "C" int libpmx_get_info_from_lport(int32_t lport, int32_t *unit, int32_t *cport)
{
    PMX_REQUIRE_OUT(unit != nullptr && cport != nullptr, "param is null, lport:%d", lport);
    PDev__LportIndex index = P_DEV__LPORT_INDEX__INIT;
    index.lport = lport;
    UnitPort up{0, 0};
    const int rc = read_record(__func__, Record::LPORT_INFO, &index.base, decode_lport_info, &up, kOnce);
    if (rc != LIBPMX_OK) return rc;
    *unit = up.unit;
    *cport = up.port;
    return LIBPMX_OK;
}

namespace
{

int read_unit_cport(const char *func, int32_t unit, int32_t cport, libpmx_db_decode_fn decode, void *out)
{
    PDev__UnitCportIndex index = P_DEV__UNIT_CPORT_INDEX__INIT;
    index.unit = unit;
    index.cport = cport;
    return read_record(func, Record::UNIT_CPORT_INFO, &index.base, decode, out, kOnce);
}

} // namespace

extern "C" int libpmx_get_info_from_unit_port(int32_t unit, int32_t cport, int32_t *lport)
{
    PMX_REQUIRE_OUT(lport != nullptr, "param is null, unit:%d cport:%d", unit, cport);
    return read_unit_cport(__func__, unit, cport, decode_unit_port_lport, lport);
}

extern "C" int libpmx_unit_cport_info_decode(const void *reply, void *out)
{
    if (reply == nullptr || out == nullptr) return LIBPMX_E_FAIL;
    const auto *r = pmx::record_as<PDev__UnitCportInfo>(reply);
    auto *o = static_cast<libpmx_port_info_t *>(out);
    o->unit = r->index != nullptr ? r->index->unit : 0;
    o->port = r->index != nullptr ? r->index->cport : 0;
    o->lport = r->static_info != nullptr ? r->static_info->lport : -1;
    o->core = r->static_info != nullptr ? r->static_info->coreid : 0;
    o->unit_type = r->static_info != nullptr ? static_cast<int32_t>(r->static_info->unit_virtual_type) : 0;
    o->card_type = r->owner_card_type;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_port_info_from_unit_port(int32_t unit, int32_t cport, libpmx_port_info_t *info)
{
    PMX_REQUIRE_OUT(info != nullptr, "param is null, unit:%d cport:%d", unit, cport);
    libpmx_port_info_t got{};
    const int rc = read_unit_cport(__func__, unit, cport, libpmx_unit_cport_info_decode, &got);
    if (rc != LIBPMX_OK) return rc;
    got.unit = unit; // the key asked for: a record without its index still names this port
    got.port = cport;
    *info = got;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_unit_type_from_unit_port(int32_t unit, int32_t cport, int32_t *unit_type)
{
    PMX_REQUIRE_OUT(unit_type != nullptr, "param is null, unit:%d cport:%d", unit, cport);
    return read_unit_cport(__func__, unit, cport, decode_unit_port_type, unit_type);
}

extern "C" int libpmx_get_info_from_ixnlporttoupt(uint32_t lport, uint32_t *unit, uint32_t *port)
{
    PMX_REQUIRE_OUT(unit != nullptr && port != nullptr, "param is null, lport:%u", lport);
    SCluster__IxnLportToUptIndex index = S_CLUSTER__IXN_LPORT_TO_UPT_INDEX__INIT;
    index.lport = lport;
    UUnitPort up{0, 0};
    const int rc = read_record(__func__, Record::IXN_LPORT_TO_UPT, &index.base, decode_ixn_lport_to_upt, &up, kOnce);
    if (rc != LIBPMX_OK) return rc;
    *unit = up.unit;
    *port = up.port;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_info_from_ixn_lport_info(uint32_t *lport_base, uint32_t *lport_num)
{
    PMX_REQUIRE_OUT(lport_base != nullptr && lport_num != nullptr, "param is null, lport_base:%p lport_num:%p",
                    static_cast<void *>(lport_base), static_cast<void *>(lport_num));
    SCluster__IxnLportInfo self = S_CLUSTER__IXN_LPORT_INFO__INIT;
    LportRange range{0, 0};
    const int rc = read_record(__func__, Record::IXN_LPORT_INFO, &self.base, decode_ixn_lport_info, &range, kOnce);
    if (rc != LIBPMX_OK) return rc;
    *lport_base = range.base;
    *lport_num = range.num;
    return LIBPMX_OK;
}

// ---- cards ----

extern "C" int libpmx_get_cid_from_db(int32_t card_type, int32_t subcard_type, int32_t *cid, int op)
{
    PMX_REQUIRE_OUT(cid != nullptr, "cid is null, card_type:%d subcard_type:%d", card_type, subcard_type);
    UIntf__CardAddressIdIndex index = U_INTF__CARD_ADDRESS_ID_INDEX__INIT;
    index.card_type = card_type;
    index.subcard_type = subcard_type;
    return read_record(__func__, Record::CARD_ADDRESS_ID, &index.base, decode_card_address_id, cid, op);
}

extern "C" int libpmx_get_card_type_from_db(int32_t dev, int32_t slot, int32_t sslot, int32_t *card_type, int op)
{
    PMX_REQUIRE_OUT(card_type != nullptr, "card_type is null, dev:%d slot:%d sslot:%d", dev, slot, sslot);
    PDev__CardInfoIndex index = P_DEV__CARD_INFO_INDEX__INIT;
    index.t_mod = 0;
    index.devid = dev;
    index.slotid = slot;
    index.sslotid = sslot;
    return read_record(__func__, Record::CARD_INFO, &index.base, decode_card_info_type, card_type, op);
}

extern "C" int libpmx_get_subcard_ready_with_block(int32_t dev, int32_t slot, int32_t sslot, int32_t complete_status)
{
    // A wait asked for explicitly is not cut short by an earlier timeout of this thread.
    libpmx_set_can_block_to_read_db(1);
    // The local card records are keyed by slot and sub-slot alone.
    PDev__LocalCardInfoIndex index = P_DEV__LOCAL_CARD_INFO_INDEX__INIT;
    index.t_mod = 0;
    index.slotid = slot;
    index.sslotid = sslot;
    unsigned char status = complete_status != 0;
    const int rc = read_record(__func__, Record::LOCAL_CARD_PORT_READY, &index.base, decode_port_ready, &status,
                               LIBPMX_READ_WAIT);
    if (rc != 0) PMX_ERROR("dev %d slot %d sslot %d, wait subcard-complete failed %d", dev, slot, sslot, rc);
    return rc;
}

namespace
{

// Succeeds only once the local card is complete, so a waiting read waits for it.
int decode_local_card_complete(const void *reply, void *)
{
    return pmx::record_as<PDev__DpLibComplete>(reply)->local_card_is_complete != 0 ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
}

} // namespace

extern "C" int libpmx_get_lc_ready_with_block(void)
{
    libpmx_set_can_block_to_read_db(1);
    PDev__DpLibComplete self = P_DEV__DP_LIB_COMPLETE__INIT;
    const libpmx_record_kind_t &kind = pmx::record_kind(Record::DPLIB_COMPLETE);
    const qv_mom_key_t key{&self.base, kind.record};
    const int rc = libpmx_getinfo_from_db_with_block(&key, kind.db, 1, decode_local_card_complete, nullptr,
                                                     LIBPMX_READ_WAIT);
    if (rc != LIBPMX_OK) PMX_ERROR("local_card_is_not_complete. wait fail %d", rc);
    return rc;
}
