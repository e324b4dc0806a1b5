/* Interface identities: the interface table (one node per interface with the identities of its
 * port, chained by ifx and by gphyid), the card and subcard ids, and the sub-AP and sub-route
 * caches.
 *
 * The interface table and both id caches are guarded by one process-wide reader-writer lock,
 * the interface-table lock: lookups, walks and dumps read, changes write, and no database or
 * capability read is made while it is held. The two hottest lookups, ifx -> gphyid and gphyid
 * -> ifx, first read their answer without the lock and keep it only when no change held the
 * lock meanwhile; otherwise they ask again under the read lock, so their answers are those a
 * read under the lock gives. The read mode of the lookups (cache_op, flag): 0
 * answers from the caches only (-7 when not there); any other value is passed unchanged to the
 * database read of the record on a miss (1 reads once, 2 reads and waits). */
#ifndef LIBPMX_INTF_H
#define LIBPMX_INTF_H

#include <stdint.h>

#include "libpmx_export.h"
#include "libpmx_hash.h"
#include "libpmx_types.h"

LIBPMX_BEGIN_DECLS

/* Number of chains of each index. */
#define LIBPMX_INTF_CHAINS 64

/* Types of a phyid (its top 8 bits). */
#define LIBPMX_PHYID_GLOBAL 7     /* cid bits 19-23, modid bits 8-18, chip port bits 0-7 */
#define LIBPMX_PHYID_LOCAL 8      /* scid bits 16-23, unit bits 8-15, chip port bits 0-7 */
#define LIBPMX_PHYID_BACKPLANE 18 /* unit bits 10-15, chip port bits 0-9 */
#define LIBPMX_PHYID_SUB_ROUTE 19 /* ifx of the sub-route interface in bits 0-23 */
#define LIBPMX_PHYID_SUB_AP 20    /* ifx of the sub-AP interface in bits 0-23 */
#define LIBPMX_PHYID_POWER 25     /* as type 7, for power-module and local virtual-unit ports */
#define LIBPMX_PHYID_TUNNEL 32

/* Orders of libpmx_dump_ifx_tbl_ordered_by. */
#define LIBPMX_INTF_ORDER_IFX 0
#define LIBPMX_INTF_ORDER_GPHYID 1
#define LIBPMX_INTF_ORDER_DEV_SLOT 2 /* dev, slot, sslot, lport */

/* At load: the 64 + 64 empty chains, their index and the debug commands of the interface
 * subsystem; a later call does nothing. Always 0: without memory for the index the chains alone
 * answer (same answers, slower). */
LIBPMX_API int libpmx_intf_init(void);

/* ======================== Interface table ======================== */

/* The index beside the chains: on (the default) finds a node by ifx or gphyid in O(1); off
 * leaves the chains alone to answer, with the same answers. Turning it on builds it from the
 * chains under the write lock: 0, or -2 without memory (the chains keep answering). */
LIBPMX_API int libpmx_intf_index_enable(int on);

/* Adds or updates the node of info->ifx: 0; -11 for a null info; -2 no memory. A gphyid of
 * 0xFFFFFFFF (a management port) is refused with a warning and nothing is stored (0). The update
 * and the allocation are one hold of the write lock, so two adds of one new ifx make one node. */
LIBPMX_API int libpmx_add_intf_node(const libpmx_intf_info_t *info);
/* Under the write lock: logs every other node holding info's gphyid (a conflict; both stay),
 * then moves the node of info's ifx to the tail of its chains with info's contents. 1 when a
 * node was updated, 0 when no node has the ifx, -11 for a null info. */
LIBPMX_API int libpmx_update_intf_ifx_list(const libpmx_intf_info_t *info);
/* Appends a new node without looking for one of the same ifx (callers go through add): 0, -2
 * no memory, -11 null info. */
LIBPMX_API int libpmx_alloc_intf_node(const libpmx_intf_info_t *info);
/* Unlinks and frees the node of ifx: 0, or -7 when there is none. */
LIBPMX_API int libpmx_del_intf_node(uint32_t ifx);

/* A copy of the node of ifx: 0, -7 absent, -11 null info. Table only. */
LIBPMX_API int libpmx_get_intf_node_by_ifx(uint32_t ifx, libpmx_intf_info_t *info);

