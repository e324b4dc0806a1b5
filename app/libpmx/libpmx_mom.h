/* Database access: plain, hash and waiting reads of the object database, block records of
 * long waits, the typed record getters, and the library's data-source registration.
 *
 * Every read uses the calling thread's own database context (the thread must have attached
 * to the database client) and takes no lock of this library. A waiting read retries every
 * 0.1 s while the record is absent, up to "max-block-times" sleeps; a thread whose wait
 * reached that limit is barred from waiting for 10 seconds. */
#ifndef LIBPMX_MOM_H
#define LIBPMX_MOM_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include "libpmx_errno.h"
#include "libpmx_export.h"
#include "libpmx_hash.h"
#include "libpmx_types.h"
#include "p_dev.pb-c.h"
#include "qv_mom.h"

LIBPMX_BEGIN_DECLS

/* Databases of the library's records. */
#define LIBPMX_DB_CLUSTER 0 /* cluster back-plane records */
#define LIBPMX_DB_DEV 1     /* device and card records */
#define LIBPMX_DB_PMX 26    /* interface, port, module, sub-interface and card-address tables */

/* Sleep between the attempts of a waiting read, and how long a barred thread stays barred. */
#define LIBPMX_BLOCK_INTERVAL_US 100000
#define LIBPMX_BLOCK_BAR_SECONDS 10
/* Block records kept, and the wait (in sleeps) above which a wait under the limit is kept. */
#define LIBPMX_BLOCK_RECORDS_MAX 10
#define LIBPMX_BLOCK_RECORD_SLEEPS 1500
/* op of a waiting read that waits; any other makes it a single attempt. */
#define LIBPMX_READ_WAIT 2

/* A caller's decoder: copies what it needs from reply (the record object of a plain read,
 * the value of a hash reply) into out. Its result is the read's result. */
typedef int (*libpmx_db_decode_fn)(const void *reply, void *out);

/* ---- reads ---- */

/* One plain read: 0 or the decoder's result; -20 no context or connection; -7 absent; -11
 * failed read. */
LIBPMX_API int libpmx_get_info_from_db(const qv_mom_key_t *key, int db, libpmx_db_decode_fn decode,
                                       void *out);
/* One read of a hash record with all its fields; results as above. */
LIBPMX_API int libpmx_hget_info_from_db(const qv_mom_key_t *key, int db, libpmx_db_decode_fn decode,
                                        void *out);
/* Scans every stored record of a kind in db (plain or hash), handing each to match until one
 * gives 0: 0, -7 when none did, -20 no context or connection, -11 failed scan. No wait: a scan
 * names no key that could appear. */
LIBPMX_API int libpmx_scan_info_from_db(const ProtobufCMessageDescriptor *record, int db,
                                        libpmx_db_decode_fn match, void *out);
/* Reads (hash when use_hash) and, when op is 2 and the thread may wait, retries every 0.1 s
 * while the read fails with anything but -20. The result of the last read. */
LIBPMX_API int libpmx_getinfo_from_db_with_block(const qv_mom_key_t *key, int db, int use_hash,
                                                 libpmx_db_decode_fn decode, void *out, int op);

/* This thread's no-block mark: set it to !can, read it. */
LIBPMX_API void libpmx_set_can_block_to_read_db(int can);
LIBPMX_API int libpmx_no_block_to_read_db(void);
/* Arms the 10-second timer that clears this thread's mark; 0, or -11 without a context.
 * The timer is on the calling thread's own timer master (from qv_mom_thread_attach) and fires
 * only while that thread runs the master's loop (qv_thread_master_run, _run_for, or an event
 * loop of its own on it). A thread that never runs its loop stays barred until it calls
 * libpmx_set_can_block_to_read_db(1) itself: its waiting reads stay single attempts. */
LIBPMX_API int libpmx_block_timer(void);

