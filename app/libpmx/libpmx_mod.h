/* Modules and chips: the module table (the chip-id resource of every modid and the per-slot
 * record of every card's forwarding units), the card-info cache, and the questions built on
 * them: where a modid sits, whether it or a card is local, which modid a unit and core have,
 * what type a card is.
 *
 * Locks: the module-table lock guards the chip-id resources (chipid_res) and the per-slot
 * records (ce_pmx_fuid_info_per_slot); the card-info lock guards libpmx_card_info. Lookups hold
 * the read lock only around the cache access, changes the write lock; no lock is held across a
 * database read. A chip-id resource whose valid field is 0 counts as absent everywhere.
 *
 * Read modes (mode): 0 answers from the caches only (-7 on a miss); any other value reads the
 * database on a miss. A modid lookup that misses finds the module table that lists the modid
 * (libpmx_get_info_from_pmx_mod_tbl), stores it as the change callbacks would
 * (libpmx_add_mod_tbl), and looks again. */
#ifndef LIBPMX_MOD_H
#define LIBPMX_MOD_H

#include <stdint.h>

#include "libpmx_export.h"
#include "libpmx_hash.h"
#include "libpmx_types.h"

LIBPMX_BEGIN_DECLS

/* The module table takes gslots below this. */
#define LIBPMX_GSLOT_MAX 512
/* The modid that the system reserves as invalid. */
#define LIBPMX_SYSTEM_INVALID_MODID 17
/* Status of a per-slot record. */
#define LIBPMX_MOD_TBL_NONE 0  /* retrieve: the slot's modids are taken back */
#define LIBPMX_MOD_TBL_ALLOC 1 /* the slot's modids are allocated */
#define LIBPMX_MOD_TBL_LIMIT 2 /* no modid left for the slot */
/* Base of every node id (card address). */
#define LIBPMX_NODE_BASE 0x0C000000

/* At load: the debug commands of this subsystem; a later call does nothing. Always 0. */
LIBPMX_API int libpmx_mod_init(void);

/* ---- slot arithmetic ---- */

/* (sslot & 31) << 10 | (dev - 1) << 5 | (slot & 31), the dev part left out when dev is outside
 * 1..16 (so dev 0 and dev 17 share dev 1's gslots). */
LIBPMX_API int32_t libpmx_get_gslot_by_dev_slot_sslot(int32_t dev, int32_t slot, int32_t sslot);
/* dev = ((gslot >> 5) & 31) + 1, slot = gslot & 31, sslot = (gslot >> 10) & 31; null outputs
 * are skipped. */
LIBPMX_API void libpmx_get_dev_slot_sslot_by_gslot(int32_t gslot, int32_t *dev, int32_t *slot, int32_t *sslot);
/* 0x0C000000 | dev << 18 | slot << 8. */
LIBPMX_API int32_t libpmx_get_node_by_dev_slot(int32_t dev, int32_t slot);
/* 0x0C000000 | (gslot & 31) << 8 | ((gslot >> 10) & 31) << 15 | (((gslot >> 5) & 31) + 1) << 18. */
LIBPMX_API int32_t libpmx_get_node_by_gslot(int32_t gslot);
/* The gslot of a node: its low 26 bits give dev (bits 18-25), sslot (15-17), slot (8-12). */
LIBPMX_API int32_t libpmx_get_gslot_by_node(int32_t node);

/* ---- the module table: change entry points ---- */

/* Applies the module table of dev/slot/sslot (write lock across the whole of it). Status 1
 * (alloc): every modid of the first fuid_num unit entries (at most 8, at most 16 ids each)
 * gets its chip-id resource {modid, gslot, unit, valid 1, coreid = its index, type = the
 * entry's modid type}, replacing an earlier one, and the record is stored as the slot's
 * per-slot record. Status 0 (retrieve): every resource of the stored record's modids is zeroed
 * but for its modid; the record stays. 0; -4 another status, or alloc with fuid_num 0; -11 a
 * null record or a gslot of 512 or more; -2 the per-slot record could not be stored. A modid
 * whose resource cannot be stored is logged and skipped. */
