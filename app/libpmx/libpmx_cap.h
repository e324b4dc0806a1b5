/* Capability queries: device capabilities read from the platform's capability library, with
 * the library's defaults where the capability data has no value. */
#ifndef LIBPMX_CAP_H
#define LIBPMX_CAP_H

#include <stdint.h>

#include "libpmx_export.h"

LIBPMX_BEGIN_DECLS

/* Default of "max-block-times": 3000 sleeps of 0.1 s, 300 s. */
#define LIBPMX_DEFAULT_BLOCK_TIMES 3000

/* At load: the defaults. Always 0. */
LIBPMX_API int libpmx_cap_pre_init(void);
/* At start-up: loads the capability data ($PMX_CAP_FILE or the installed default) and takes
 * the values it has. 0, or -11 when the data cannot be loaded (the defaults stay; the platform's
 * code is logged). */
LIBPMX_API int libpmx_cap_init(void *glb, const char *app_name);

/* Maximum number of 0.1 s sleeps of a waiting database read. */
LIBPMX_API int32_t libpmx_cap_get_block_times(void);
/* Sets it; a negative value is refused (-4) and the limit stays. */
LIBPMX_API int libpmx_cap_set_block_times(int32_t times);

/* The subcard-id switch ("subcard-id/enable" of the capability data; 0 at load): 0 off, 1 on
 * for known subcard types, other values on for every subcard type. */
LIBPMX_API uint8_t libpmx_cap_get_subcard_id_enable(void);
LIBPMX_API void libpmx_cap_set_subcard_id_enable(uint8_t enable);

/* The scid of a subcard type from the capability data ("subcard-id/table/<type>"); subcard type 0
 * (no subcard: the card's own ports) has scid 0. 0; -11 null out or no capability data loaded; -7
 * no scid for that type. */
LIBPMX_API int libpmx_get_scid_by_subcard_type(int32_t subcard_type, int32_t *scid);

/* ---- module ids ---- */

/* The module-id range of a card type ("modid-info/<type>/min", "/max", "/num-per-slot": the
 * first id of the range, its last, and the ids reserved per slot position): 0; -11 null output or
 * no capability data loaded; -7 the type has no complete entry. Outputs written only on success. */
LIBPMX_API int libpmx_cap_get_modid_info(int32_t card_type, int32_t *min, int32_t *max, int32_t *num_per_slot);
/* The number of module ids a card of a node type takes ("node-type-cap-id-num/<node type>"):
 * 0, -11, -7 as above. */
LIBPMX_API int libpmx_cap_get_cap_of_node(int32_t node_type, int32_t *num);
/* The line-card slots of one device ("lc-slots-num"); 0 when the capability data has none. */
LIBPMX_API int32_t libpmx_cap_get_lc_slots_num(void);

/* The module ids that the system declares invalid ("invalid-modids", an array), kept in
 * libpmx_invalid_modid under the invalid-modid lock: filled at start-up; the add is for the
 * tools and the tests. 0, or -2 when the entry cannot be stored. */
LIBPMX_API int libpmx_cap_add_invalid_modid(int32_t modid);
/* 1 when modid is declared invalid. */
LIBPMX_API int libpmx_cap_is_invalid_modid(int32_t modid);
/* How many invalid module ids lie in low..high, both ends included (one hold of the read lock). */
LIBPMX_API uint32_t libpmx_cap_count_invalid_modid(int32_t low, int32_t high);

/* Every capability value the library uses, as it stands (debug command dump_cap). */
LIBPMX_API void libpmx_dump_cap(void);

LIBPMX_END_DECLS

#endif /* LIBPMX_CAP_H */
