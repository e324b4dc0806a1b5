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

/* The scid of a subcard type from the capability data ("subcard-id/table/<type>"): 0; -11 null
 * out or no capability data loaded; -7 no scid for that type. */
LIBPMX_API int libpmx_get_scid_by_subcard_type(int32_t subcard_type, int32_t *scid);

LIBPMX_END_DECLS

#endif /* LIBPMX_CAP_H */
