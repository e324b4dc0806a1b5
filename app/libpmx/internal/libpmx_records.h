// The record catalogue (internal): the one place that says, for every record kind the library
// reads or follows, its key message, its database, whether it is a hash or a plain record,
// whether its reads wait, and whether the library subscribes to it.
//
// Adding a record kind: its messages in the .proto, one line here, its decoder beside the getter
// that reads it. The typed getters, the data source's in-keys, the pmx tool (through
// libpmx_record_kind_find) and the table of docs/database.md (checked by a test) follow.
#ifndef LIBPMX_RECORDS_H
#define LIBPMX_RECORDS_H

#include "libpmx_mom.h"

// X(id, record message, key message, database, form, reads, subscription). Followed kinds come
// first, in the order of the data source's in-keys; a singleton names its record as its key.
#define LIBPMX_RECORDS(X)                                                                                   \
    X(MY_INFO, p_dev__dp_lib_my_info, p_dev__dp_lib_my_info, LIBPMX_DB_DEV, HASH, ONCE, FOLLOWED)           \
    X(LOCAL_PORT_INFO, p_dev__local_port_info, p_dev__local_port_info, LIBPMX_DB_DEV, HASH, ONCE, FOLLOWED) \
    X(UNIT_CPORT_INFO, p_dev__unit_cport_info, p_dev__unit_cport_index, LIBPMX_DB_DEV, PLAIN, ONCE,        \
      FOLLOWED)                                                                                             \
    X(CARD_STATTR, p_dev__dm_card_stattr_t, p_dev__dm_card_stattr_index, LIBPMX_DB_DEV, PLAIN, ONCE,       \
      FOLLOWED)                                                                                             \
    X(DPLIB_COMPLETE, p_dev__dp_lib_complete, p_dev__dp_lib_complete, LIBPMX_DB_DEV, HASH, ONCE, FOLLOWED)  \
    X(CARD_INFO, p_dev__card_info, p_dev__card_info_index, LIBPMX_DB_DEV, HASH, WAITS, FOLLOWED)            \
    X(LOCAL_CARD_PORT_READY, p_dev__local_card_port_ready, p_dev__local_card_info_index, LIBPMX_DB_DEV,     \
      PLAIN, WAITS, FOLLOWED)                                                                               \
    X(IXN_LPORT_INFO, s_cluster__ixn_lport_info, s_cluster__ixn_lport_info, LIBPMX_DB_CLUSTER, PLAIN,       \
      ONCE, FOLLOWED)                                                                                       \
    X(IXN_LPORT_TO_UPT, s_cluster__ixn_lport_to_upt, s_cluster__ixn_lport_to_upt_index, LIBPMX_DB_CLUSTER,  \
      PLAIN, ONCE, FOLLOWED)                                                                                \
    X(IFX_TBL, u_intf__pmx_ifx_tbl, u_intf__ifx_index, LIBPMX_DB_PMX, HASH, WAITS, FOLLOWED)                \
    X(SUB_AP_INTF, u_intf__pmx_sub_ap_intf, u_intf__ifx_index, LIBPMX_DB_PMX, PLAIN, WAITS, FOLLOWED)       \
    X(SUB_ROUTE_INTF, u_intf__pmx_sub_route_intf, u_intf__ifx_index, LIBPMX_DB_PMX, PLAIN, WAITS, FOLLOWED) \
    X(PHY_TBL, u_intf__pmx_phy_tbl, u_intf__phy_index, LIBPMX_DB_PMX, HASH, WAITS, FOLLOWED)                \
    X(MOD_TBL, u_intf__pmx_mod_tbl, u_intf__mod_index, LIBPMX_DB_PMX, HASH, WAITS, FOLLOWED)                \
    X(CARD_ADDRESS_ID, u_intf__pmx_card_address_id, u_intf__card_address_id_index, LIBPMX_DB_PMX, PLAIN,    \
      WAITS, FOLLOWED)                                                                                      \
    X(MY_CHSS, p_dev__dp_lib_my_chss, p_dev__dp_lib_my_chss, LIBPMX_DB_DEV, HASH, ONCE, FOLLOWED)           \
    X(DM_STATTR_COMPLETE, p_dev__dm_stattr_complete, p_dev__dm_stattr_complete, LIBPMX_DB_DEV, HASH, WAITS, \
      READ_ONLY)                                                                                            \
    X(LPORT_INFO, p_dev__lport_info, p_dev__lport_index, LIBPMX_DB_DEV, PLAIN, ONCE, READ_ONLY)

namespace pmx
{

enum class Record : uint32_t {
#define PMX_RECORD_ID(id, ...) id,
    LIBPMX_RECORDS(PMX_RECORD_ID)
#undef PMX_RECORD_ID
        COUNT
};

// The catalogue entry of a kind.
const libpmx_record_kind_t &record_kind(Record id);

// Reads one record of a kind by its key message (the record's own empty message for a
// singleton): a waiting read with op for a kind whose reads wait, one attempt otherwise. A
// failure is logged under func with the record and its key, absence as a warning.
int read_record(const char *func, Record id, const ProtobufCMessage *key, libpmx_db_decode_fn decode,
                void *out, int op);

// A record handed over as a message or a read reply, as its generated type.
template <typename Rec> const Rec *record_as(const void *m)
{
    return static_cast<const Rec *>(m);
}

// Decoders that the typed getters and the change appliers share: interface and physical-port
// records into a libpmx_intf_info_t, sub-interface records into their cache records (all but the
// ifx, which is the key's), a card record into its card type.
int decode_ifx_tbl(const void *reply, void *out);
int decode_phy_tbl(const void *reply, void *out);
int decode_sub_ap_intf(const void *reply, void *out);
int decode_sub_route_intf(const void *reply, void *out);
int decode_card_type_of_card_info(const void *reply, void *out);

// The local identity as the synchronous read gives it: node_type, slot_id, card_type, node_id,
// and the sub-slot as 0 (only the change callback stores the record's sub-slot).
int read_my_info(int32_t info[5]);
// The device id of the own chassis.
int read_my_chss(int32_t *dev_id);

} // namespace pmx

#endif // LIBPMX_RECORDS_H
