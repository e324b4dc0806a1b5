// The library's subscriptions: the data source of the followed records, its "all loaded" event,
// and the add and delete callbacks of every key. Each callback applies its record to the cache of
// its owner, raises the ready bits the record completes and queues the events of the timed
// delivery.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_mom"
#include "libpmx_log.h"

#include "libpmx_errno.h"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_notify.hpp"
#include "libpmx_platform_code.h"
#include "libpmx_port.h"
#include "libpmx_records.h"
#include "libpmx_history.hpp"
#include "libpmx_stats.hpp"
#include "p_dev.pb-c.h"
#include "s_cluster.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{


// Applies the record and queues its record event; the owner's result.
int apply(void *context, int event, const ProtobufCMessage *key, const ProtobufCMessage *record)
{
    const int rc = libpmx_mom_record_apply(record, event);
    if (record != nullptr) pmx::stats::applied(pmx::stats::kind_of(record->descriptor), event != QV_MOM_EVENT_DEL);
    pmx::history::note(event, key, record);
    if (pmx::event_wanted(LIBPMX_EVENT_RECORD)) pmx::event_post_record(context, event, key, record);
    return rc;
}

void raise_and_dispatch(void *context, int type)
{
    pmx::notify_set_ready(type);
    libpmx_notify_handle(context, type, 0, nullptr);
}

int op_of(int event)
{
    return event == QV_MOM_EVENT_DEL ? LIBPMX_EVENT_DEL : LIBPMX_EVENT_SET;
}

void post_slot(void *context, uint32_t kind, int event, libpmx_event_slot_t slot)
{
    if (!pmx::event_wanted(kind)) return;
    libpmx_event_t ev{};
    ev.kind = kind;
    ev.op = op_of(event);
    ev.u.slot = slot;
    libpmx_event_post(context, &ev);
}

void post_sub_ap(void *context, int event, const ProtobufCMessage *record)
{
    if (!pmx::event_wanted(LIBPMX_EVENT_SUB_AP)) return;
    const auto *r = pmx::record_as<UIntf__PmxSubApIntf>(record);
    libpmx_event_t ev{};
    ev.kind = LIBPMX_EVENT_SUB_AP;
    ev.op = op_of(event);
    pmx::decode_sub_ap_intf(r, &ev.u.sub_ap);
    ev.u.sub_ap.ifx = r->index != nullptr ? r->index->ifx : 0;
    libpmx_event_post(context, &ev);
}

void post_sub_route(void *context, int event, const ProtobufCMessage *record)
{
    if (!pmx::event_wanted(LIBPMX_EVENT_SUB_ROUTE)) return;
    const auto *r = pmx::record_as<UIntf__PmxSubRouteIntf>(record);
    libpmx_event_t ev{};
    ev.kind = LIBPMX_EVENT_SUB_ROUTE;
    ev.op = op_of(event);
    pmx::decode_sub_route_intf(r, &ev.u.sub_route);
    ev.u.sub_route.ifx = r->index != nullptr ? r->index->ifx : 0;
    libpmx_event_post(context, &ev);
}

// This card's module ids are known: type 5, then the types that waited for them.
void own_module_ids_known(void *context)
{
    pmx::notify_set_ready(LIBPMX_NOTIFY_LMODID_EVENT);
    libpmx_notify_handle(context, LIBPMX_NOTIFY_LMODID_EVENT, 0, nullptr);
    if (pmx::notify_is_ready(LIBPMX_NOTIFY_LC_EVENT)) libpmx_notify_handle(context, LIBPMX_NOTIFY_LC_EVENT, 0, nullptr);
    if (pmx::notify_is_ready(LIBPMX_NOTIFY_GLOBAL_EVENT))
        libpmx_notify_handle(context, LIBPMX_NOTIFY_GLOBAL_EVENT, 0, nullptr);
}

// Records come in any order: when this card's module table was stored before its identity said
// which slot is this card's, the identity's arrival makes its module ids known.
void recheck_own_module_ids(void *context)
{
    if (pmx::notify_is_ready(LIBPMX_NOTIFY_LMODID_EVENT)) return;
    const int32_t dev = libpmx_get_my_dev_id(0), slot = libpmx_get_my_slot(0);
    if (dev <= 0 || slot <= 0) return;
    ce_pmx_fuid_info_per_slot_t tbl{};
    if (libpmx_get_fuid_info_by_gslot(libpmx_get_gslot_by_dev_slot_sslot(dev, slot, libpmx_get_my_sslot(0)), &tbl) !=
            LIBPMX_OK ||
        tbl.status != LIBPMX_MOD_TBL_ALLOC)
        return;
    PMX_INFO("module table of dev %d slot %d came before the identity: module ids known now", dev, slot);
    own_module_ids_known(context);
}

} // namespace

