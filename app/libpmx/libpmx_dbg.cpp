// Debug level at run time: the level file read at start-up, the set and dump commands, the
// temporary recording that raises the level on a timer, and the debug-command registration.
#define LIBPMX_LOG_SOURCE "app/libpmx/libpmx_dbg"
#include "libpmx_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>

#include "libpmx.h"
#include "libpmx_errno.h"
#include "qv_mom.h"

namespace
{

// A refused level prints this whole; the help and usage lines show its list of level names.
constexpr char kRefusedLevel[] = "set_val=%d invalid. OFF:0, ERROR:1 WARM:2 NOTICE:3 INFO:4 DEBUG:5\n";
constexpr std::string_view kLevelNames = [] {
    constexpr std::string_view text(kRefusedLevel);
    const size_t begin = text.find(". ") + 2;
    return text.substr(begin, text.size() - 1 - begin);
}();

// The level file of a name; PMX_DBG_DIR, when set, takes the place of its root.
constexpr char kLevelFile[] = "/data/dbg/%s/%s_dbg";
constexpr size_t kRootLen = sizeof LIBPMX_DBG_DIR_DEFAULT - 1;
static_assert(std::string_view(kLevelFile).starts_with(LIBPMX_DBG_DIR_DEFAULT "/"));

void print_level()
{
    ssat_printf("proc_name=%s, dbg_level=%d\n", "libpmx", pmx::log_level());
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

const std::string kSetLevelHelp = "dbg_level=%d  (" + std::string(kLevelNames) + ")";
const libpmx_dbg_cmd_t kLevelCommands[] = {
    {"set_dbg_level", kSetLevelHelp.c_str(), libpmx_dbg_cmd_set_dbg_level},
    {"dump_dbg_level", "print the debug level", libpmx_dbg_cmd_dump_dbg_level},
    {"record_log_tmp", "minutes=%d  (debug level for at most 15 minutes, then ERROR)", libpmx_dbg_cmd_record_log_tmp},
};

// The command tables the subsystems handed over, and the module serving them once started.
struct CommandTables {
    static constexpr uint32_t kMax = 16;
    std::mutex mu;
    struct Table {
        const libpmx_dbg_cmd_t *cmds;
        uint32_t n;
    } tables[kMax] = {};
    uint32_t n_tables = 0;
    std::string module; // empty until the shell serves
};

CommandTables &command_tables()
{
    static CommandTables *t = new CommandTables; // outlives static destruction: the shell may still run
    return *t;
}

// Registers one table with the shell; a command already registered (a repeated start-up) is fine.
int serve_table(const std::string &module, const libpmx_dbg_cmd_t *cmds, uint32_t n)
{
    for (uint32_t i = 0; i < n; ++i) {
        const int rc = ssat_multi_thread_reg_mod_cmd(module.c_str(), cmds[i].name, cmds[i].help, cmds[i].fn);
        if (rc != SSAT_OK && rc != SSAT_E_EXISTS) {
            PMX_LOG_AS("libpmx_dbg_ut_init", LIBPMX_ZLOG_ERROR, "debug command %s of %s not registered, ret:%d",
                       cmds[i].name, module.c_str(), rc);
            return LIBPMX_E_FAIL;
        }
    }
    return LIBPMX_OK;
}

} // namespace

extern "C" int libpmx_dbg_level_file(const char *name, char *path, size_t size)
{
    const char *env = std::getenv(LIBPMX_DBG_DIR_ENV);
    const std::string root = env != nullptr && *env != '\0' ? env : LIBPMX_DBG_DIR_DEFAULT;
    // The directory of the name decides, existence alone; otherwise the library's own file.
    const char *who = access((root + "/" + name).c_str(), F_OK) == 0 ? name : "libpmx";
    char file[512] = {0};
    at_snprintf(file, sizeof file, kLevelFile, who, who);
    return at_snprintf(path, size, "%s%s", root.c_str(), file + kRootLen);
}

extern "C" int libpmx_dbg_zlog_init(const char *name)
{
    // A start-up done again runs while the event thread of the first one logs: stored atomically,
    // as the log writer reads it.
    qv_zlog_category_t *category = qv_zlog_init("libpmx");
    std::atomic_ref<qv_zlog_category_t *>(g_libpmx_zlog_category).store(category, std::memory_order_release);
    if (category == nullptr) {
        PMX_ERROR("qv_zlog_init fail");
        return LIBPMX_E_FAIL;
    }
    char path[512] = {0};
    libpmx_dbg_level_file(name, path, sizeof path);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return LIBPMX_OK; // no file: the level stays
    char text[17] = {0};
    // A number beyond 32 bits gives the nearest level that fits, whatever the width of long.
    if (read(fd, text, 16) > 0) {
        const long long number = std::strtoll(text, nullptr, 10);
        pmx::set_log_level(static_cast<int32_t>(std::clamp<long long>(number, INT32_MIN, INT32_MAX)));
    }
    close(fd);
    PMX_INFO("level file %s: dbg_level=%d", path, pmx::log_level());
    return LIBPMX_OK;
}

extern "C" int libpmx_dbg_set_dbg_level(unsigned level)
{
    if (level > 5) {
        ssat_printf(kRefusedLevel, static_cast<int>(level));
        return LIBPMX_E_INVAL;
    }
    pmx::set_log_level(static_cast<int32_t>(level));
    print_level();
    return LIBPMX_OK;
}

extern "C" int libpmx_revert_dbg_level(qv_thread_t *thread)
{
    g_libpmx.record_timer = nullptr;
    PMX_WARN("stop recording log, qv_thread %p", static_cast<void *>(thread));
    pmx::set_log_level(1);
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
    pmx::set_log_level(5);
    print_level();
    ssat_printf("start recording log for %d minutes. \n", m);
    PMX_WARN("start recording log for %d minutes.", m);
}

extern "C" int libpmx_dbg_cmd_set_dbg_level(const char *args)
{
    int level = 0;
    if (args == nullptr || std::sscanf(args, "dbg_level=%d", &level) != 1) {
        ssat_printf("usage: set_dbg_level dbg_level=%%d  (%.*s)\n", static_cast<int>(kLevelNames.size()),
                    kLevelNames.data());
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

extern "C" int libpmx_dbg_add_cmds(const libpmx_dbg_cmd_t *cmds, uint32_t n)
{
    if (cmds == nullptr) {
        PMX_ERROR("cmds is null, n:%u", n);
        return LIBPMX_E_INVAL;
    }
    CommandTables &t = command_tables();
    std::lock_guard<std::mutex> lock(t.mu);
    for (uint32_t i = 0; i < t.n_tables; ++i) {
        if (t.tables[i].cmds == cmds) return LIBPMX_OK;
    }
    if (t.n_tables == CommandTables::kMax) {
        PMX_ERROR("no room for the commands of %s (%u tables)", cmds[0].name, CommandTables::kMax);
        return LIBPMX_E_NOMEM;
    }
    t.tables[t.n_tables++] = {cmds, n};
    return t.module.empty() ? LIBPMX_OK : serve_table(t.module, cmds, n);
}

extern "C" int libpmx_dbg_run_cmd(const char *line)
{
    const std::string text = line != nullptr ? line : "";
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        ssat_printf("no command given\n");
        return LIBPMX_E_INVAL;
    }
    const size_t end = text.find_first_of(" \t", begin);
    const std::string name = text.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
    const std::string args = end == std::string::npos ? std::string() : text.substr(end + 1);
    ssat_cmd_fn fn = nullptr;
    for (const libpmx_dbg_cmd_t &c : kLevelCommands)
        if (name == c.name) fn = c.fn;
    {
        CommandTables &t = command_tables();
        std::lock_guard<std::mutex> lock(t.mu);
        for (uint32_t i = 0; i < t.n_tables && fn == nullptr; ++i)
            for (uint32_t j = 0; j < t.tables[i].n && fn == nullptr; ++j)
                if (name == t.tables[i].cmds[j].name) fn = t.tables[i].cmds[j].fn;
    }
    if (fn == nullptr) {
        ssat_printf("unknown command '%s'\n", name.c_str());
        return LIBPMX_E_INVAL;
    }
    return fn(args.c_str());
}

extern "C" int libpmx_dbg_ut_init(void *glb, const char *name)
{
    (void)glb;
    const int rc = ssat_multi_thread_init(name);
    if (rc != SSAT_OK) {
        PMX_ERROR("debug shell of %s not started, shell code %d, ret:%d", name, rc, LIBPMX_E_FAIL);
        return LIBPMX_E_FAIL;
    }
    CommandTables &t = command_tables();
    std::lock_guard<std::mutex> lock(t.mu);
    t.module = name;
    if (serve_table(t.module, kLevelCommands, sizeof kLevelCommands / sizeof kLevelCommands[0]) != LIBPMX_OK)
        return LIBPMX_E_FAIL;
    for (uint32_t i = 0; i < t.n_tables; ++i) {
        if (serve_table(t.module, t.tables[i].cmds, t.tables[i].n) != LIBPMX_OK) return LIBPMX_E_FAIL;
    }
    return LIBPMX_OK;
}
