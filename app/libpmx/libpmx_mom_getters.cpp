// Typed record getters: one record kind each, read by key through the plain, hash or waiting
// read, with a small decoder that copies what the caller needs out of the reply.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom_getters"
#include "libpmx_log.h"

#include <algorithm>
#include <cstring>

#include "libpmx_errno.h"
#include "libpmx_mom.h"
#include "p_dev.pb-c.h"
#include "s_cluster.pb-c.h"
#include "u_intf.pb-c.h"

// An absent record is normal while the database fills: it is a warning, anything else an error.
#define PMX_READ_FAILED(rc, ...)                                                                   \
    do {                                                                                           \
        if ((rc) == LIBPMX_E_NOT_FOUND)                                                            \
            PMX_WARN(__VA_ARGS__);                                                                 \
        else                                                                                       \
            PMX_ERROR(__VA_ARGS__);                                                                \
    } while (0)

namespace
{

// A singleton is keyed by its own message; any other key names the record it keys.
template <typename Msg>
qv_mom_key_t key_of(const Msg &msg, const ProtobufCMessageDescriptor *record = nullptr)
{
    return qv_mom_key_t{&msg.base, record};
}

template <typename Rec> const Rec *rec(const void *reply)
{
    return static_cast<const Rec *>(reply);
}

// ---- local identity and completeness ----

struct LocalPortOut {
    int32_t lport_num;
    int32_t *online;
    uint32_t capacity;
    uint32_t online_num;
};

int decode_local_port_info(const void *reply, void *out)
{
    const auto *r = rec<PDev__LocalPortInfo>(reply);
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
    const auto *r = rec<PDev__DpLibMyInfo>(reply);
    auto *info = static_cast<int32_t *>(out);
    info[LIBPMX_MY_NODE_TYPE] = static_cast<int32_t>(r->dm_my_node_type);
    info[LIBPMX_MY_SLOT_ID] = r->slotid;
    info[LIBPMX_MY_CARD_TYPE] = r->card_type;
    info[LIBPMX_MY_NODE_ID] = r->card_nodeid;
    info[LIBPMX_MY_SSLOT_ID] = 0;
    return LIBPMX_OK;
}

int decode_my_chss(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = rec<PDev__DpLibMyChss>(reply)->devid;
    return LIBPMX_OK;
}

struct CompleteFlags {
    unsigned char card;
    unsigned char lc;
    unsigned char all;
};

int decode_dplib_complete(const void *reply, void *out)
{
    const auto *r = rec<PDev__DpLibComplete>(reply);
    auto *o = static_cast<CompleteFlags *>(out);
    o->card = r->local_card_is_complete != 0;
    o->lc = r->local_lc_is_complete != 0;
    o->all = r->all_is_complete != 0;
    return LIBPMX_OK;
}

int decode_dm_stattr_complete(const void *reply, void *out)
{
    *static_cast<unsigned char *>(out) = rec<PDev__DmStattrComplete>(reply)->all_complete != 0;
    return LIBPMX_OK;
}

// Succeeds only once every card type's attributes are published, so a waiting read waits for it.
int decode_dm_stattr_all_complete(const void *reply, void *)
{
    return rec<PDev__DmStattrComplete>(reply)->all_complete != 0 ? LIBPMX_OK : LIBPMX_E_NOT_FOUND;
}

// ---- card-type static attributes ----

qv_mom_key_t card_stattr_key(const PDev__DmCardStattrIndex &index)
{
    return key_of(index, &p_dev__dm_card_stattr_t__descriptor);
}

struct StaticPort {
    int32_t lport; // the panel port looked for
    int32_t unit;
    int32_t port;
};

int decode_static_port(const void *reply, void *out)
{
    const auto *r = rec<PDev__DmCardStattrT>(reply);
    auto *o = static_cast<StaticPort *>(out);
    for (size_t c = 0; c < r->n_chip_attr_array; ++c) {
        const PDev__DmChipAttrT *chip = r->chip_attr_array[c];
        if (chip == nullptr) continue;
        for (size_t p = 0; p < chip->n_port_attr; ++p) {
            const PDev__DmPortAttrT *pa = chip->port_attr[p];
            if (pa == nullptr || pa->lport != o->lport) continue;
            o->unit = pa->unit;
            o->port = pa->port;
            return LIBPMX_OK;
        }
    }
    return LIBPMX_E_NOT_FOUND;
}

int decode_power_supply(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = rec<PDev__DmCardStattrT>(reply)->power_supply != 0;
    return LIBPMX_OK;
}

int decode_virtual_unit_num(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = rec<PDev__DmCardStattrT>(reply)->virtual_chip_num;
    return LIBPMX_OK;
}

// ---- database 26 tables ----

// The interface and physical-port records have the same fields.
template <typename Tbl> int decode_port_tbl(const void *reply, void *out)
{
    const auto *r = rec<Tbl>(reply);
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
    const auto *r = rec<UIntf__PmxSubApIntf>(reply);
    auto *o = static_cast<libpmx_sub_ap_info_t *>(out);
    o->phyid = r->phyid;
    o->evlan = r->evlan;
    o->trunk = r->trunk;
    o->master_phyid = r->master_phyid;
    return LIBPMX_OK;
}

int decode_sub_route(const void *reply, void *out)
{
    const auto *r = rec<UIntf__PmxSubRouteIntf>(reply);
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
    const auto *r = rec<UIntf__PmxModTbl>(reply);
    auto *call = static_cast<ModTblCall *>(out);
    call->status = static_cast<int32_t>(r->status);
    if (r->status != U_INTF__SLOT_MODID_ST_E__MODID_VALID) return LIBPMX_E_NOT_FOUND;
    return call->decode(reply, call->out);
}

int read_mod_tbl(const char *func, int32_t dev, int32_t slot, int32_t sslot,
                 libpmx_db_decode_fn decode, void *out, int op)
{
    if (decode == nullptr) {
        PMX_LOG_AS(func, LIBPMX_ZLOG_ERROR, "decode is null, dev:%d slot:%d sslot:%d", dev, slot,
                   sslot);
        return LIBPMX_E_FAIL;
    }
    UIntf__ModIndex index = U_INTF__MOD_INDEX__INIT;
    index.devid = dev;
    index.slotid = slot;
    index.sslotid = sslot;
    const qv_mom_key_t key = key_of(index, &u_intf__pmx_mod_tbl__descriptor);
    const int rc = libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_PMX, 1, decode, out, op);
    if (rc != 0)
        PMX_LOG_AS(func, rc == LIBPMX_E_NOT_FOUND ? LIBPMX_ZLOG_WARN : LIBPMX_ZLOG_ERROR,
                   "get pmx_mod_tbl failed, dev:%d slot:%d sslot:%d op:%d ret:%d", dev, slot, sslot,
                   op, rc);
    return rc;
}

