/* Library frame: the process-wide context, load-time set-up and start-up.
 *
 * At load the constructor sets up the port state, the caches, the capability defaults, the
 * per-thread mark key, the event lists and the interface table. The application then calls
 * libpmx_init once from its main thread, after attaching that thread to the database client:
 *
 *     qv_mom_glb_t *glb = qv_mom_glb_create(NULL, err, sizeof err);
 *     qv_mom_thread_attach(glb, NULL);
 *     libpmx_init(glb, "my_module");
 */
#ifndef LIBPMX_H
#define LIBPMX_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "libpmx_errno.h"
#include "libpmx_export.h"
#include "qv_thread.h"

LIBPMX_BEGIN_DECLS

/* Size of the derived application name buffer ("libpmx_<executable base name>"). */
#define LIBPMX_APP_NAME_SIZE 128

/* The library's process-wide context. */
typedef struct libpmx_ctx {
    uint8_t init_done;             /* 1 once libpmx_init has run every step with success */
    pthread_t m_thread;            /* the thread that loaded the library */
    pthread_key_t pthread_pri_param; /* per-thread mark of the event delivery, no destructor */
    qv_thread_t *record_timer;     /* running timer of the temporary log recording, or null */
    char app_name[LIBPMX_APP_NAME_SIZE]; /* derived name: level file and debug-command module */
} libpmx_ctx_t;
LIBPMX_API extern libpmx_ctx_t g_libpmx;

/* Load-time constructor and unload-time destructor; applications never call them. */
LIBPMX_API void libpmx_initial(void);
LIBPMX_API void libpmx_final(void);

/* Start-up: glb is the caller's database client context (a qv_mom_glb_t), app_name its module
 * name. 0; -4 for a null argument; -11 or the code of the step that failed. A failed call may
 * be repeated; a call after a success returns 0 at once. */
LIBPMX_API int libpmx_init(void *glb, const char *app_name);

/* Makes the library's database client handle once; 0 or -11. app_name serves the log only. */
LIBPMX_API int libpmx_init_g_mom_ab(const char *app_name);

/* The derived application name of this process, from the link /proc/<pid>/exe, into name
 * (LIBPMX_APP_NAME_SIZE bytes); 0 or -11 when the link cannot be read. */
LIBPMX_API int libpmx_get_app_name(char *name, size_t size);

/* The derivation alone: "libpmx_<base name of path>" with every '.' of path turned into '_'
 * (path is changed in place). Always 0; a name that does not fit is logged and truncated. */
LIBPMX_API int libpmx_app_name_from_path(char *path, char *name, size_t size);

LIBPMX_END_DECLS

#endif /* LIBPMX_H */