/* Block records (debug commands "dump_block_info" and "clear_block_info"). */
LIBPMX_API void libpmx_dump_block_info(void);
LIBPMX_API void libpmx_clear_block_info(void);
/* Formats a time as "%Y-%m-%d %H:%M:%S %06ld " (local time), cut at size; 0 or -11. */
LIBPMX_API int libpmx_format_timeval(const struct timeval *tv, char *buf, size_t size);
/* Debug command "set_block_times": "times=%d (>0)". */
LIBPMX_API int libpmx_dbg_cmd_set_block_times(const char *args);

/* ---- the library's data source ---- */

/* The library's database state. */
typedef struct libpmx_mom_ctx {
    int32_t ds; /* the data source of the subscribed records, -1 before registration */
} libpmx_mom_ctx_t;
LIBPMX_API extern libpmx_mom_ctx_t g_libpmx_mom;
/* The library's own database client handle (a qv_mom_ab_t), made once per process. */
LIBPMX_API extern qv_mom_ab_t *g_libpmx_mom_ab;

/* Number of records the library subscribes to. */
#define LIBPMX_MOM_IN_KEYS 16

/* Registers the data source of the subscribed records and its options; 0 or the negative
 * code of the failing registration. */
LIBPMX_API int libpmx_mom_init(void *glb, const char *app_name);
/* The key descriptors of the subscribed records, in their fixed order. */
LIBPMX_API const qv_mom_key_desc_t *libpmx_mom_in_keys(void);

/* What the change callbacks do to the caches: applies one added or changed (event 0) or deleted
 * (event 1) record of a followed kind to the cache of its owner (interface table, sub-interface
 * caches, module table, card ids, card info, local identity and port table, back-plane ports;
 * a physical port of a split port, count above 1, to the split maps). A deleted module table
 * takes its slot's ids back; a deleted identity or card address changes nothing. 0; -4 a kind
 * the library does not follow; -11 null; else the owner's code. */
LIBPMX_API int libpmx_mom_record_apply(const ProtobufCMessage *record, int event);

/* The change callbacks of the subscribed records, in the order of the in-keys. Each applies the
 * record to its owner's cache (libpmx_mom_record_apply), raises the ready bits its record
 * completes and queues the events of the timed delivery. context is the database event thread's
 * record; event is QV_MOM_EVENT_ADD (added or changed) or QV_MOM_EVENT_DEL. */