// ---- local ports, units and back-plane ports ----

struct UnitPort {
    int32_t unit;
    int32_t port;
};

int decode_lport_info(const void *reply, void *out)
{
    const auto *r = rec<PDev__LportInfo>(reply);
    auto *o = static_cast<UnitPort *>(out);
    o->unit = r->unit;
    o->port = r->cport;
    return LIBPMX_OK;
}

// A unit port without static attributes has no panel port.
int decode_unit_port_lport(const void *reply, void *out)
{
    const auto *r = rec<PDev__UnitCportInfo>(reply);
    if (r->static_info == nullptr) return LIBPMX_E_NOT_FOUND;
    *static_cast<int32_t *>(out) = r->static_info->lport;
    return LIBPMX_OK;
}

int decode_unit_port_type(const void *reply, void *out)
{
    const auto *r = rec<PDev__UnitCportInfo>(reply);
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
    const auto *r = rec<SCluster__IxnLportToUpt>(reply);
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
    const auto *r = rec<SCluster__IxnLportInfo>(reply);
    auto *o = static_cast<LportRange *>(out);
    o->base = r->lport_base;
    o->num = r->lport_num;
    return LIBPMX_OK;
}

// ---- cards ----

int decode_card_address_id(const void *reply, void *out)
{
    *static_cast<int32_t *>(out) = rec<UIntf__PmxCardAddressId>(reply)->card_pmx_id;
    return LIBPMX_OK;
}

