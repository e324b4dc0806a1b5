// Library frame: load-time set-up, start-up in its fixed order, and the application name.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx"
#include "libpmx_log.h"

#include "libpmx.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "libpmx_cap.h"
#include "libpmx_dbg.h"
#include "libpmx_mod.h"
#include "libpmx_split.h"
#include "libpmx_hash.h"
#include "libpmx_intf.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"

libpmx_ctx_t g_libpmx = {};

extern "C" __attribute__((constructor)) void libpmx_initial(void)
{
    PMX_DEBUG("libpmx_initial");
    libpmx_port_init();
    libpmx_hash_init();
    libpmx_cap_pre_init();
    pthread_key_create(&g_libpmx.pthread_pri_param, nullptr);
    libpmx_event_list_init();
    g_libpmx.m_thread = pthread_self();
    const int rc = libpmx_intf_init();
    if (rc != 0) {
        // The process must not run without its interface table.
        PMX_ERROR("libpmx_intf_init, ret: %d", rc);
        std::exit(-1);
    }
    // The debug commands of the module and split subsystems, so that dumps work before start-up too.
    libpmx_mod_init();
    libpmx_split_init();
}

// Caches, timers and the database handle are left to the end of the process.
extern "C" __attribute__((destructor)) void libpmx_final(void)
{
    PMX_DEBUG("libpmx_final");
}

extern "C" int libpmx_init_g_mom_ab(const char *app_name)
{
    if (g_libpmx_mom_ab != nullptr) {
        PMX_NOTICE("[app_name:%s] g_libpmx_mom_ab is init ok! return", app_name);
        return LIBPMX_OK;
    }
    uint32_t opt[2] = {0, 0};
    g_libpmx_mom_ab = qv_mom_ab_init(nullptr, "libpmx", opt, opt);
    if (g_libpmx_mom_ab == nullptr) {
        PMX_ERROR("qv_mom_ab_init failed");
        return LIBPMX_E_FAIL;
    }
    return LIBPMX_OK;
}

extern "C" int libpmx_app_name_from_path(char *path, char *name, size_t size)
{
    // The base is found before the dots are replaced and read after it.
    char *slash = std::strrchr(path, '/');
    const char *base = slash != nullptr ? slash + 1 : path;
    for (char *p = path; *p != '\0'; ++p) {
        if (*p == '.') *p = '_';
    }
    const int n = at_snprintf(name, size, "libpmx_%s", base);
    if (n < 0 || static_cast<size_t>(n) >= size)
        PMX_LOG_AS("libpmx_get_app_name", LIBPMX_ZLOG_ERROR, "app name has been truncated.");
    else
        PMX_LOG_AS("libpmx_get_app_name", LIBPMX_ZLOG_INFO, "app name:%s", name);
    return LIBPMX_OK;
}

extern "C" int libpmx_get_app_name(char *name, size_t size)
{
    char proc[129] = {0};
    const int n = at_snprintf(proc, 128, "/proc/%d/exe", static_cast<int>(getpid()));
    if (n >= 128) PMX_ERROR("proc-path has been truncated.");
    char path[129] = {0};
    if (readlink(proc, path, 128) < 0) {
        PMX_WARN("readlink failed");
        return LIBPMX_E_FAIL;
    }
    PMX_INFO("app full name:%s", path);
    return libpmx_app_name_from_path(path, name, size);
}

extern "C" int libpmx_init(void *glb, const char *app_name)
{
    if (glb == nullptr || app_name == nullptr) {
        PMX_ERROR("input param error, glb:%p app_name:%s", glb, app_name != nullptr ? app_name : "(null)");
        return LIBPMX_E_INVAL;
    }
    if (g_libpmx.init_done != 0) {
        PMX_WARN("[app_name:%s] libpmx_init ok, return", app_name);
        return LIBPMX_OK;
    }
    int rc = libpmx_init_g_mom_ab(app_name);
    if (rc != 0) {
        PMX_ERROR("global init fail, ret:%d", rc);
        return rc;
    }
    char name[LIBPMX_APP_NAME_SIZE] = {0};
    rc = libpmx_get_app_name(name, sizeof name);
    if (rc != 0) {
        PMX_ERROR("get app name fail, ret:%d", rc);
        return rc;
    }
    std::memcpy(g_libpmx.app_name, name, sizeof name);
    rc = libpmx_dbg_zlog_init(name);
    if (rc != 0) {
        PMX_ERROR("libpmx_dbg_zlog_init fail, ret:%d", rc);
        return rc;
    }
    PMX_DEBUG("global= %p, app_name = %s", glb, app_name);
    libpmx_cap_init(glb, app_name);
    rc = libpmx_online_port_array_init();
    if (rc != 0) {
        PMX_ERROR("libpmx_online_port_array_init, ret: %d", rc);
        return rc;
    }
    rc = libpmx_mom_init(glb, app_name);
    if (rc != 0) {
        PMX_ERROR("libpmx_mom_init fail, ret:%d", rc);
        return rc;
    }
    rc = libpmx_dbg_ut_init(glb, name);
    if (rc != 0) {
        PMX_ERROR("libpmx_dbg_ut_init fail, ret:%d", rc);
        return rc;
    }
    g_libpmx.init_done = 1;
    return LIBPMX_OK;
}