LIBPMX_API void libpmx_mom_my_info_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_local_port_info_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_unit_port_cb(void *context, int event, const ProtobufCMessage *key,
                                        const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_card_stattr_cb(void *context, int event, const ProtobufCMessage *key,
                                          const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_dplib_complete_cb(void *context, int event, const ProtobufCMessage *key,
                                             const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_card_info_cb(void *context, int event, const ProtobufCMessage *key,
                                        const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_local_card_port_ready_cb(void *context, int event, const ProtobufCMessage *key,
                                                    const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_bp_lport_info_cb(void *context, int event, const ProtobufCMessage *key,
                                            const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_bp_lport_tbl_cb(void *context, int event, const ProtobufCMessage *key,
                                           const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_ifx_tbl_add_cb(void *context, int event, const ProtobufCMessage *key,
                                          const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_ifx_tbl_del_cb(void *context, int event, const ProtobufCMessage *key,
                                          const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_sub_ap_intf_add_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_sub_ap_intf_del_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_sub_route_intf_add_cb(void *context, int event, const ProtobufCMessage *key,
                                                 const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_sub_route_intf_del_cb(void *context, int event, const ProtobufCMessage *key,
                                                 const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_phy_tbl_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_mod_tbl_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_card_address_id_cb(void *context, int event, const ProtobufCMessage *key,
                                              const ProtobufCMessage *record);
LIBPMX_API void libpmx_mom_my_chss_cb(void *context, int event, const ProtobufCMessage *key,
                                      const ProtobufCMessage *record);
/* The data source's "all loaded" event (event 1): serves the first type-1 hook, then raises the
 * ready bit of type 1 and dispatches types 2, 3 and 4. */
LIBPMX_API void libpmx_all_ds_event_cb(void *context, int ds, int event, void *arg);

/* ---- notify hooks: a module learns that the data it needs is ready ----
 *
 * Ready bits: bit t of g_libpmx_notify_flag is the ready bit of notify type t; bits are only
 * ever set. A type is dispatched once all the bits of its mask are set:
 *   1 all data sources loaded (mask 0x2)         5 the local module id known (0x20)
 *   2 local card complete (0x6)                  6 the local identity known (0x40)
 *   3 local line card complete (0x2a)            7 the own chassis known (0x80)
 *   4 every card complete (0x32)                 8 a chip slot changed (always; per slot)
 * A hook of types 1 to 7 runs once: at registration when its type is ready already, else at
 * the dispatch that finds its bits set; hooks of one type run in registration order. Hooks of
 * type 8 stay and run for every module-table change. Hooks run in the thread that raised the
 * bit (the database event thread) or in the registering thread, with no lock of the library
 * held: a hook may query and register. */
#define LIBPMX_NOTIFY_DS_ALL_EVENT 1
#define LIBPMX_NOITFY_CARD_EVENT 2
#define LIBPMX_NOTIFY_LC_EVENT 3
#define LIBPMX_NOTIFY_GLOBAL_EVENT 4
#define LIBPMX_NOTIFY_LMODID_EVENT 5
#define LIBPMX_NOTIFY_MYINFO_EVENT 6
#define LIBPMX_NOTIFY_MYCHSS_EVENT 7
#define LIBPMX_NOTIFY_CHIPSLOT_EVENT 8

/* The ready word; read and or-ed atomically, never cleared. */
LIBPMX_API extern uint32_t g_libpmx_notify_flag;

/* Registers hook for a notify type: 0, or -11 for a null hook or a failed allocation. A type that
 * is ready already is dispatched before the call returns; a new type-8 entry is also called at
 * once for every chip slot whose module ids are allocated (event 0, the slot's record as arg). */
LIBPMX_API int libpmx_notify_reg(int type, libpmx_notify_hook_fn hook);
/* Not supported: a module that registered cannot withdraw. Always -11. */
LIBPMX_API int libpmx_notify_unreg(int type);
/* Dispatches type in the calling thread when its ready bit is set: 1 then, else 0. */
LIBPMX_API int libpmx_notify_check_ready(int type);
/* Calls the hooks of type with (context, type, event, arg) when every bit of its mask is set. */
LIBPMX_API void libpmx_notify_handle(void *context, int type, int event, void *arg);
/* The name of a notify type ("LIBPMX_NOTIFY_LC_EVENT"), "" for a type outside 1 to 8. */
LIBPMX_API const char *libpmx_notify_name(int type);
/* Debug command "dump_notify": which of types 1 to 7 are ready, and the hooks waiting. */
LIBPMX_API void libpmx_dump_notify_ready(void);

/* ---- readiness of cards and sub-slots ---- */

/* 1 when the local card-port-ready cache holds the sub-slot key (a local sub-slot whose port
 * readiness record arrived), else 0. dev and slot are not used: the cache is this card's. */
LIBPMX_API int libpmx_check_sslot_ready(int dev, int slot, int key);
/* Blocks until the status is complete, the thread's bar on waiting lifted first. 0 or 1: the
 * sub-slot's port-readiness record exists (0) or says its ports are ready (1); 2: the local card
 * is complete; 3 and any other status are not waited for and give 0 at once. 0, or the wait's
 * code. */
LIBPMX_API int libpmx_block_device_status(int dev, int slot, int sslot, int complete_status);
/* Waits (op 2, the bar lifted first) until the completeness record says the local card is
 * complete; 0 or the read's code. */
LIBPMX_API int libpmx_get_lc_ready_with_block(void);

/* ---- timed delivery of sub-slot, sub-interface and record events ----
 *
 * A module registers for kinds of events and a delay. The change callbacks queue each event for
 * every registration that asked for its kind; a one-shot timer on the database event thread
 * delivers the queue delay milliseconds after its first event, in one call of the module's
 * function, on that thread. Rules:
 *   - events of one key (a sub-slot, an interface, a record key) keep their order;
 *   - a burst of sets of one key between two deliveries becomes one set with the last value,
 *     at the place of the first;
 *   - a delete is never merged with a set: a delete then a set arrive as a delete then a set;
 *     repeated deletes of one key become one;
 *   - events of different keys keep the order in which they arrived.
 * Events queued by a thread without a timer master (no database context) are delivered at once
 * in that thread. */
#define LIBPMX_EVENT_SSLOT 0x1u     /* a local sub-slot's port readiness (p_dev.local_card_port_ready) */
#define LIBPMX_EVENT_CARD 0x2u      /* the card in a dev/slot/sslot (p_dev.card_info) */
#define LIBPMX_EVENT_SUB_AP 0x4u    /* a sub-AP interface (u_intf.pmx_sub_ap_intf) */
#define LIBPMX_EVENT_SUB_ROUTE 0x8u /* a sub-route interface (u_intf.pmx_sub_route_intf) */
#define LIBPMX_EVENT_RECORD 0x10u   /* any followed record applied to the caches */
#define LIBPMX_EVENT_ALL 0x1fu
/* op of an event. */
#define LIBPMX_EVENT_SET 0 /* added or changed */
#define LIBPMX_EVENT_DEL 1 /* deleted */

typedef struct libpmx_event_slot {
    int32_t dev; /* SSLOT: this card's dev and slot */
    int32_t slot;
    int32_t sslot;
    int32_t card_type;
    int32_t ready; /* SSLOT: non-zero when the sub-slot's ports are ready; CARD: 1 */
} libpmx_event_slot_t;

typedef struct libpmx_event {
    uint32_t kind; /* one LIBPMX_EVENT_* kind */
    int32_t op;    /* LIBPMX_EVENT_SET or LIBPMX_EVENT_DEL */
    union {
        libpmx_event_slot_t slot;          /* SSLOT, CARD */
        libpmx_sub_ap_info_t sub_ap;       /* SUB_AP */
        libpmx_sub_route_info_t sub_route; /* SUB_ROUTE */
    } u;
    /* RECORD: the record's full name, its key and the record in compact form ("" for the key of
     * a singleton); valid during the call only. Null for the other kinds. */
    const char *record;
    const char *key;
    const char *text;
} libpmx_event_t;

/* Called with the events of one delivery, in order; events is valid during the call only. */
typedef void (*libpmx_event_fn)(const libpmx_event_t *events, uint32_t n, void *arg);

/* Registers fn for the kinds (LIBPMX_EVENT_* bits) with a delivery delay in milliseconds (0: as
 * soon as the event thread is idle). The registration id (> 0), -11 for a null fn or no kind, -4
 * a delay above 60000, -2 without memory. */
LIBPMX_API int libpmx_event_register(uint32_t kinds, libpmx_event_fn fn, void *arg, uint32_t delay_ms);
/* Drops a registration and its queued events: 0, or -7 for an unknown id. A delivery under way in
 * the event thread finishes first unless this is called from inside it: do not call it while
 * holding a lock that the registration's fn takes. */
LIBPMX_API int libpmx_event_unregister(int id);
/* Queues one event for the registrations of its kind (the change callbacks call it). */
LIBPMX_API void libpmx_event_post(void *context, const libpmx_event_t *event);
/* Events queued and not yet delivered, over every registration. */
LIBPMX_API uint32_t libpmx_event_pending(void);

/* Sets up the timed event delivery at load; 0. */
LIBPMX_API int libpmx_event_list_init(void);

/* ---- the record catalogue: every record kind the library reads or follows ---- */

/* Where a record kind lives and how the library reads it. */
typedef struct libpmx_record_kind {
    const ProtobufCMessageDescriptor *record; /* the record message */
    const ProtobufCMessageDescriptor *key;    /* its key message; the record itself for a singleton */
    int32_t db;                               /* database number */
    uint8_t hash;                             /* 1: a hash record read with all its fields; 0: plain */
    uint8_t waits;                            /* 1: its reads may wait (op 2) while it is absent */
    uint8_t followed;                         /* 1: the library subscribes to its changes */
} libpmx_record_kind_t;

/* The kind of a record full name ("u_intf.pmx_ifx_tbl"), or null when the library does not read
 * it. */
LIBPMX_API const libpmx_record_kind_t *libpmx_record_kind_find(const char *full_name);
/* The i-th kind of the catalogue, followed kinds first in their subscription order; null past
 * the end. */
LIBPMX_API const libpmx_record_kind_t *libpmx_record_kind_at(uint32_t i);

/* ---- typed record getters: one record kind each, pure reads that hand back what they decode.
 * Failures are logged with the record and its key (absence as a warning) and returned. ---- */

/* Local panel ports (database 1, hash): the port count, and up to capacity online ports. */
LIBPMX_API int libpmx_get_local_port_from_localport_info(int32_t *lport_num, int32_t *online,
                                                         uint32_t capacity, uint32_t *online_num);
/* Completeness (database 1, hash): type 0 the local card, 1 the line cards, 2 all; another
 * type gives 0. */
LIBPMX_API int libpmx_get_dplib_complete_status(int type, unsigned char *status);
/* Unbounded waits, polling every 0.1 s (one read and one sleep a pass, the sleep taken also on
 * the pass that sees the flag), both ended at once when the local port state says the line cards
 * are complete: until the completeness record says so; until every card type's static attributes
 * are published (p_dev.dm_stattr_complete). */
LIBPMX_API void libpmx_block_for_ndm_complete(void);
LIBPMX_API void libpmx_block_for_ndm_complete_stattr(void);
/* Whether every card type's static attributes are published (database 1, hash); 0 unknown. */
LIBPMX_API void libpmx_get_dm_stattr_complete(unsigned char *complete);

/* Decoder of a p_dev.dm_card_stattr_t record into a libpmx_card_stattr_t: max_lport_id the
 * highest lport over the port attributes of every chip (-1 when none), chip_num, max_port[u]
 * the highest port of unit u (ports of units above 7 ignored), alloc_mode the four words of
 * chipid_card_mode (zeros when absent), intraband_chip_num the switch count, virtual_unit_num
 * the virtual chip count. 0, or -11 for a null argument. */
LIBPMX_API int libpmx_dmcard_stattr_decode(const void *reply, void *out);
/* The unit ports of a card type's static attributes into the global sub-port table (each chip
 * port's panel port, on the card itself): 0, or -11 for a null record or index. */
LIBPMX_API int libpmx_dmcard_stattr_parse_unit_port(const PDev__DmCardStattrT *r);
/* Static attributes of a card type (database 1, plain), once the database reports them
 * complete (retrying every 0.1 s, bounded like a waiting read). */
LIBPMX_API int libpmx_get_lc_card_stattr(int32_t card_type, libpmx_card_stattr_t *out);
/* Chip unit and port of panel port lport of a card type; -7 when the type has no such port. */
LIBPMX_API int libpmx_get_static_port_from_dmcard_stattr(int32_t card_type, int32_t lport,
                                                         int32_t *unit, int32_t *port);
/* Panel port of a card type's chip unit and port (a subcard type lists its ports on the host's
 * units). When that chip port is not listed, the nearest listed port below it on the unit
 * answers (the lanes of a break-out port). listed_port receives the chip port that answered;
 * -7 when the type lists no port at or below it on the unit. */
LIBPMX_API int libpmx_get_lport_from_dmcard_stattr(int32_t card_type, int32_t unit, int32_t port,
                                                   int32_t *lport, int32_t *listed_port);
/* The number of sub-slots of a card type. */
LIBPMX_API int libpmx_get_sub_slot_num_from_dmcard_stattr(int32_t card_type, int32_t *num);
/* The power-supply attribute of a card type (0 or 1). */
LIBPMX_API int libpmx_get_power_supply_from_dmcard_stattr(int32_t card_type, int32_t *power_supply);
/* The number of virtual chip units of a card type. */
LIBPMX_API int libpmx_get_virtual_unit_num_by_card_type(int32_t card_type, int32_t *num);

/* The interface record of ifx and the physical-port record of phyid (database 26, hash, op). */
LIBPMX_API int libpmx_get_info_from_pmx_ifx_tbl(uint32_t ifx, libpmx_intf_info_t *info, int op);
LIBPMX_API int libpmx_get_info_from_pmx_phy_tbl(uint32_t phyid, libpmx_intf_info_t *info, int op);
/* Sub-AP and sub-route records of ifx (database 26, plain, op). */
LIBPMX_API int libpmx_get_sub_ap_info_from_db(uint32_t ifx, libpmx_sub_ap_info_t *out, int op);
LIBPMX_API int libpmx_get_sub_route_info_from_db(uint32_t ifx, libpmx_sub_route_info_t *out, int op);

/* Decoder of a u_intf.pmx_mod_tbl record into a libpmx_mod_tbl_info_t: the slot of its index,
 * status, gslot and card type as stored, node_type 0 (the table carries none), fuid_num the
 * number of unit entries, and the first 8 entries with at most 16 module ids each. 0, or -11 for
 * a null argument. */
LIBPMX_API int libpmx_mod_tbl_decode(const void *reply, void *out);
/* The module table that lists modid (database 26, hash): found by a scan of the module tables,
 * then read by its key with a waiting read (op 2) and handed to decode. -7 when no table lists
 * the modid: module tables are keyed by slot, so an unlisted modid names no key to wait for. */
LIBPMX_API int libpmx_get_info_from_pmx_mod_tbl(int32_t modid, libpmx_db_decode_fn decode, void *out);
/* The module table of a slot (database 26, hash) handed to decode: the valid variant waits
 * (op 2) and hands on only a table whose module ids are allocated (-7 otherwise); the other
 * waits with the caller's op. */
LIBPMX_API int libpmx_get_info_from_pmx_vaild_mod_tbl(int32_t dev, int32_t slot, int32_t sslot,
                                                      libpmx_db_decode_fn decode, void *out);
LIBPMX_API int libpmx_get_mod_tbl_from_dev_slot_sslot(int32_t dev, int32_t slot, int32_t sslot,
                                                      libpmx_db_decode_fn decode, void *out, int op);

/* Chip unit and port of a local panel port (database 1, plain). */
LIBPMX_API int libpmx_get_info_from_lport(int32_t lport, int32_t *unit, int32_t *cport);
/* Panel port, and unit type (0 physical, 1 logical), of a local unit and chip port
 * (database 1, plain); -7 when the port has no panel port. */
LIBPMX_API int libpmx_get_info_from_unit_port(int32_t unit, int32_t cport, int32_t *lport);
LIBPMX_API int libpmx_get_unit_type_from_unit_port(int32_t unit, int32_t cport, int32_t *unit_type);
/* The record of a local chip port (database 1, plain), decoded into a libpmx_port_info_t (lport
 * -1 when the record has no static attributes). */
LIBPMX_API int libpmx_get_port_info_from_unit_port(int32_t unit, int32_t cport, libpmx_port_info_t *info);
/* Decoder of a p_dev.unit_cport_info record into a libpmx_port_info_t; 0 or -11. */
LIBPMX_API int libpmx_unit_cport_info_decode(const void *reply, void *out);
/* Unit and port behind a back-plane panel port, and the back-plane port range (database 0,
 * plain). */
LIBPMX_API int libpmx_get_info_from_ixnlporttoupt(uint32_t lport, uint32_t *unit, uint32_t *port);
LIBPMX_API int libpmx_get_info_from_ixn_lport_info(uint32_t *lport_base, uint32_t *lport_num);
/* Card id of a card type and subcard type (database 26, plain, op). */
LIBPMX_API int libpmx_get_cid_from_db(int32_t card_type, int32_t subcard_type, int32_t *cid, int op);
/* Card type of the card in dev/slot/sslot (database 1, hash, op). */
LIBPMX_API int libpmx_get_card_type_from_db(int32_t dev, int32_t slot, int32_t sslot, int32_t *card_type,
                                            int op);
/* Waits (op 2, the bar lifted first) for the sub-slot's port-readiness record: with
 * complete_status 0 until the record exists, with 1 until it also says the ports are ready. */
LIBPMX_API int libpmx_get_subcard_ready_with_block(int32_t dev, int32_t slot, int32_t sslot,
                                                   int32_t complete_status);

LIBPMX_END_DECLS

#endif /* LIBPMX_MOM_H */
