/* Local card and port state: who this process's card is (the local identity) and the static
 * attributes of its card type, filled by database change callbacks and, on demand, by
 * synchronous reads.
 *
 * Identity values and attributes are plain 32-bit words, written by the database callback
 * thread and read by any thread without a lock: each field is seen old or new, the six
 * identity fields are not one snapshot. Unknown values are -1. */
#ifndef LIBPMX_PORT_H
#define LIBPMX_PORT_H

#include <stdint.h>

#include "libpmx_errno.h"
#include "libpmx_export.h"
#include "libpmx_hash.h"
#include "libpmx_types.h"

LIBPMX_BEGIN_DECLS

/* Positions in the my-info array: five set by libpmx_cache_set_my_info, six read by
 * libpmx_get_my_info. */
enum {
    LIBPMX_MY_NODE_TYPE = 0,
    LIBPMX_MY_SLOT_ID = 1,
    LIBPMX_MY_CARD_TYPE = 2,
    LIBPMX_MY_NODE_ID = 3,
    LIBPMX_MY_SSLOT_ID = 4,
    LIBPMX_MY_DEV_ID = 5,
    LIBPMX_MY_INFO_NUM = 6,
};

/* Node type of a subcard (p_dev DM_TYPE_SUB_LC): every port of such a card is a subcard port. */
#define LIBPMX_NODE_TYPE_SUB_LC 4

/* Kinds of libpmx_get_card_stattr_info. */
enum {
    LIBPMX_STATTR_MAX_LPORT = 0,
    LIBPMX_STATTR_CHIP_NUM = 1,
    LIBPMX_STATTR_MAX_PORT = 2,
    LIBPMX_STATTR_ALLOC_MODE = 3,
    LIBPMX_STATTR_INTRABAND_CHIP_NUM = 4,
};

/* At load: attributes unknown, card-complete flags of the port state cleared, the local port
 * table empty. The identity is left as it is (unknown at load). Always 0. */
LIBPMX_API int libpmx_port_init(void);
/* At start-up: every panel port offline; 0. */
LIBPMX_API int libpmx_online_port_array_init(void);

/* ---- online and back-plane port state ---- */

/* Panel ports the online-port state holds: 0 to LIBPMX_ONLINE_LPORT_MAX - 1. */
#define LIBPMX_ONLINE_LPORT_MAX 1024
/* Marks a panel port online (non-zero) or offline; 0, or -4 for a port out of range. */
LIBPMX_API int libpmx_port_set_lport_online(int32_t lport, int online);
/* 1 when the panel port is online, else 0 (a port out of range included). */
LIBPMX_API int libpmx_port_lport_is_online(int32_t lport);
/* The card-complete flags, as the completeness record reports them: the local card, the local
 * line card, and every card. */
LIBPMX_API void libpmx_port_set_card_complete(int32_t local_card_complete, int32_t lc_complete,
                                              int32_t all_complete);
LIBPMX_API int libpmx_port_local_card_is_complete(void);
LIBPMX_API int libpmx_port_lc_is_complete(void);
LIBPMX_API int libpmx_port_all_is_complete(void);

/* ---- setters (database change callbacks and the synchronous reads above) ---- */

/* info[0..4]: node_type, slot_id, card_type, node_id (below 1 stored as -1), sslot_id. */
LIBPMX_API void libpmx_cache_set_my_info(const int32_t *info);
LIBPMX_API void libpmx_cache_set_my_chss(int32_t dev_id);
/* Both arrays must be present (eight max ports, four alloc-mode words). */
LIBPMX_API void libpmx_cache_set_card_statt(int32_t max_lport, int32_t chip_num, const int32_t *max_port,
                                            const uint32_t *alloc_mode, int32_t intraband_chip_num,
                                            int32_t virtual_unit_num);

/* ---- synchronous reads of the identity records, stored into the cache ---- */

/* Reads the local identity (database 1, hash) and stores it with libpmx_cache_set_my_info, the
 * sub-slot as 0; info (five values, may be null) receives what was stored. 0 or the read's code. */
