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

LIBPMX_END_DECLS

#endif /* LIBPMX_CAP_H */