/* The gphyid of ifx. *gphyid is set to 0 first; a cached gphyid of 0 counts as absent. 0; -11
 * null out; -4 ifx 0; -7 not in the table with cache_op 0; else the result of the database read
 * of u_intf.pmx_ifx_tbl, whose value is not put into the table. */
LIBPMX_API int libpmx_get_phyid_by_ifx_detail(uint32_t ifx, uint32_t *gphyid, int cache_op);
LIBPMX_API int libpmx_get_phyid_by_ifx(uint32_t ifx, uint32_t *gphyid);        /* cache_op 2 */
LIBPMX_API int libpmx_get_phyid_by_ifx_ext(uint32_t ifx, uint32_t *gphyid);    /* cache_op 0 */
LIBPMX_API int libpmx_get_phyid_by_ifx_ext_db(uint32_t ifx, uint32_t *gphyid); /* cache_op 1 */

/* The ifx of the first node (in chain order: the older) whose gphyid is phyid. 0; -11 null
 * out; -7 phyid 0, not in the table with cache_op 0, or not read from u_intf.pmx_phy_tbl. */
LIBPMX_API int libpmx_get_ifx_by_phyid_detail(uint32_t phyid, uint32_t *ifx, int cache_op);
LIBPMX_API int libpmx_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx);     /* cache_op 2 */
LIBPMX_API int libpmx_get_ifx_by_phyid_ext(uint32_t phyid, uint32_t *ifx); /* cache_op 0 */

/* The ifx of phyid, waiting for the database as long as it takes. The table first; a miss
 * takes only a type-7 or type-25 phyid (else -7 at once), whose module and port must name a
 * card whose cid is the phyid's cid field (libpmx_get_cid_by_modid_port, flag 2; else -11);
 * then u_intf.pmx_phy_tbl is read every 100 ms until it answers. The check of the cid is what
 * keeps the wait for ports of cards that are really present: there is no upper bound. */
LIBPMX_API int libpmx_get_ifx_by_phyid_block_detail(uint32_t phyid, uint32_t *ifx);
LIBPMX_API int libpmx_get_ifx_by_phyid_block(uint32_t phyid, uint32_t *ifx);

/* Whether phyid's type (top 8 bits) is type; whether it is a port: types 7, 8, 18, 19, 25. */
LIBPMX_API int libpmx_is_phyid_fit(uint32_t phyid, uint32_t type);
LIBPMX_API int libpmx_is_physical_port(uint32_t phyid);

/* Dumps to the debug output, one aligned row per node (hex phyids) and the total. The copies
 * are taken under the read lock and printed after it is released. */
/* Every node in ifx-chain order (chain 0 to 63, oldest first), or only the node of ifx. */
LIBPMX_API void libpmx_dump_ifx_tbl(uint32_t ifx);
/* Every node in gphyid-chain order, or only the nodes of the gphyid phyid. */
LIBPMX_API void libpmx_dump_phy_tbl(uint32_t phyid);
/* The nodes of device dev (and of slot, when slot is not negative), by slot, sslot, lport. */
LIBPMX_API void libpmx_dump_ifx_tbl_by_dev_slot(int32_t dev, int32_t slot);
/* Every node sorted by ifx, by gphyid or by dev/slot/sslot/lport (LIBPMX_INTF_ORDER_*). */
LIBPMX_API void libpmx_dump_ifx_tbl_ordered_by(int32_t order);

/* ======================== Physical-id conversions ========================
 * Each worker takes the read mode: 0 the caches only (the database is never touched), 1 one read
 * on a miss, 2 reads that wait; the mode is passed to every lookup it makes. Plain names pass 2,
 * _ext 0, _ext_db 1, _internal 2. Composition: gphyid = type << 24 | (cid & 31) << 19 | (modid &
 * 0x7ff) << 8 | (port & 255), type 7, or 25 for a power-module or local virtual-unit port;
 * lphyid = 0x08000000 | scid << 16 | unit << 8 | port. Split ports override the mod-port, the
 * unit-port and the lphyid-by-unit-port conversions, not the gphyid/lphyid pair. Locks are
 * those of the caches read, released before any database read. */

/* True for a tunnel id (type 32). */
LIBPMX_API int libpmx_is_tunnel_phyid(uint32_t phyid);

/* The lphyid of a gphyid: types 7 and 25 through the chip's unit and the card's scid; type 19
 * through the interface table (a port of this card only, else -4); any other id handed back. 0;
 * -11 null out; -7 phyid 0; the lookups' codes. */