// An absent static part reads as an empty message: card type 0.
int decode_card_info_type(const void *reply, void *out)
{
    const auto *r = rec<PDev__CardInfo>(reply);
    const PDev__CardStaticInfo *st = r->static_info;
    *static_cast<int32_t *>(out) = (st != nullptr && st->index != nullptr) ? st->index->type : 0;
    return LIBPMX_OK;
}

// The status byte holds the readiness asked for (0: the record's presence is enough, 1: the
// ports must be ready); it takes the record's readiness once that is reached.
int decode_port_ready(const void *reply, void *out)
{
    const auto *r = rec<PDev__LocalCardPortReady>(reply);
    auto *status = static_cast<unsigned char *>(out);
    const unsigned char ready = r->local_port_ready != 0;
    if (ready < *status) return LIBPMX_E_NOT_FOUND;
    *status = ready;
    return LIBPMX_OK;
}

} // namespace

// ---- local identity and completeness ----

extern "C" int libpmx_get_local_port_from_localport_info(int32_t *lport_num, int32_t *online,
                                                         uint32_t capacity, uint32_t *online_num)
{
    if (lport_num == nullptr || (online == nullptr && capacity > 0)) {
        PMX_ERROR("param is null, lport_num:%p online:%p capacity:%u",
                  static_cast<void *>(lport_num), static_cast<void *>(online), capacity);
        return LIBPMX_E_FAIL;
    }
    const PDev__LocalPortInfo self = P_DEV__LOCAL_PORT_INFO__INIT;
    const qv_mom_key_t key = key_of(self);
    LocalPortOut o{0, online, capacity, 0};
    const int rc = libpmx_hget_info_from_db(&key, LIBPMX_DB_DEV, decode_local_port_info, &o);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get local_port_info failed, ret:%d", rc);
        return rc;
    }
    *lport_num = o.lport_num;
    if (online_num != nullptr) *online_num = o.online_num;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_myinfo_from_dp_lib_myinfo(int32_t *info)
{
    const PDev__DpLibMyInfo self = P_DEV__DP_LIB_MY_INFO__INIT;
    const qv_mom_key_t key = key_of(self);
    int32_t values[LIBPMX_MY_DEV_ID] = {0}; // every identity value but the device id
    const int rc = libpmx_hget_info_from_db(&key, LIBPMX_DB_DEV, decode_my_info, values);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get dp_lib_my_info failed, ret:%d", rc);
        return rc;
    }
    libpmx_cache_set_my_info(values);
    if (info != nullptr) {
        std::memcpy(info, values, sizeof values);
        if (info[LIBPMX_MY_NODE_ID] < 1) info[LIBPMX_MY_NODE_ID] = -1;
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_get_devid_from_dplib_mychss(int32_t *dev_id)
{
    const PDev__DpLibMyChss self = P_DEV__DP_LIB_MY_CHSS__INIT;
    const qv_mom_key_t key = key_of(self);
    int32_t devid = -1;
    const int rc = libpmx_hget_info_from_db(&key, LIBPMX_DB_DEV, decode_my_chss, &devid);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get dp_lib_my_chss failed, ret:%d", rc);
        return rc;
    }
    libpmx_cache_set_my_chss(devid);
    if (dev_id != nullptr) *dev_id = devid;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_dplib_complete_status(int type, unsigned char *status)
{
    if (status == nullptr) {
        PMX_ERROR("status is NULL");
        return LIBPMX_E_FAIL;
    }
    const PDev__DpLibComplete self = P_DEV__DP_LIB_COMPLETE__INIT;
    const qv_mom_key_t key = key_of(self);
    CompleteFlags flags{0, 0, 0};
    const int rc = libpmx_hget_info_from_db(&key, LIBPMX_DB_DEV, decode_dplib_complete, &flags);
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
    const PDev__DmStattrComplete self = P_DEV__DM_STATTR_COMPLETE__INIT;
    const qv_mom_key_t key = key_of(self);
    const int rc = libpmx_hget_info_from_db(&key, LIBPMX_DB_DEV, decode_dm_stattr_complete, complete);
    PMX_INFO("ret %d, dm_stattr_complete %d", rc, *complete);
}

// ---- card-type static attributes ----

extern "C" int libpmx_dmcard_stattr_decode(const void *reply, void *out)
{
    if (reply == nullptr || out == nullptr) {
        PMX_ERROR("param is null, reply:%p out:%p", reply, out);
        return LIBPMX_E_FAIL;
    }
    const auto *r = rec<PDev__DmCardStattrT>(reply);
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

extern "C" int libpmx_get_lc_card_stattr(int32_t card_type, libpmx_card_stattr_t *out)
{
    if (out == nullptr) {
        PMX_ERROR("out is null, card_type:%d", card_type);
        return LIBPMX_E_FAIL;
    }
    // The attributes of a card type are only whole once the database says all are published:
    // a waiting read of the completeness record (bar and block records as for any wait), then
    // a read of what there is.
    const PDev__DmStattrComplete self = P_DEV__DM_STATTR_COMPLETE__INIT;
    const qv_mom_key_t done_key = key_of(self);
    int rc = libpmx_getinfo_from_db_with_block(&done_key, LIBPMX_DB_DEV, 1, decode_dm_stattr_all_complete, nullptr,
                                               LIBPMX_READ_WAIT);
    if (rc != 0) PMX_WARN("card_type:%d, dm_stattr not complete (%d), read what there is", card_type, rc);

    PDev__DmCardStattrIndex index = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    index.type = card_type;
    const qv_mom_key_t key = card_stattr_key(index);
    rc = libpmx_get_info_from_db(&key, LIBPMX_DB_DEV, libpmx_dmcard_stattr_decode, out);
    if (rc != 0)
        PMX_READ_FAILED(rc, "get dm_card_stattr_t failed, card_type:%d ret:%d", card_type, rc);
    return rc;
}

extern "C" int libpmx_get_static_port_from_dmcard_stattr(int32_t card_type, int32_t lport,
                                                         int32_t *unit, int32_t *port)
{
    if (unit == nullptr || port == nullptr) {
        PMX_ERROR("param is null, card_type:%d lport:%d", card_type, lport);
        return LIBPMX_E_FAIL;
    }
    PDev__DmCardStattrIndex index = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    index.type = card_type;
    const qv_mom_key_t key = card_stattr_key(index);
    StaticPort sp{lport, 0, 0};
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_DEV, decode_static_port, &sp);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get static port failed, card_type:%d lport:%d ret:%d", card_type,
                        lport, rc);
        return rc;
    }
    *unit = sp.unit;
    *port = sp.port;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_power_supply_from_dmcard_stattr(int32_t card_type, int32_t *power_supply)
{
    if (power_supply == nullptr) {
        PMX_ERROR("param is null, card_type:%d", card_type);
        return LIBPMX_E_FAIL;
    }
    PDev__DmCardStattrIndex index = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    index.type = card_type;
    const qv_mom_key_t key = card_stattr_key(index);
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_DEV, decode_power_supply, power_supply);
    if (rc != 0) PMX_READ_FAILED(rc, "get power supply failed, card_type:%d ret:%d", card_type, rc);
    return rc;
}

