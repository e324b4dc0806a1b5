// Debug level at run time: the level file read at start-up, the set and dump commands, the
// temporary recording that raises the level on a timer, and the debug-command registration.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_dbg"
#include "libpmx_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "libpmx.h"
#include "libpmx_errno.h"
#include "libpmx_mom.h"
#include "qv_mom.h"
#include "ssat.h"

namespace
{

constexpr const char *kLevelNames = "OFF:0, ERROR:1 WARM:2 NOTICE:3 INFO:4 DEBUG:5";

const char *dbg_root()
{
    const char *root = std::getenv(LIBPMX_DBG_DIR_ENV);
    return root != nullptr && *root != '\0' ? root : LIBPMX_DBG_DIR_DEFAULT;
}

void print_level()
{
    ssat_printf("proc_name=%s, dbg_level=%d\n", "libpmx", g_libpmx_zlog_level);
}

// Cancels the running recording, if any; with revert, the level goes back to 1.
void stop_recording(bool revert)
{
    if (g_libpmx.record_timer == nullptr) return;
    qv_thread_cancel(g_libpmx.record_timer);
    g_libpmx.record_timer = nullptr;
    if (revert) {
        libpmx_revert_dbg_level(nullptr);
        ssat_printf("stop the last recording.");
    }
}

// The shell's wrappers of commands that take no argument.
int cmd_dump_block_info(const char *)
{
    libpmx_dump_block_info();
    return LIBPMX_OK;
}

int cmd_clear_block_info(const char *)
{
    libpmx_clear_block_info();
    return LIBPMX_OK;
}

struct DebugCommand {
    const char *name;
    const char *help;
    ssat_cmd_fn fn;
};

const DebugCommand kCommands[] = {
    {"set_dbg_level", "dbg_level=%d  (OFF:0, ERROR:1 WARM:2 NOTICE:3 INFO:4 DEBUG:5)",
     libpmx_dbg_cmd_set_dbg_level},
    {"dump_dbg_level", "print the debug level", libpmx_dbg_cmd_dump_dbg_level},
    {"record_log_tmp", "minutes=%d  (debug level for at most 15 minutes, then ERROR)",
     libpmx_dbg_cmd_record_log_tmp},
    {"dump_block_info", "print the records of long database waits", cmd_dump_block_info},
    {"clear_block_info", "forget the records of long database waits", cmd_clear_block_info},
    {"set_block_times", "times=%d (>0)", libpmx_dbg_cmd_set_block_times},
};

} // namespace

extern "C" int libpmx_dbg_level_file(const char *name, char *path, size_t size)
{
    const char *root = dbg_root();
    char dir[512] = {0};
    at_snprintf(dir, sizeof dir, "%s/%s", root, name);
    if (access(dir, F_OK) == 0) return at_snprintf(path, size, "%s/%s/%s_dbg", root, name, name);
    return at_snprintf(path, size, "%s/%s/%s_dbg", root, "libpmx", "libpmx");
}

extern "C" int libpmx_dbg_zlog_init(const char *name)
{
    g_libpmx_zlog_category = qv_zlog_init("libpmx");
    if (g_libpmx_zlog_category == nullptr) {
        PMX_ERROR("qv_zlog_init fail");
        return LIBPMX_E_FAIL;
    }
    char path[512] = {0};
    libpmx_dbg_level_file(name, path, sizeof path);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return LIBPMX_OK; // no file: the level stays
    char text[17] = {0};
    if (read(fd, text, 16) > 0) g_libpmx_zlog_level = static_cast<int32_t>(std::strtol(text, nullptr, 10));
    close(fd);
    PMX_INFO("level file %s: dbg_level=%d", path, g_libpmx_zlog_level);
    return LIBPMX_OK;
}

extern "C" int libpmx_dbg_set_dbg_level(unsigned level)
{
    if (level > 5) {
        ssat_printf("set_val=%d invalid. %s\n", static_cast<int>(level), kLevelNames);
        return LIBPMX_E_INVAL;
    }
    g_libpmx_zlog_level = static_cast<int32_t>(level);
    print_level();
    return LIBPMX_OK;
}

extern "C" int libpmx_revert_dbg_level(qv_thread_t *thread)
{
    g_libpmx.record_timer = nullptr;
    PMX_WARN("stop recording log, qv_thread %p", static_cast<void *>(thread));
    g_libpmx_zlog_level = 1;
    print_level();
    return 0;
}

extern "C" void libpmx_dbg_record_log_tmp(int minutes)
{
    if (minutes < 1) {
        stop_recording(true);
        ssat_printf("invalid minutes %d. \n", minutes);
        return;
    }
    auto *ctx = static_cast<qv_mom_thread_global_t *>(qv_mom_get_thread_local_global());
    if (ctx == nullptr || ctx->master == nullptr) {
        stop_recording(true);
        ssat_printf("failed to get thread global. ");
        return;
    }
    const int m = std::min(minutes, LIBPMX_RECORD_MAX_MINUTES);
    qv_thread_t *timer = qv_thread_add_timer_timeval(ctx->master, libpmx_revert_dbg_level, nullptr, m * 60L, 0);
    if (timer == nullptr) {
        ssat_printf("start recording log failed. ");
        return;
    }
    stop_recording(false);
    g_libpmx.record_timer = timer;
    g_libpmx_zlog_level = 5;
    print_level();
    ssat_printf("start recording log for %d minutes. \n", m);
    PMX_WARN("start recording log for %d minutes.", m);
}

extern "C" int libpmx_dbg_cmd_set_dbg_level(const char *args)
{
    int level = 0;
    if (args == nullptr || std::sscanf(args, "dbg_level=%d", &level) != 1) {
        ssat_printf("usage: set_dbg_level dbg_level=%%d  (%s)\n", kLevelNames);
        return LIBPMX_E_INVAL;
    }
    return libpmx_dbg_set_dbg_level(static_cast<unsigned>(level));
}

extern "C" int libpmx_dbg_cmd_dump_dbg_level(const char *)
{
    print_level();
    return LIBPMX_OK;
}

extern "C" int libpmx_dbg_cmd_record_log_tmp(const char *args)
{
    int minutes = 0;
    if (args == nullptr || std::sscanf(args, "minutes=%d", &minutes) != 1) {
        ssat_printf("usage: record_log_tmp minutes=%%d\n");
        return LIBPMX_E_INVAL;
    }
    libpmx_dbg_record_log_tmp(minutes);
    return LIBPMX_OK;
}

extern "C" int libpmx_dbg_ut_init(void *glb, const char *name)
{
    (void)glb;
    int rc = ssat_multi_thread_init(name);
    if (rc != SSAT_OK) {
        PMX_ERROR("debug shell of %s not started, ret:%d", name, rc);
        return LIBPMX_E_FAIL;
    }
    for (const DebugCommand &c : kCommands) {
        rc = ssat_multi_thread_reg_mod_cmd(name, c.name, c.help, c.fn);
        if (rc != SSAT_OK && rc != SSAT_E_EXISTS) {
            PMX_ERROR("debug command %s of %s not registered, ret:%d", c.name, name, rc);
            return LIBPMX_E_FAIL;
        }
    }
    return LIBPMX_OK;
}