LIBPMX_API int libpmx_get_lphyid_by_gphyid_detail(uint32_t gphyid, uint32_t *lphyid, int mode);
LIBPMX_API int libpmx_get_lphyid_by_gphyid(uint32_t gphyid, uint32_t *lphyid);
LIBPMX_API int libpmx_get_lphyid_by_gphyid_ext(uint32_t gphyid, uint32_t *lphyid);
/* The gphyid of an lphyid (type 8; any other id handed back): the port's core and local modid,
 * the card's cid with the subcard of the scid, type 25 for a virtual-unit port. 0; -11 null out
 * or no core; -7 an scid of no known subcard; the lookups' codes. */
LIBPMX_API int libpmx_get_gphyid_by_lphyid_detail(uint32_t lphyid, uint32_t *gphyid, int mode);
LIBPMX_API int libpmx_get_gphyid_by_lphyid(uint32_t lphyid, uint32_t *gphyid);
LIBPMX_API int libpmx_get_gphyid_by_lphyid_ext(uint32_t lphyid, uint32_t *gphyid);
/* The module and port of a physical port id: types 7 and 25 by their bits (a split port's
 * entry first), type 8 through the local port table and modids, type 19 through the interface
 * table; -4 for another type (18 and 32 included) or a null output. */
LIBPMX_API int libpmx_get_mod_port_by_phyid_detail(uint32_t phyid, uint32_t *modid, uint32_t *port, int mode);
LIBPMX_API int libpmx_get_mod_port_by_phyid(uint32_t phyid, uint32_t *modid, uint32_t *port);
LIBPMX_API int libpmx_get_mod_port_by_phyid_ext(uint32_t phyid, uint32_t *modid, uint32_t *port);
/* The gphyid of a module port: its card's cid (a split port's entry first); type 25 for a
 * power-module chip or a local virtual-unit port (a failed test chooses 7). -11 null out; -7 no
 * cid and no split entry. */
LIBPMX_API int libpmx_get_phyid_by_mod_port_detail(int32_t modid, int32_t port, uint32_t *phyid, int mode);
LIBPMX_API int libpmx_get_phyid_by_mod_port(int32_t modid, int32_t port, uint32_t *phyid);
LIBPMX_API int libpmx_get_phyid_by_mod_port_ext(int32_t modid, int32_t port, uint32_t *phyid);
LIBPMX_API int libpmx_get_phyid_by_mod_port_ext_db(int32_t modid, int32_t port, uint32_t *phyid);
/* The lphyid of a local chip port (a split port's entry first): -11 null out; -7 not a port of
 * this card; -18 a panel port beyond the card's count. */
LIBPMX_API int libpmx_get_lphyid_by_unit_port_detail(int32_t unit, int32_t port, uint32_t *lphyid, int mode);
LIBPMX_API int libpmx_get_lphyid_by_unit_port(int32_t unit, int32_t port, uint32_t *lphyid);
LIBPMX_API int libpmx_get_lphyid_by_unit_port_ext(int32_t unit, int32_t port, uint32_t *lphyid);
LIBPMX_API int libpmx_get_lphyid_by_unit_port_internal(int32_t unit, int32_t port, uint32_t *lphyid);
/* The local unit and port of a physical port id, which must be a panel port of this card (a
 * back-plane port only as type 18): -4 null output or not a physical port; the lookups' codes.
 * The _ext form uses the cache-only lookups. Unit and port may be written before a failure. */
LIBPMX_API int libpmx_get_unit_port_by_lphyid(uint32_t phyid, uint32_t *unit, uint32_t *port);
LIBPMX_API int libpmx_get_unit_port_by_lphyid_ext(uint32_t phyid, uint32_t *unit, uint32_t *port);

/* ======================== Card and subcard ids ========================
 * libpmx_card_addr_id (card type, subcard type -> cid) and libpmx_subcard_type_id (subcard type
 * -> scid), under the interface-table lock. -1 stands for no card type and no cid. */

/* Registers the debug command dump_cid_tbl; called from libpmx_intf_init. */
LIBPMX_API int libpmx_intf_cid_init(void);

/* Cache a cid / scid (the database change callbacks): creates the record, or overwrites a
 * different cid with an error log. Under the write lock; the lock's release result (0). */