extern "C" int libpmx_get_virtual_unit_num_by_card_type(int32_t card_type, int32_t *num)
{
    if (num == nullptr) {
        PMX_ERROR("param is null, card_type:%d", card_type);
        return LIBPMX_E_FAIL;
    }
    PDev__DmCardStattrIndex index = P_DEV__DM_CARD_STATTR_INDEX__INIT;
    index.type = card_type;
    const qv_mom_key_t key = card_stattr_key(index);
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_DEV, decode_virtual_unit_num, num);
    if (rc != 0)
        PMX_READ_FAILED(rc, "get virtual unit num failed, card_type:%d ret:%d", card_type, rc);
    return rc;
}

// ---- database 26 tables ----

extern "C" int libpmx_get_info_from_pmx_ifx_tbl(uint32_t ifx, libpmx_intf_info_t *info, int op)
{
    if (info == nullptr) {
        PMX_ERROR("info is null, ifx:%u", ifx);
        return LIBPMX_E_FAIL;
    }
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    const qv_mom_key_t key = key_of(index, &u_intf__pmx_ifx_tbl__descriptor);
    const int rc = libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_PMX, 1,
                                                     decode_port_tbl<UIntf__PmxIfxTbl>, info, op);
    if (rc != 0) PMX_READ_FAILED(rc, "get pmx_ifx_tbl failed, ifx:%u op:%d ret:%d", ifx, op, rc);
    return rc;
}

