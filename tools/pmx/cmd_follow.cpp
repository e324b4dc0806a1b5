// pmx follow: a process that starts the library against a database and keeps its caches current,
// printing each change the library applies and each notify type as it becomes ready, while its
// debug shell answers pmx dump, pmx query --module and pmx shell from other processes.
#include <CLI/CLI.hpp>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "commands.h"
#include "db_session.h"
#include "libpmx.h"
#include "libpmx_mom.h"

namespace pmx_tool
{
namespace
{

struct FollowOptions {
    DbOptions db;
    bool json = false;
    bool quiet = false;
    double seconds = 0; // 0: until SIGINT or SIGTERM
    uint32_t delay_ms = 0;
};

struct ChangePrinter {
    bool json = false;
    bool quiet = false;
    std::mutex mutex; // hooks and deliveries may come from different threads
    uint64_t changes = 0;
};
ChangePrinter g_printer;

// A JSON string literal of s.
std::string quoted(const char *s)
{
    std::string out = "\"";
    for (const char *p = s; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

double now_seconds()
{
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

void on_changes(const libpmx_event_t *events, uint32_t n, void *)
{
    std::lock_guard<std::mutex> lock(g_printer.mutex);
    g_printer.changes += n;
    if (g_printer.quiet) return;
    const double t = now_seconds();
    for (uint32_t i = 0; i < n; ++i) {
        const libpmx_event_t &e = events[i];
        const char *op = e.op == LIBPMX_EVENT_DEL ? "del" : "set";
        if (g_printer.json)
            std::printf("{\"time\":%.6f,\"op\":\"%s\",\"record\":%s,\"key\":%s,\"value\":%s}\n", t, op,
                        quoted(e.record).c_str(), quoted(e.key).c_str(), quoted(e.text).c_str());
        else
            std::printf("%s %s %s%s%s\n", op, e.record, e.key, *e.key != '\0' ? " " : "", e.text);
    }
    std::fflush(stdout);
}

void on_ready(void *, int type, int event, void *arg)
{
    std::lock_guard<std::mutex> lock(g_printer.mutex);
    if (g_printer.quiet) return;
    const char *name = libpmx_notify_name(type);
    long gslot = -1;
    if (type == LIBPMX_NOTIFY_CHIPSLOT_EVENT && arg != nullptr)
        gslot = static_cast<long>(static_cast<const ce_pmx_fuid_info_per_slot_t *>(arg)->gslot);
    if (g_printer.json)
        std::printf("{\"time\":%.6f,\"notify\":%d,\"name\":\"%s\",\"event\":%d,\"gslot\":%ld}\n", now_seconds(), type,
                    name, event, gslot);
    else if (gslot >= 0)
        std::printf("notify %s event %d gslot %ld\n", name, event, gslot);
    else
        std::printf("notify %s\n", name);
    std::fflush(stdout);
}

int follow(const FollowOptions &opt)
{
    // The signals are taken in this thread only: every thread the library starts inherits the mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    DbSession session;
    if (!session.open(opt.db)) return kExitFailed;
    g_printer.json = opt.json;
    g_printer.quiet = opt.quiet;
    for (int type = LIBPMX_NOTIFY_DS_ALL_EVENT; type <= LIBPMX_NOTIFY_CHIPSLOT_EVENT; ++type)
        libpmx_notify_reg(type, on_ready);
    const int id = libpmx_event_register(LIBPMX_EVENT_RECORD, on_changes, nullptr, opt.delay_ms);
    if (id < 0) {
        std::fprintf(stderr, "pmx: cannot register for the library's changes (%d)\n", id);
        return kExitFailed;
    }
    const int rc = libpmx_init(session.glb(), "pmx");
    if (rc != LIBPMX_OK) {
        std::fprintf(stderr, "pmx: libpmx_init against %s failed (%d)\n", session.url().c_str(), rc);
        return kExitFailed;
    }
    char name[LIBPMX_APP_NAME_SIZE] = "";
    libpmx_get_app_name(name, sizeof name);
    std::fprintf(stderr, "pmx: following %s as module %s (pid %d); stop with Ctrl-C\n", session.url().c_str(), name,
                 static_cast<int>(getpid()));

    if (opt.seconds > 0) {
        const auto whole = static_cast<time_t>(opt.seconds);
        const timespec limit{whole, static_cast<long>((opt.seconds - static_cast<double>(whole)) * 1e9)};
        sigtimedwait(&stop, nullptr, &limit);
    } else {
        int sig = 0;
        sigwait(&stop, &sig);
    }
    libpmx_event_unregister(id);
    std::lock_guard<std::mutex> lock(g_printer.mutex);
    std::fprintf(stderr, "pmx: %llu changes applied\n", static_cast<unsigned long long>(g_printer.changes));
    return kExitOk;
}

} // namespace

Command add_follow_command(CLI::App &app)
{
    auto opt = std::make_shared<FollowOptions>();
    CLI::App *sub = app.add_subcommand(
        "follow", "Start the library on a database, keep its caches current and print each change");
    sub->footer("Each change the library applies prints as 'set|del RECORD KEY VALUE' (compact form),\n"
                "each notify type as it becomes ready as 'notify NAME'. The process serves its debug\n"
                "shell as module libpmx_pmx, so other processes can ask it:\n"
                "  pmx dump ifx --module libpmx_pmx      pmx shell libpmx_pmx\n"
                "Examples:\n"
                "  pmx follow --db unix:///tmp/pmxdb/redis.sock\n"
                "  pmx follow --db unix:///tmp/pmxdb/redis.sock --json --seconds 30 > changes.jsonl");
    sub->add_flag("--json", opt->json, "One JSON object a line");
    sub->add_flag("--quiet", opt->quiet, "Print nothing but the summary at the end");
    sub->add_option("--seconds", opt->seconds, "Stop after this long (default: at SIGINT or SIGTERM)")
        ->check(CLI::Range(0.0, 1e7));
    sub->add_option("--delay-ms", opt->delay_ms, "Gather the changes of this many milliseconds into one print")
        ->check(CLI::Range(0, 60000))
        ->capture_default_str();
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return follow(*opt); }};
}

} // namespace pmx_tool