// ---- the callbacks, in the order of the in-keys ----

extern "C" void libpmx_mom_my_info_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record)
{
    apply(context, event, key, record);
    if (event != QV_MOM_EVENT_ADD) return;
    raise_and_dispatch(context, LIBPMX_NOTIFY_MYINFO_EVENT);
    recheck_own_module_ids(context);
}

extern "C" void libpmx_mom_local_port_info_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_unit_port_cb(void *context, int event, const ProtobufCMessage *key,
                                        const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_card_stattr_cb(void *context, int event, const ProtobufCMessage *key,
                                          const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_dplib_complete_cb(void *context, int event, const ProtobufCMessage *key,
                                             const ProtobufCMessage *record)
{
    const auto *r = pmx::record_as<PDev__DpLibComplete>(record);
    // A deleted record completes nothing.
    const bool add = event == QV_MOM_EVENT_ADD;
    const int card = add && r->local_card_is_complete != 0;
    const int lc = add && r->local_lc_is_complete != 0;
    const int all = add && r->all_is_complete != 0;
    PMX_NOTICE("local_card_is_complete:%d  local_lc_is_complete:%d  all_is_complete:%d", card, lc, all);
    apply(context, event, key, record);
    if (card != 0) raise_and_dispatch(context, LIBPMX_NOITFY_CARD_EVENT);
    if (lc != 0) raise_and_dispatch(context, LIBPMX_NOTIFY_LC_EVENT);
    if (all != 0) raise_and_dispatch(context, LIBPMX_NOTIFY_GLOBAL_EVENT);
}

extern "C" void libpmx_mom_card_info_cb(void *context, int event, const ProtobufCMessage *key,
                                        const ProtobufCMessage *record)
{
    if (apply(context, event, key, record) != LIBPMX_OK) return;
    const auto *r = pmx::record_as<PDev__CardInfo>(record);
    int32_t card_type = 0;
    pmx::decode_card_type_of_card_info(r, &card_type);
    post_slot(context, LIBPMX_EVENT_CARD, event,
              libpmx_event_slot_t{r->index->devid, r->index->slotid, r->index->sslotid, card_type, 1});
}

extern "C" void libpmx_mom_local_card_port_ready_cb(void *context, int event, const ProtobufCMessage *key,
                                                    const ProtobufCMessage *record)
{
    if (apply(context, event, key, record) != LIBPMX_OK) return;
    const auto *r = pmx::record_as<PDev__LocalCardPortReady>(record);
    if (const int32_t my_slot = libpmx_get_my_slot(0); my_slot > 0 && r->index->slotid != my_slot) return;
    post_slot(context, LIBPMX_EVENT_SSLOT, event,
              libpmx_event_slot_t{libpmx_get_my_dev_id(1), r->index->slotid, r->index->sslotid, r->card_type,
                                  r->local_port_ready != 0});
}

extern "C" void libpmx_mom_bp_lport_info_cb(void *context, int event, const ProtobufCMessage *key,
                                            const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_bp_lport_tbl_cb(void *context, int event, const ProtobufCMessage *key,
                                           const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_ifx_tbl_add_cb(void *context, int event, const ProtobufCMessage *key,
                                          const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_ifx_tbl_del_cb(void *context, int event, const ProtobufCMessage *key,
                                          const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_sub_ap_intf_add_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record)
{
    apply(context, event, key, record);
    post_sub_ap(context, event, record);
}

extern "C" void libpmx_mom_sub_ap_intf_del_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record)
{
    apply(context, event, key, record);
    post_sub_ap(context, event, record);
}

extern "C" void libpmx_mom_sub_route_intf_add_cb(void *context, int event, const ProtobufCMessage *key,
                                                 const ProtobufCMessage *record)
{
    apply(context, event, key, record);
    post_sub_route(context, event, record);
}

extern "C" void libpmx_mom_sub_route_intf_del_cb(void *context, int event, const ProtobufCMessage *key,
                                                 const ProtobufCMessage *record)
{
    apply(context, event, key, record);
    post_sub_route(context, event, record);
}

extern "C" void libpmx_mom_phy_tbl_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_mod_tbl_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record)
{
    if (apply(context, event, key, record) != LIBPMX_OK) return;
    libpmx_mod_tbl_info_t info{};
    libpmx_mod_tbl_decode(record, &info);
    // The entry as stored; a deleted one as it was handed back.
    const int32_t gslot = libpmx_get_gslot_by_dev_slot_sslot(info.dev, info.slot, info.sslot);
    if (libpmx_get_fuid_info_by_gslot(gslot, &info.tbl) != LIBPMX_OK) info.tbl.gslot = static_cast<uint32_t>(gslot);
    if (event == QV_MOM_EVENT_DEL) info.tbl.status = LIBPMX_MOD_TBL_NONE;
    // A deleted table takes this card's ids back: it makes them known to nobody.
    if (event == QV_MOM_EVENT_ADD && info.dev == libpmx_get_my_dev_id(1) && info.slot == libpmx_get_my_slot(1))
        own_module_ids_known(context);
    libpmx_notify_handle(context, LIBPMX_NOTIFY_CHIPSLOT_EVENT, info.tbl.status == LIBPMX_MOD_TBL_ALLOC ? 0 : 1,
                         &info.tbl);
}

extern "C" void libpmx_mom_card_address_id_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record)
{
    apply(context, event, key, record);
}

extern "C" void libpmx_mom_my_chss_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record)
{
    apply(context, event, key, record);
    if (event != QV_MOM_EVENT_ADD) return;
    raise_and_dispatch(context, LIBPMX_NOTIFY_MYCHSS_EVENT);
    recheck_own_module_ids(context);
}

extern "C" void libpmx_all_ds_event_cb(void *context, int ds, int event, void *arg)
{
    (void)arg;
    PMX_INFO("data source %d event %d: every followed record is loaded", ds, event);
    pmx::notify_ds_all_first_hook(context);
    pmx::notify_set_ready(LIBPMX_NOTIFY_DS_ALL_EVENT);
    libpmx_notify_handle(context, LIBPMX_NOITFY_CARD_EVENT, 0, nullptr);
    libpmx_notify_handle(context, LIBPMX_NOTIFY_LC_EVENT, 0, nullptr);
    libpmx_notify_handle(context, LIBPMX_NOTIFY_GLOBAL_EVENT, 0, nullptr);
}

// ---- the data source ----

namespace
{

constexpr const char *kOwner = "libpmx";

// The add and delete callbacks of each followed kind.
struct KeyCallbacks {
    const ProtobufCMessageDescriptor *record;
    qv_mom_key_event_fn add;
    qv_mom_key_event_fn del;
};

const KeyCallbacks kCallbacks[] = {
    {&p_dev__dp_lib_my_info__descriptor, libpmx_mom_my_info_cb, libpmx_mom_my_info_cb},
    {&p_dev__local_port_info__descriptor, libpmx_mom_local_port_info_cb, libpmx_mom_local_port_info_cb},
    {&p_dev__unit_cport_info__descriptor, libpmx_mom_unit_port_cb, libpmx_mom_unit_port_cb},
    {&p_dev__dm_card_stattr_t__descriptor, libpmx_mom_card_stattr_cb, libpmx_mom_card_stattr_cb},
    {&p_dev__dp_lib_complete__descriptor, libpmx_mom_dplib_complete_cb, libpmx_mom_dplib_complete_cb},
    {&p_dev__card_info__descriptor, libpmx_mom_card_info_cb, libpmx_mom_card_info_cb},
    {&p_dev__local_card_port_ready__descriptor, libpmx_mom_local_card_port_ready_cb,
     libpmx_mom_local_card_port_ready_cb},
    {&s_cluster__ixn_lport_info__descriptor, libpmx_mom_bp_lport_info_cb, libpmx_mom_bp_lport_info_cb},
    {&s_cluster__ixn_lport_to_upt__descriptor, libpmx_mom_bp_lport_tbl_cb, libpmx_mom_bp_lport_tbl_cb},
    {&u_intf__pmx_ifx_tbl__descriptor, libpmx_mom_ifx_tbl_add_cb, libpmx_mom_ifx_tbl_del_cb},
    {&u_intf__pmx_sub_ap_intf__descriptor, libpmx_mom_sub_ap_intf_add_cb, libpmx_mom_sub_ap_intf_del_cb},
    {&u_intf__pmx_sub_route_intf__descriptor, libpmx_mom_sub_route_intf_add_cb, libpmx_mom_sub_route_intf_del_cb},
    {&u_intf__pmx_phy_tbl__descriptor, libpmx_mom_phy_tbl_cb, libpmx_mom_phy_tbl_cb},
    {&u_intf__pmx_mod_tbl__descriptor, libpmx_mom_mod_tbl_cb, libpmx_mom_mod_tbl_cb},
    {&u_intf__pmx_card_address_id__descriptor, libpmx_mom_card_address_id_cb, libpmx_mom_card_address_id_cb},
    {&p_dev__dp_lib_my_chss__descriptor, libpmx_mom_my_chss_cb, libpmx_mom_my_chss_cb},
};
static_assert(sizeof kCallbacks / sizeof kCallbacks[0] == LIBPMX_MOM_IN_KEYS, "one entry per followed kind");

// The followed kinds of the catalogue, in its order: the data source's in-keys (the catalogue
// holds exactly LIBPMX_MOM_IN_KEYS of them), each with its callbacks.
struct InKeys {
    qv_mom_key_desc_t keys[LIBPMX_MOM_IN_KEYS] = {};
    const KeyCallbacks *callbacks[LIBPMX_MOM_IN_KEYS] = {};
    InKeys()
    {
        uint32_t n = 0;
        for (uint32_t i = 0; const libpmx_record_kind_t *kind = libpmx_record_kind_at(i); ++i) {
            if (kind->followed == 0) continue;
            keys[n] = qv_mom_key_desc_t{kind->key, kind->record, kOwner, kind->db};
            for (const KeyCallbacks &cb : kCallbacks)
                if (cb.record == kind->record) callbacks[n] = &cb;
            ++n;
        }
    }
};

const InKeys &in_keys()
{
    static const InKeys keys;
    return keys;
}

// Value of the snapshot option: existing records are delivered when the source starts.
constexpr int kSnapshotOn = 1;

} // namespace

extern "C" const qv_mom_key_desc_t *libpmx_mom_in_keys(void)
{
    return in_keys().keys;
}

// glb: the application's database context (a qv_mom_glb_t); the data source is registered
// through the library's own handle g_libpmx_mom_ab, the events on glb.
extern "C" int libpmx_mom_init(void *glb, const char *app_name)
{
    const InKeys &in = in_keys();
    auto *context = static_cast<qv_mom_glb_t *>(glb);
    PMX_INFO("inkeys keys_num:%d, outkey keys_num:%d", LIBPMX_MOM_IN_KEYS, 0);
    const int ds = qv_mom_reg_ds(g_libpmx_mom_ab, in.keys, LIBPMX_MOM_IN_KEYS, nullptr, 0);
    if (ds < 0) {
        const int code = pmx::code_of_mom(ds);
        PMX_ERROR("reg ds fail, ds_id:%d\n", ds);
        PMX_ERROR("libpmx ds register failed, ret:%d\n", code);
        return code;
    }
    int rc = qv_mom_set_ds_opt(g_libpmx_mom_ab, ds, QV_MOM_DS_OPT_SNAPSHOT, kSnapshotOn);
    if (rc != 0) {
        PMX_ERROR("reg ds opt fail, ds_id:%d value:%d ret:%d\n", ds, kSnapshotOn, rc);
        return pmx::code_of_mom(rc);
    }
    g_libpmx_mom.ds = ds;
    rc = qv_mom_reg_single_ds_event(context, ds, QV_MOM_DS_EVENT_ALL_LOADED, libpmx_all_ds_event_cb, nullptr);
    if (rc != 0) {
        PMX_ERROR("get ds enent failed, ret:%d", rc);
        return pmx::code_of_mom(rc);
    }
    PMX_INFO("keys events keys_num:%d", LIBPMX_MOM_IN_KEYS);
    for (int i = 0; i < LIBPMX_MOM_IN_KEYS; ++i) {
        const KeyCallbacks *cb = in.callbacks[i];
        rc = cb != nullptr ? qv_mom_reg_key_event(context, &in.keys[i], QV_MOM_EVENT_ADD, cb->add) : QV_MOM_E_INVAL;
        if (rc != 0) {
            PMX_ERROR("key event add failed, i:%d\n", i);
        } else {
            rc = qv_mom_reg_key_event(context, &in.keys[i], QV_MOM_EVENT_DEL, cb->del);
            if (rc != 0) PMX_ERROR("key event del failed, i:%d\n", i);
        }
        if (rc != 0) {
            PMX_ERROR("libpmx keys event register failed, ret:%d\n", pmx::code_of_mom(rc));
            return pmx::code_of_mom(rc);
        }
    }
    pmx::mom_add_cmds();
    pmx::stats::add_cmds();
    pmx::history::add_cmds();
    pmx::notify_add_cmds();
    pmx::event_add_cmds();
    PMX_INFO("[app_name:%s] data source %d registered", app_name, ds);
    PMX_INFO("mom init success\n");
    return LIBPMX_OK;
}
