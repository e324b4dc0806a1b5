/* Split-port mappings: for ports broken out into several lanes, three two-way, many-valued maps
 * that override the arithmetic conversions: module-port <-> global phyid, unit-port <-> local
 * phyid, and global slot + unit-port <-> panel port.
 *
 * Keys: module-port 0x87000000 | (modid & 0x7ff) << 8 | (port & 0xff) (it shares its map with the
 * gphyids, both directions); unit-port 0x88000000 | unit << 8 | port (shared with the lphyids).
 * A gslot is split into a key part (gslot & ~0x7c00: dev and slot) and a value part (gslot &
 * 0x7c00, the sub-slot bits): the gslot map holds (key part, lport) -> (value part, unit-port
 * key) and (key part, unit-port key) -> (value part, lport), so the sub-slot picks the value
 * within the chain of a slot.
 *
 * Each map has its own reader-writer lock: updates write both directions in one hold (a failed
 * half is not rolled back), lookups read. A thread that sets its ignore flag sees no split
 * ports: every lookup it makes fails with -12 while other threads still find them.
 *
 * Lookups: 0 found; -4 null output; -12 ignored by this thread; -7 no value, or none that
 * matches. The change entry points are called by the database callbacks. */
#ifndef LIBPMX_SPLIT_H
#define LIBPMX_SPLIT_H

#include <stdint.h>

#include "libpmx_export.h"

LIBPMX_BEGIN_DECLS

static inline uint32_t libpmx_split_modport_key(uint32_t modid, uint32_t port)
{
    return 0x87000000u | (modid & 0x7ffu) << 8 | (port & 0xffu);
}
static inline uint32_t libpmx_split_unitport_key(uint32_t unit, uint32_t port)
{
    return 0x88000000u | unit << 8 | port;
}
/* The sub-slot bits of a gslot: the value part. */
#define LIBPMX_SPLIT_GSLOT_VALUE_BITS 0x7c00u

/* At load: the debug commands of the split mappings; a later call does nothing. Always 0. */
LIBPMX_API int libpmx_split_init(void);

/* This thread's ignore flag (0 by default): set, logged at warning level; 0. */
LIBPMX_API int libpmx_set_ignore_split_mapping(int32_t flag);
LIBPMX_API void libpmx_dump_ignore_split_mapping(void);

/* ---- change entry points: add (is_add non-zero) or remove both directions of a pair; 0, or
 * the two directions' codes ORed (-2 no memory on add, -7 absent on remove) ---- */

LIBPMX_API int libpmx_update_mod_port_gphyid(uint32_t gphyid, uint32_t modid, uint32_t port, int32_t is_add);
LIBPMX_API int libpmx_update_unit_port_lphyid(uint32_t lphyid, uint32_t unit, uint32_t port, int32_t is_add);
LIBPMX_API int libpmx_update_gslot_unit_port_lport(uint32_t gslot, uint32_t unit, uint32_t port, uint32_t lport,
                                                   uint8_t is_add);
/* The same for a slot of this device: gslot (slot & 31) | (dev - 1) * 32 with the local device
 * id (libpmx_get_my_dev_id(1)) when it lies in 1..16, else slot & 31. */
LIBPMX_API int libpmx_update_unit_port_lport(uint32_t unit, uint32_t port, int32_t slot, uint32_t lport,
                                             uint8_t is_add);

/* ---- lookups ---- */

/* The module and port of a gphyid (its first value). */
LIBPMX_API int libpmx_split_cache_get_mod_port_by_phyid(uint32_t gphyid, uint32_t *modid, uint32_t *port);
/* The gphyid of a module port: cid (uint32_t)-1 takes the first, another cid the first whose
 * bits 19..23 equal it. */
LIBPMX_API int libpmx_split_cache_get_phyid_by_mod_port(uint32_t modid, uint32_t port, uint32_t cid,
                                                        uint32_t *gphyid);
/* The unit and port of an lphyid (its first value). */
LIBPMX_API int libpmx_split_cache_get_unit_port_by_lphyid(uint32_t lphyid, uint32_t *unit, uint32_t *port);
/* The lphyid of a unit port: scid (uint32_t)-1 takes the first, another the first whose bits
 * 16..23 equal it. */
LIBPMX_API int libpmx_split_cache_get_lphyid_by_unit_port(uint32_t unit, uint32_t port, uint32_t scid,
                                                          uint32_t *lphyid);
/* The unit port of a gslot's panel port, and the panel port of a gslot's unit port: a gslot
 * without sub-slot bits takes the first value of the slot's chain, another the value of its
 * sub-slot (-7 when none). */
LIBPMX_API int libpmx_split_cache_get_unit_port_by_gslot_lport(int32_t gslot, uint32_t lport, uint32_t *unit,
                                                               uint32_t *port);
LIBPMX_API int libpmx_split_cache_get_lport_by_gslot_unit_port(int32_t gslot, uint32_t unit, uint32_t port,
                                                               uint32_t *lport);
/* The panel port of a unit port of this card's slot (the device id read with waiting getters);
 * slot receives this card's slot. */
LIBPMX_API int libpmx_split_cache_get_my_slot_lport_by_unit_port(uint32_t unit, uint32_t port, int32_t *slot,
                                                                 uint32_t *lport);

/* ---- dumps (standard output, or the attached debug session) ---- */

/* gphyid -> module port rows, lphyid -> unit port rows, and the gslot rows (dev, slot, sslot,
 * unit, port, lport), each with its count. */
LIBPMX_API void libpmx_split_dump_glb_phy_tbl(void);
LIBPMX_API void libpmx_split_dump_local_phy_tbl(void);
LIBPMX_API void libpmx_split_dump_port_tbl(void);

LIBPMX_END_DECLS

#endif /* LIBPMX_SPLIT_H */