LIBPMX_API int libpmx_cache_cid_with_card_type(int32_t card_type, int32_t subcard_type, int32_t cid);
LIBPMX_API int libpmx_cache_scid_with_subcard_type(int32_t subcard_type, int32_t scid);

/* The cid of a card type and subcard type. *cid is set to -1 first (a cached -1 is no cid). 0;
 * -11 card_type -1 (*cid untouched); -7 not cached with flag 0; else the result of the database
 * read of u_intf.pmx_card_address_id with flag, whose value is not cached here. */
LIBPMX_API int libpmx_get_cid_with_card_type(int32_t card_type, int32_t subcard_type, int32_t *cid, int flag);

/* The cid of the card that owns a module's port: its card type and subcard type from
 * libpmx_get_card_type_by_modid_port with flag (-11 when they cannot be found), then as
 * libpmx_get_cid_with_card_type. */
LIBPMX_API int libpmx_get_cid_by_modid_port(int32_t modid, int32_t port, int32_t *cid, int flag);

/* The scid of a subcard type: 0 with scid 0 when the subcard-id capability is off (or is 1 and
 * subcard_type is -1). Cached under the write lock; on a miss with flag other than 0 the
 * capability data's scid, which is then cached. 0; -11 null out; -7 not found. */
LIBPMX_API int libpmx_get_scid_with_subcard_type(int32_t subcard_type, int32_t *scid, int flag);

/* Both tables to the debug output under the read lock, by ascending cid and scid. A non-zero
 * card_type filter shows only the card-id rows of (card_type, subcard_type); a non-zero
 * subcard_type filter shows only that subcard type's scid row. */
LIBPMX_API void libpmx_dump_cid_tbl(int32_t card_type, int32_t subcard_type);

/* ======================== Slot and panel-port queries ========================
 * libpmx_global_sport (card type, chip unit, chip port -> sub-slot, panel port) under the
 * global-sport lock; filled on a miss from the card types' static attributes
 * (p_dev.dm_card_stattr_t): a port that the card type lists is on the card itself (sub-slot 0);
 * one listed by the subcard in sub-slot s (p_dev.card_info of dev/slot/s) is in sub-slot s; a
 * chip port that nobody lists belongs where the nearest listed port below it on its unit does
 * (the lanes above a port are its break-out members, with its panel port). Which sub-slot a host
 * chip port serves is a property of the host card type, so the entry is kept by the host's card
 * type; the panel port is the one of the subcard found then. */

/* Registers the debug command dump_global_sport; called from libpmx_intf_init. */
LIBPMX_API int libpmx_intf_sport_init(void);

/* Fills sport's card_type, sslot and lport from its unit and port for the card in dev/slot.
 * mode 0: the cache only (-7 on a miss); another mode reads the card type and the static
 * attributes on a miss (an empty sub-slot is read once, never waited for). 0; -11 null sport;
 * -7 no sub-slot of the card holds the port; the card-type and attribute reads' codes. */
LIBPMX_API int libpmx_get_global_sport_info(int32_t dev, int32_t slot, libpmx_global_sport_t *sport, int mode);
/* Change entry point: the chip ports a card type lists are on the card itself (sub-slot 0), with
 * their panel ports; an entry already learnt is refreshed. 0, or -2 without memory. (A subcard's
 * ports are learnt by the first lookup that may read, mode 1 or 2.) */
LIBPMX_API int libpmx_global_sport_set_card_port(int32_t card_type, int32_t unit, int32_t port, int32_t lport);
/* Every entry: card type, unit, port, sub-slot, panel port; the total. */
LIBPMX_API void libpmx_dump_global_sport(void);

/* ======================== Sub-AP and sub-route caches ========================
 * One record per sub-interface in libpmx_sub_ap_info / libpmx_sub_route_info, each cache under
 * its own process-wide reader-writer lock (never both held). Sub-interface phyids: type 20
 * (sub-AP) or 19 (sub-route) in the top 8 bits, the ifx in the low 24. flag of the lookups: 0
 * answers from the cache only (-7 on a miss); any other value goes unchanged to the database
 * read (libpmx_get_sub_ap_info_from_db / libpmx_get_sub_route_info_from_db) on a miss, whose
 * result is returned and whose record is not cached. */