extern "C" int libpmx_get_info_from_pmx_phy_tbl(uint32_t phyid, libpmx_intf_info_t *info, int op)
{
    if (info == nullptr) {
        PMX_ERROR("info is null, phyid:0x%x", phyid);
        return LIBPMX_E_FAIL;
    }
    UIntf__PhyIndex index = U_INTF__PHY_INDEX__INIT;
    index.phyid = phyid;
    const qv_mom_key_t key = key_of(index, &u_intf__pmx_phy_tbl__descriptor);
    const int rc = libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_PMX, 1,
                                                     decode_port_tbl<UIntf__PmxPhyTbl>, info, op);
    if (rc != 0)
        PMX_READ_FAILED(rc, "get pmx_phy_tbl failed, phyid:0x%x op:%d ret:%d", phyid, op, rc);
    return rc;
}

extern "C" int libpmx_get_sub_ap_info_from_db(uint32_t ifx, libpmx_sub_ap_info_t *out, int op)
{
    if (out == nullptr) {
        PMX_ERROR("out is null, ifx:%u", ifx);
        return LIBPMX_E_FAIL;
    }
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    const qv_mom_key_t key = key_of(index, &u_intf__pmx_sub_ap_intf__descriptor);
    const int rc =
        libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_PMX, 0, decode_sub_ap, out, op);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get pmx_sub_ap_intf failed, ifx:%u op:%d ret:%d", ifx, op, rc);
        return rc;
    }
    out->ifx = ifx;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_sub_route_info_from_db(uint32_t ifx, libpmx_sub_route_info_t *out, int op)
{
    if (out == nullptr) {
        PMX_ERROR("out is null, ifx:%u", ifx);
        return LIBPMX_E_FAIL;
    }
    UIntf__IfxIndex index = U_INTF__IFX_INDEX__INIT;
    index.ifx = ifx;
    const qv_mom_key_t key = key_of(index, &u_intf__pmx_sub_route_intf__descriptor);
    const int rc =
        libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_PMX, 0, decode_sub_route, out, op);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get pmx_sub_route_intf failed, ifx:%u op:%d ret:%d", ifx, op, rc);
        return rc;
    }
    out->ifx = ifx;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_info_from_pmx_mod_tbl(int32_t dev, int32_t slot, int32_t sslot,
                                                libpmx_db_decode_fn decode, void *out)
{
    return read_mod_tbl(__func__, dev, slot, sslot, decode, out, LIBPMX_READ_WAIT);
}