LIBPMX_API int libpmx_add_mod_tbl(int32_t dev, int32_t slot, int32_t sslot, const ce_pmx_fuid_info_per_slot_t *tbl);
/* True when status is 1 (alloc). */
LIBPMX_API int libpmx_check_mod_tbl_valid(uint32_t status);

/* ---- the card-info cache (card-info lock): change entry points ---- */

/* Stores (or refreshes) the card type of info's dev/slot/sslot: 0, or -11. */
LIBPMX_API int libpmx_cache_set_card_info(const libpmx_card_info_t *info);
/* Removes the entry of info's dev/slot/sslot: 0, or -11 when absent or info is null. */
LIBPMX_API int libpmx_cache_del_card_info(const libpmx_card_info_t *info);

/* ---- lookups ---- */

/* The modid type of a valid chip-id resource: 0; -7 unknown or not valid; -11 null out. */
LIBPMX_API int libpmx_get_modid_type_from_cache(int32_t modid, int32_t *type);

/* dev, slot and unit of a modid's chip: 0; -4 null output or negative modid; -7 not allocated
 * (mode 0) or listed by no module table; the database read's code. */
LIBPMX_API int libpmx_get_dev_slot_unit_by_modid_detail(int32_t modid, int32_t *dev, int32_t *slot, int32_t *unit,
                                                        int mode);
LIBPMX_API int libpmx_get_dev_slot_unit_by_modid(int32_t modid, int32_t *dev, int32_t *slot, int32_t *unit);
LIBPMX_API int libpmx_get_dev_slot_unit_by_modid_ext(int32_t modid, int32_t *dev, int32_t *slot, int32_t *unit);

/* True when gslot is this card's (from libpmx_get_my_node(1)); false when the node is unknown. */
LIBPMX_API int libpmx_is_local_card(int32_t gslot);
/* True when the modid's chip is on this card. */
LIBPMX_API int libpmx_is_local_modid_detail(int32_t modid, int mode);
LIBPMX_API int libpmx_is_local_modid(int32_t modid);
LIBPMX_API int libpmx_is_local_modid_ext(int32_t modid);

/* Node id and unit of a modid's chip: 0; -4 null output; -7 as above; the read's code. */
LIBPMX_API int libpmx_get_node_unit_from_modid_detail(int32_t modid, int32_t *node, int32_t *unit, int mode);
LIBPMX_API int libpmx_get_node_unit_from_modid(int32_t modid, int32_t *node, int32_t *unit);
LIBPMX_API int libpmx_get_node_unit_from_modid_ext(int32_t modid, int32_t *node, int32_t *unit);

/* The modid of core `core` of unit `unit` of the card in dev/slot, from its per-slot record
 * (cache only): 0; -4 dev outside 1..16, slot outside 0..31, null output, unit not below
 * fuid_num, core outside 0..15, or no entry of the unit; -7 no record or not allocated; -11 a
 * node whose gslot is 512 or more. */
LIBPMX_API int libpmx_get_modid_by_dev_slot_unit_core(int32_t *modid, int32_t dev, int32_t slot, int32_t unit,
                                                      int32_t core);
LIBPMX_API int libpmx_get_chip_by_dev_slot_unit(int32_t *modid, int32_t dev, int32_t slot, int32_t unit);
/* The modid of core 0 of a unit of this card (the node read with mode): as above, or -11 when
 * this card's node is unknown. */
LIBPMX_API int libpmx_get_first_modid_by_unit(int32_t unit, int32_t *modid, int mode);
/* The modid of unit 0 core 0 of a node, and its cpu port (always 0). */
LIBPMX_API int libpmx_get_mod_port_by_node(int32_t node, int32_t *modid, int32_t *cpu_port);

/* The modid of a unit and core of this card: 0; -4 null output, negative core or unit above
 * 2^31 - 1; -7 not in the cache (mode 0) nor in this card's allocated module table; the read's
 * code. A miss with another mode reads this card's module table once it is allocated. */