LIBPMX_API int libpmx_get_myinfo_from_dp_lib_myinfo(int32_t *info);
/* Reads the own chassis (database 1, hash) and stores its device id with
 * libpmx_cache_set_my_chss; dev_id (may be null) receives it. */
LIBPMX_API int libpmx_get_devid_from_dplib_mychss(int32_t *dev_id);

/* ---- identity getters: flag 0 answers from the cache; any other flag first reads the
 * database while the value is unknown ---- */

/* The six values, in the my-info order, from the cache. */
LIBPMX_API void libpmx_get_my_info(int32_t *out);
LIBPMX_API int32_t libpmx_get_my_node(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_slot(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_sslot(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_node_type(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_card_type(int32_t flag);
LIBPMX_API int32_t libpmx_get_my_dev_id(int32_t flag);
/* Virtual chip units of the local card type; 0 or an error code. */
LIBPMX_API int libpmx_get_my_virtual_unit_num(int32_t *num);

/* ---- card static attributes: plain names may read the database, _ext ones the cache only ---- */

LIBPMX_API int32_t libpmx_get_max_lport_id(void);
LIBPMX_API int32_t libpmx_get_max_lport_id_ext(void);
/* Chip units less the virtual ones. */
LIBPMX_API int32_t libpmx_get_local_chip_num(void);
LIBPMX_API int32_t libpmx_get_local_chip_num_ext(void);
LIBPMX_API int libpmx_get_max_port_by_unit(uint32_t unit, int32_t *max_port);
LIBPMX_API int libpmx_get_max_port_by_unit_ext(uint32_t unit, int32_t *max_port);
LIBPMX_API int libpmx_get_intraband_chip_num(int32_t *num);
LIBPMX_API int libpmx_get_intraband_chip_num_ext(int32_t *num);
/* The four alloc-mode words; read from the database while no chip count is cached. */
LIBPMX_API int libpmx_port_get_lc_modid_alloc_mode(uint32_t *mode4);
/* The worker of the blocking variants: reads the local card type's attributes and writes the
 * one of kind into dst (unit: the unit of kind 2). */
LIBPMX_API int libpmx_get_card_stattr_info(const uint32_t *unit, void *dst, int32_t kind);
/* The process-wide attribute record, as cached (a copy). */
LIBPMX_API void libpmx_get_card_statt(libpmx_card_stattr_t *out);

/* ======================== The local port table ========================
 * The chip ports of the local card (p_dev.unit_cport_info, one record per unit and chip port):
 * libpmx_port_cache maps unit+port to the panel port, and an entry per panel port keeps the
 * port's record; the panel-port count and the online ports come from p_dev.local_port_info,
 * the back-plane ports from the s_cluster records. Under the port-table lock (rank after the
 * split locks); no lock is held across a database read. mode: 0 the table only (-7 on a miss);
 * another mode reads the port's record once on a miss and keeps it. */

/* Empties the table (panel-port count and back-plane range unknown) and registers its debug
 * command; called by libpmx_port_init. Always 0. */
LIBPMX_API int libpmx_port_table_init(void);

/* ---- change entry points (the database callbacks) ---- */

/* Stores (or refreshes) a port: 0; -11 null; -4 a panel port outside the table. A port without
 * a panel port (lport -1) is kept by unit+port only. */
LIBPMX_API int libpmx_port_set_unit_port(const libpmx_port_info_t *info);
/* Forgets a port: 0, or -7 when it was not there. */
LIBPMX_API int libpmx_port_del_unit_port(int32_t unit, int32_t port);
/* The panel-port count and the online panel ports (every other port offline): 0, -11 null. */
LIBPMX_API int libpmx_port_set_local_port_info(int32_t lport_num, const int32_t *online, uint32_t n);
/* The port readiness of a local sub-slot (libpmx_local_card_port_ready): stored (refreshed, a
 * changed card type logged) or, with is_add 0, forgotten. 0; -2 no memory; -11 absent on forget. */
LIBPMX_API int libpmx_port_set_card_port_ready(int32_t sslot, int32_t ready, int32_t card_type, int is_add);
/* The port readiness of a local sub-slot, from the cache: 0 (out, may be null, receives it) or
 * -7. */
LIBPMX_API int libpmx_port_card_port_ready_find(int32_t sslot, libpmx_local_card_port_ready_t *out);
/* The back-plane panel-port range, and one back-plane port's unit and port (is_add 0 forgets it). */
LIBPMX_API void libpmx_port_set_bp_range(uint32_t lport_base, uint32_t lport_num);
LIBPMX_API int libpmx_port_set_bp_lport(uint32_t lport, uint32_t unit, uint32_t port, int is_add);

/* ---- lookups ---- */

/* The record of a chip port, from the table only: 0, -11 null out, -7 not there. */
LIBPMX_API int libpmx_port_portinfo_by_unit_port(int32_t unit, int32_t port, libpmx_port_info_t *out);
/* The panel port of a chip port (a back-plane port's too, from the cached back-plane ports): 0;
 * -11 null out; -7 not a port of this card, or a port without a panel port; the read's code. */
LIBPMX_API int libpmx_get_lport_by_unit_port_detail(int32_t unit, int32_t port, int32_t *lport, int mode);
LIBPMX_API int libpmx_get_lport_by_unit_port(int32_t unit, int32_t port, int32_t *lport);     /* mode 2 */
LIBPMX_API int libpmx_get_lport_by_unit_port_ext(int32_t unit, int32_t port, int32_t *lport); /* mode 0 */
/* The core of the unit that serves a chip port: as above. */
LIBPMX_API int libpmx_get_coreid_by_unit_port_detail(int32_t unit, int32_t port, int32_t *core, int mode);
/* The chip unit and port of a panel port, from the table only: 0, -11, -7. */
LIBPMX_API int libpmx_get_unit_port_by_lport_ext(int32_t lport, int32_t *unit, int32_t *port);
/* The panel-port count of this card: the cached one, else (not yet known) one read of
 * p_dev.local_port_info; -1 when unknown. */
LIBPMX_API int32_t libpmx_get_local_lport_num(void);
/* 1 when the chip port is in the table and takes type 25 in a gphyid: it sits on a virtual unit,
 * or on a power-module unit (the modid type of its unit and core is 2). Caches only. */
LIBPMX_API int libpmx_is_local_virtual_unit_port(int32_t unit, int32_t port);

/* 1 when the panel port lies in the back-plane range; the plain form reads the range
 * (s_cluster.ixn_lport_info) once while it is unknown, _ext uses what is cached. */
LIBPMX_API int libpmx_is_bp_lport(uint32_t lport);
LIBPMX_API int libpmx_is_bp_lport_ext(uint32_t lport);
/* The unit and port behind a back-plane panel port: the table, else (mode not 0) one read of
 * s_cluster.ixn_lport_to_upt, kept. 0, -11 null, -7. */
LIBPMX_API int libpmx_get_bp_unit_port_by_lport(uint32_t lport, uint32_t *unit, uint32_t *port, int mode);

/* ---- subcard port queries ---- */

/* The subcard type and scid of a chip port of this card: 0 and 0 for a port of the card itself
 * (owned by this card's type, on a card that is no subcard), else the owning subcard type and
 * its scid
 * (libpmx_get_scid_with_subcard_type with mode). 0; -11 null out; -7 not a port of this card or
 * no scid; -4 this card's type unknown. Outputs written only on success. */
LIBPMX_API int libpmx_get_subcard_type_scid_by_unit_port(int32_t unit, int32_t port, int32_t *subcard_type,
                                                         int32_t *scid, int mode);
LIBPMX_API int libpmx_get_scid_by_unit_port(int32_t unit, int32_t port, int32_t *scid, int mode);

/* Every port of the table in panel-port order (unit, port, lport, core, unit type, card type,
 * online), then the ports without a panel port, the counts and the back-plane range. */
LIBPMX_API void libpmx_dump_port_table(void);

LIBPMX_END_DECLS

#endif /* LIBPMX_PORT_H */