// Waits, like the plain variant, until the slot's module ids are allocated.
extern "C" int libpmx_get_info_from_pmx_vaild_mod_tbl(int32_t dev, int32_t slot, int32_t sslot,
                                                      libpmx_db_decode_fn decode, void *out)
{
    if (decode == nullptr)
        return read_mod_tbl(__func__, dev, slot, sslot, nullptr, out, LIBPMX_READ_WAIT);
    ModTblCall call{decode, out, -1};
    const int rc =
        read_mod_tbl(__func__, dev, slot, sslot, decode_valid_mod_tbl, &call, LIBPMX_READ_WAIT);
    if (rc == LIBPMX_E_NOT_FOUND && call.status >= 0)
        PMX_WARN("module ids of dev:%d slot:%d sslot:%d not allocated, status:%d", dev, slot, sslot,
                 call.status);
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
    if (unit == nullptr || cport == nullptr) {
        PMX_ERROR("param is null, lport:%d", lport);
        return LIBPMX_E_FAIL;
    }
    PDev__LportIndex index = P_DEV__LPORT_INDEX__INIT;
    index.lport = lport;
    const qv_mom_key_t key = key_of(index, &p_dev__lport_info__descriptor);
    UnitPort up{0, 0};
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_DEV, decode_lport_info, &up);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get lport_info failed, lport:%d ret:%d", lport, rc);
        return rc;
    }
    *unit = up.unit;
    *cport = up.port;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_info_from_unit_port(int32_t unit, int32_t cport, int32_t *lport)
{
    if (lport == nullptr) {
        PMX_ERROR("param is null, unit:%d cport:%d", unit, cport);
        return LIBPMX_E_FAIL;
    }
    PDev__UnitCportIndex index = P_DEV__UNIT_CPORT_INDEX__INIT;
    index.unit = unit;
    index.cport = cport;
    const qv_mom_key_t key = key_of(index, &p_dev__unit_cport_info__descriptor);
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_DEV, decode_unit_port_lport, lport);
    if (rc != 0)
        PMX_READ_FAILED(rc, "get lport of unit:%d cport:%d failed, ret:%d", unit, cport, rc);
    return rc;
}

extern "C" int libpmx_get_unit_type_from_unit_port(int32_t unit, int32_t cport, int32_t *unit_type)
{
    if (unit_type == nullptr) {
        PMX_ERROR("param is null, unit:%d cport:%d", unit, cport);
        return LIBPMX_E_FAIL;
    }
    PDev__UnitCportIndex index = P_DEV__UNIT_CPORT_INDEX__INIT;
    index.unit = unit;
    index.cport = cport;
    const qv_mom_key_t key = key_of(index, &p_dev__unit_cport_info__descriptor);
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_DEV, decode_unit_port_type, unit_type);
    if (rc != 0)
        PMX_READ_FAILED(rc, "get unit type of unit:%d cport:%d failed, ret:%d", unit, cport, rc);
    return rc;
}

extern "C" int libpmx_get_info_from_ixnlporttoupt(uint32_t lport, uint32_t *unit, uint32_t *port)
{
    if (unit == nullptr || port == nullptr) {
        PMX_ERROR("param is null, lport:%u", lport);
        return LIBPMX_E_FAIL;
    }
    SCluster__IxnLportToUptIndex index = S_CLUSTER__IXN_LPORT_TO_UPT_INDEX__INIT;
    index.lport = lport;
    const qv_mom_key_t key = key_of(index, &s_cluster__ixn_lport_to_upt__descriptor);
    UUnitPort up{0, 0};
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_CLUSTER, decode_ixn_lport_to_upt, &up);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get ixn_lport_to_upt failed, lport:%u ret:%d", lport, rc);
        return rc;
    }
    *unit = up.unit;
    *port = up.port;
    return LIBPMX_OK;
}