LIBPMX_API int libpmx_get_lmodid_by_unit_core_detail(uint32_t unit, int32_t core, int32_t *modid, int mode);
LIBPMX_API int libpmx_get_lmodid_by_unit_core(uint32_t unit, int32_t core, int32_t *modid);
LIBPMX_API int libpmx_get_lmodid_by_unit_core_ext(uint32_t unit, int32_t core, int32_t *modid);
LIBPMX_API int libpmx_get_chip_by_unit(uint32_t unit, int32_t *modid);
LIBPMX_API int libpmx_get_chip_by_unit_ext(uint32_t unit, int32_t *modid);

/* The local unit of a modid of this card: 0; -4 null output or negative modid; -7 not local or
 * not allocated; the read's code. */
LIBPMX_API int libpmx_get_unit_by_chip_detail(int32_t modid, int32_t *unit, int mode);
LIBPMX_API int libpmx_get_unit_by_chip(int32_t modid, int32_t *unit);
LIBPMX_API int libpmx_get_unit_by_chip_ext(int32_t modid, int32_t *unit);

/* The card type of dev/slot from its per-slot record, else (mode not 0) from its card record:
 * 0; -11 null output; -7 not cached with mode 0; the read's code. */
LIBPMX_API int libpmx_get_card_type_by_dev_slot(int32_t dev, int32_t slot, int32_t *card_type, int mode);
/* The card type and subcard type of the card that owns a modid's port: the card type of the
 * modid's slot; the subcard type is 0 when the subcard-id capability is off or the port is on the
 * card itself (sub-slot 0), else the card type of the sub-slot that holds the port
 * (libpmx_get_global_sport_info), from the database or, failing that, the card-info cache. Mode
 * 2 lets a modid miss read the module tables. 0; -11 null output, unknown modid, no sub-slot,
 * no subcard type; the codes of the card-type and sub-slot lookups. */
LIBPMX_API int libpmx_get_card_type_by_modid_port(int32_t modid, int32_t port, int32_t *card_type,
                                                  int32_t *subcard_type, int mode);

/* ---- forwarding units ---- */

/* A copy of the per-slot record of gslot: 0; -11 null out; -7 none. */
LIBPMX_API int libpmx_get_fuid_info_by_gslot(int32_t gslot, ce_pmx_fuid_info_per_slot_t *out);
/* Calls op with a copy of every per-slot record, in gslot order (signed), the module-table lock
 * released: op may call any lookup. A non-zero result of op stops the walk and is returned; 0
 * after the last record, -11 for a null op, -2 without memory for the copies. */
LIBPMX_API int libpmx_fuid_info_for_each(libpmx_hash_op_t op, void *arg);

/* ---- static module ids ----
 * The ids this card's chips will use, computed from its position (dev, slot, sub-slot, node
 * type) and its allocation parameters (libpmx_port_get_lc_modid_alloc_mode: mode, id count, ids
 * per unit, first id not allowed) before the module table exists. Mode 4 takes the capability
 * scheme, mode 1 the dune scheme, mode 2 the ctc scheme; a node type 2 card outside mode 4 takes
 * one id; mode 0 has no static ids. The node type and device id are waited for without end. When
 * this card runs without its virtual units, the ids they would take (the card type's virtual chips
 * times the ids per unit) are left out. 0 and count ids; -4 bad arguments, a small array for the
 * capability scheme, an unknown node type; -11 mode 0, 3 or above 4, a small array or bad
 * parameters for the ctc and dune schemes; the capability and parameter reads' codes. The array
 * may be partly written when a scheme fails. */

/* No wait before computing (label "complete-lc"). */
LIBPMX_API int libpmx_get_static_modid(uint32_t *ids, int32_t capacity, int32_t *count);
/* Waits for every card type's static attributes first (label "complete-stattr"). */
LIBPMX_API int libpmx_get_static_modid_supporting_subcard(uint32_t *ids, int32_t capacity, int32_t *count);
LIBPMX_API int libpmx_get_static_modid_detail(uint32_t *ids, int32_t capacity, int32_t *count, void (*wait)(void),
                                              const char *label);
/* The capability scheme: slot position p by node type (1: dev - 1; 2: slot + 2 dev - 32; 3 and 7:
 * slot on dev 1, slot + (dev - 1) x line-card slots (21 when none) on the others; 5: slot - 22 on
 * dev 1, slot + 8 dev - 30 on the others), ids from min + num_per_slot x p of the card type's
 * range, each moved up past the invalid modids from min to it. */
