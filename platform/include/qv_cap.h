/* Host capability library: the device's capabilities, read by name from a JSON file. */
#ifndef QV_CAP_H
#define QV_CAP_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    LIBQV_CAP_OK = 0,
    LIBQV_CAP_E_INVAL = -1,   /* null argument, or no capability data for this thread */
    LIBQV_CAP_E_FILE = -2,    /* the file is missing or unreadable */
    LIBQV_CAP_E_PARSE = -3,   /* the file is not valid JSON, or its top level is not an object */
    LIBQV_CAP_E_MISSING = -4, /* no capability of that name */
    LIBQV_CAP_E_TYPE = -5,    /* the capability has another type, or is out of range */
};

/* The capabilities of one file. */
typedef struct libqv_cap_ctrl_info libqv_cap_ctrl_info_t;

/* Loads the file into *info. path null or empty: $PMX_CAP_FILE, else the default of the tree
 * this library was loaded from (share/libpmx/caps/default.json beside its lib directory, so a
 * moved install or a build tree finds its own). A failure is logged with the full path of the
 * file and the reason, and *info stays null. */
int libqv_cap_ctrl_info_init(libqv_cap_ctrl_info_t **info, const char *path);
void libqv_cap_ctrl_info_free(libqv_cap_ctrl_info_t *info);
/* The file the capabilities were read from. */
const char *libqv_cap_ctrl_info_path(const libqv_cap_ctrl_info_t *info);
/* Makes info the calling thread's capabilities, used by the queries given a null info.
 * Without it a thread uses the first info loaded in the process. */
int libqv_cap_init_thread(libqv_cap_ctrl_info_t *info);

/* Queries by name; a name may step into objects and arrays with '/' ("modid-range/12/min").
 * The output is written only on success; failures are logged with the file and the name. */
int libqv_cap_get_capacity_int32(const libqv_cap_ctrl_info_t *info, const char *name, int32_t *out);
int libqv_cap_get_capacity_bool(const libqv_cap_ctrl_info_t *info, const char *name, bool *out);
/* Copies the string with its terminator; LIBQV_CAP_E_TYPE also when it does not fit. */
int libqv_cap_get_capacity_str(const libqv_cap_ctrl_info_t *info, const char *name, char *buf, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* QV_CAP_H */