extern "C" int libpmx_get_info_from_ixn_lport_info(uint32_t *lport_base, uint32_t *lport_num)
{
    if (lport_base == nullptr || lport_num == nullptr) {
        PMX_ERROR("param is null, lport_base:%p lport_num:%p", static_cast<void *>(lport_base),
                  static_cast<void *>(lport_num));
        return LIBPMX_E_FAIL;
    }
    const SCluster__IxnLportInfo self = S_CLUSTER__IXN_LPORT_INFO__INIT;
    const qv_mom_key_t key = key_of(self);
    LportRange range{0, 0};
    const int rc = libpmx_get_info_from_db(&key, LIBPMX_DB_CLUSTER, decode_ixn_lport_info, &range);
    if (rc != 0) {
        PMX_READ_FAILED(rc, "get ixn_lport_info failed, ret:%d", rc);
        return rc;
    }
    *lport_base = range.base;
    *lport_num = range.num;
    return LIBPMX_OK;
}

// ---- cards ----

extern "C" int libpmx_get_cid_from_db(int32_t card_type, int32_t subcard_type, int32_t *cid, int op)
{
    if (cid == nullptr) {
        PMX_ERROR("cid is null, card_type:%d subcard_type:%d", card_type, subcard_type);
        return LIBPMX_E_FAIL;
    }
    UIntf__CardAddressIdIndex index = U_INTF__CARD_ADDRESS_ID_INDEX__INIT;
    index.card_type = card_type;
    index.subcard_type = subcard_type;
    const qv_mom_key_t key = key_of(index, &u_intf__pmx_card_address_id__descriptor);
    const int rc =
        libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_PMX, 0, decode_card_address_id, cid, op);
    if (rc != 0)
        PMX_READ_FAILED(rc,
                        "get pmx_card_address_id failed, card_type:%d subcard_type:%d op:%d ret:%d",
                        card_type, subcard_type, op, rc);
    return rc;
}

extern "C" int libpmx_get_card_type_from_db(int32_t dev, int32_t slot, int32_t sslot,
                                            int32_t *card_type, int op)
{
    if (card_type == nullptr) {
        PMX_ERROR("card_type is null, dev:%d slot:%d sslot:%d", dev, slot, sslot);
        return LIBPMX_E_FAIL;
    }
    PDev__CardInfoIndex index = P_DEV__CARD_INFO_INDEX__INIT;
    index.t_mod = 0;
    index.devid = dev;
    index.slotid = slot;
    index.sslotid = sslot;
    const qv_mom_key_t key = key_of(index, &p_dev__card_info__descriptor);
    const int rc = libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_DEV, 1, decode_card_info_type,
                                                     card_type, op);
    if (rc != 0)
        PMX_READ_FAILED(rc, "get card_info failed, dev:%d slot:%d sslot:%d op:%d ret:%d", dev, slot,
                        sslot, op, rc);
    return rc;
}

extern "C" int libpmx_get_subcard_ready_with_block(int32_t dev, int32_t slot, int32_t sslot,
                                                   int32_t complete_status)
{
    // A wait asked for explicitly is not cut short by an earlier timeout of this thread.
    libpmx_set_can_block_to_read_db(1);
    // The local card records are keyed by slot and sub-slot alone.
    PDev__LocalCardInfoIndex index = P_DEV__LOCAL_CARD_INFO_INDEX__INIT;
    index.t_mod = 0;
    index.slotid = slot;
    index.sslotid = sslot;
    const qv_mom_key_t key = key_of(index, &p_dev__local_card_port_ready__descriptor);
    unsigned char status = complete_status != 0;
    const int rc = libpmx_getinfo_from_db_with_block(&key, LIBPMX_DB_DEV, 0, decode_port_ready,
                                                     &status, LIBPMX_READ_WAIT);
    if (rc != 0)
        PMX_ERROR("dev %d slot %d sslot %d, wait subcard-complete failed %d", dev, slot, sslot, rc);
    return rc;
}