LIBPMX_API int libpmx_mod_alloc_id_static(int32_t node_type, int32_t dev, int32_t slot, int32_t card_type,
                                          uint32_t *ids, int32_t capacity, int32_t *count);
/* The ctc scheme (mode4[1] ids, at most 2, one per unit): (mod_base + 16) x 2 + i, mod_base the gslot,
 * or (gslot >> 5) + 1 in slot 30; every id below mode4[3]. */
LIBPMX_API int libpmx_mod_alloc_id_ctc_static(int32_t gslot, const uint32_t *mode4, uint32_t *ids);
/* The dune scheme (mode4[1] ids, at most 12; mode4[2] ids per unit, at most 2): index i (2 i with
 * one id per unit), gslot x 8 + 18 + index up to index 7, gslot x 4 + 1042 + index - 8 above. */
LIBPMX_API int libpmx_mod_alloc_id_dune_static(int32_t gslot, const uint32_t *mode4, uint32_t *ids);

/* ---- system ports ----
 * A system port numbers a front-panel port chassis-wide: gslot * 256 + lport, the gslot with
 * its sub-slot bits (a subcard's ports get a block of their own), lport 0..255. libpmx_sysport
 * (system port -> gphyid) holds the ports the interface records name, under the system-port lock;
 * the members of a split port share their panel port's system port, which names the first member
 * stored. */
#define LIBPMX_SYSPORTS_PER_SLOT 256

/* The debug command dump_sysport; called by libpmx_mod_init. Always 0. */
LIBPMX_API int libpmx_sysport_init(void);

/* The arithmetic: 0, or -4 for an lport outside 0..255 or a null output. */
LIBPMX_API int libpmx_get_sysport_by_dev_slot_sslot_lport(int32_t dev, int32_t slot, int32_t sslot, int32_t lport,
                                                          uint32_t *sysport);
/* Back (dev from the gslot, so 1 for the devices outside 1..16); null outputs skipped. */
LIBPMX_API void libpmx_get_dev_slot_sslot_lport_by_sysport(uint32_t sysport, int32_t *dev, int32_t *slot,
                                                           int32_t *sslot, int32_t *lport);
/* Change entry point: the port gphyid (types 7 and 25 only; -4 otherwise) at dev/slot/sslot/lport
 * added, or (is_add 0) removed when it is the one stored. 0; -2 no memory; -7 nothing to remove. */
LIBPMX_API int libpmx_sysport_update(int32_t dev, int32_t slot, int32_t sslot, int32_t lport, uint32_t gphyid,
                                     int is_add);
/* The gphyid of a system port: the cache, else (mode not 0) the physical-port records of the
 * database (a scan), the found one kept. 0; -11 null out; -7 none. */
LIBPMX_API int libpmx_get_phyid_by_sysport_detail(uint32_t sysport, uint32_t *gphyid, int mode);
/* The system port of a gphyid: its interface node's position, else (mode not 0) its physical-port
 * record's. 0; -11 null out; -4 a phyid of another type than 7 and 25 or an lport beyond 255; -7. */
LIBPMX_API int libpmx_get_sysport_by_phyid_detail(uint32_t gphyid, uint32_t *sysport, int mode);
/* Every system port held, in order: sysport, dev/slot/sslot/lport, gphyid; the total. */
LIBPMX_API void libpmx_dump_sysport(void);

/* 17. */
LIBPMX_API int32_t libpmx_get_system_invalid_modid(void);

/* ---- dumps (standard output, or the attached debug session) ---- */

/* Chip-id resources in modid order; modid 0 for all. */
LIBPMX_API void libpmx_dump_chipid_res(int32_t modid);
/* Per-slot records in gslot order; gslot 0 for all. */
LIBPMX_API void libpmx_dump_chipslot(int32_t gslot);
/* The modids of this card's per-slot record. */
LIBPMX_API void libpmx_dump_local_modid(void);
/* Card-info entries in dev, slot, sslot order. */
LIBPMX_API void libpmx_dbg_dump_card_info(void);

LIBPMX_END_DECLS

#endif /* LIBPMX_MOD_H */