/* Registers the debug commands dump_sub_ap and dump_sub_route ("ifx=%u", 0 or none for all);
 * called from libpmx_intf_init. 0, or the code of libpmx_dbg_add_cmds. */
LIBPMX_API int libpmx_intf_sub_init(void);

/* Stores info by its ifx (create or overwrite, under the write lock after a read-locked look).
 * A cached record is copied to old_info, *has_old = 1 and *changed = whether it differs from info
 * byte-wise (equal: nothing written); none cached: *has_old = 0, *changed = whether info is not
 * all zero, old_info untouched. has_old may be null for sub-AP. 0, -11 null argument, -2 no
 * memory. */
LIBPMX_API int libpmx_save_cache_sub_ap_info(const libpmx_sub_ap_info_t *info,
                                             libpmx_sub_ap_info_t *old_info, uint32_t *has_old,
                                             uint32_t *changed);
LIBPMX_API int libpmx_save_cache_sub_route_info(const libpmx_sub_route_info_t *info,
                                                libpmx_sub_route_info_t *old_info,
                                                uint32_t *has_old, uint32_t *changed);

/* Removes the record of info's ifx under the write lock, whether or not it equals info (a
 * difference is logged); the removed record goes to old_info and *has_old = 1, else *has_old = 0.
 * 0, or -11 for a null argument. */
LIBPMX_API int libpmx_remove_cache_sub_ap_info(const libpmx_sub_ap_info_t *info,
                                               libpmx_sub_ap_info_t *old_info, uint32_t *has_old);
LIBPMX_API int libpmx_remove_cache_sub_route_info(const libpmx_sub_route_info_t *info,
                                                  libpmx_sub_route_info_t *old_info,
                                                  uint32_t *has_old);

/* The record of a sub-AP (type 20) / sub-route (type 19) phyid, read-locked cache first. 0,
 * -4 null out or wrong phyid type, -7 miss with flag 0, or the database read's result. */
LIBPMX_API int libpmx_get_sub_ap_info_by_phyid_detail(uint32_t phyid, libpmx_sub_ap_info_t *out,
                                                      int flag);
LIBPMX_API int libpmx_get_sub_route_info_by_phyid_detail(uint32_t phyid,
                                                         libpmx_sub_route_info_t *out, int flag);

/* Fields of that record: the parent port's phyid (master_phyid), the evlan, the trunk. Results
 * as the lookup above; -4 for a null out. */
LIBPMX_API int libpmx_get_ap_phyid_by_sub_ap_phyid(uint32_t phyid, uint32_t *master_phyid,
                                                   int flag);
LIBPMX_API int libpmx_get_evlan_trunk_by_sub_ap_phyid(uint32_t phyid, uint32_t *evlan,
                                                      uint32_t *trunk, int flag);
LIBPMX_API int libpmx_get_route_phyid_by_sub_route_phyid(uint32_t phyid, uint32_t *master_phyid,
                                                         int flag);
LIBPMX_API int libpmx_get_evlan_by_sub_route_phyid(uint32_t phyid, uint32_t *evlan, int flag);

/* The evlan / trunk of a sub-interface phyid, read with flag 2 (database and wait on a miss);
 * 0 when it cannot be had. */
LIBPMX_API uint32_t libpmx_evlan_of_sub_ap(uint32_t phyid);
LIBPMX_API uint32_t libpmx_trunk_of_sub_ap(uint32_t phyid);
LIBPMX_API uint32_t libpmx_evlan_of_sub_route(uint32_t phyid);

/* Walks the cache (by ascending ifx when sorted) holding its read lock throughout: op must not
 * save or remove records of the same cache. A null op is logged and walks nothing. */
LIBPMX_API void libpmx_sub_ap_info_for_each_with_rdlock(int (*op)(void *entry, void *arg),
                                                        void *arg, int sorted);
LIBPMX_API void libpmx_sub_route_info_for_each_with_rdlock(int (*op)(void *entry, void *arg),
                                                           void *arg, int sorted);

/* Prints the cache as a table to the debug output under the read lock: the record of ifx, or
 * for ifx 0 every record by ascending ifx and the total. */
LIBPMX_API void libpmx_dump_cache_sub_ap_info(uint32_t ifx);
LIBPMX_API void libpmx_dump_cache_sub_route_info(uint32_t ifx);

LIBPMX_END_DECLS

#endif /* LIBPMX_INTF_H */
