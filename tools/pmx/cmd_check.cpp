// pmx check: reads every record of the followed kinds straight from the database and reports each
// inconsistency between them (docs/check.md), for an operator who doubts the data rather than
// the library.
#include <CLI/CLI.hpp>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "check_findings.h"
#include "check_rules.h"
#include "check_snapshot.h"
#include "commands.h"
#include "db_session.h"
#include "libpmx_cap.h"
#include "libpmx_errno.h"
#include "tool_errors.h"

namespace pmx_tool
{
namespace
{

struct CheckOptions {
    DbOptions db;
    std::string caps;
    bool json = false;
    bool progress = false;
};

// The capability data the module-table rules compare with: --caps, else the library's own
// choice ($PMX_CAP_FILE, else the installed default).
bool load_caps(const std::string &path)
{
    if (!path.empty()) {
        if (!std::ifstream(path)) {
            fail("cannot read the capability file " + path);
            return false;
        }
        setenv("PMX_CAP_FILE", path.c_str(), 1);
    }
    if (libpmx_cap_init(nullptr, "pmx") == LIBPMX_OK) return true;
    const char *env = std::getenv("PMX_CAP_FILE");
    fail("cannot load the capability data from " +
         (env != nullptr && *env != '\0' ? std::string(env) : std::string("the installed default file")) +
         " (give a capability file with --caps)");
    return false;
}

int check(const CheckOptions &opt)
{
    if (!load_caps(opt.caps)) return kExitUsage;
    DbSession session;
    if (!session.open(opt.db)) return kExitUsage;
    Snapshot snapshot;
    std::string error;
    const ReadProgress progress{opt.progress || isatty(STDERR_FILENO) != 0};
    if (read_snapshot(session.url(), &snapshot, progress, &error) != 0) {
        fail(error);
        return kExitUsage;
    }
    if (snapshot.records == 0)
        std::fprintf(stderr, "pmx: note: %s holds no record of the kinds the library follows\n", session.url().c_str());
    Report report;
    check_port_tables(snapshot, &report);
    check_module_tables(snapshot, &report);
    check_card_addresses(snapshot, &report);
    check_unpackable(snapshot, &report);

    if (opt.json) {
        nlohmann::ordered_json out = {{"db", session.url()}, {"records", snapshot.records}, {"kinds", snapshot.kinds}};
        out.update(report.to_json());
        std::printf("%s\n", out.dump().c_str());
    } else {
        report.print_table(stdout, "checked " + std::to_string(snapshot.records) + " records of " +
                                       std::to_string(snapshot.kinds) + " kinds in " + session.url());
    }
    std::fflush(stdout);
    return report.total() == 0 ? kExitOk : kExitFailed;
}

} // namespace

Command add_check_command(CLI::App &app)
{
    auto opt = std::make_shared<CheckOptions>();
    CLI::App *sub = app.add_subcommand("check", "Report every inconsistency between the records of the database");
    sub->footer("Reads every record of the kinds the library follows straight from the database and\n"
                "compares them: interfaces with physical ports (both ways), split members, module ids\n"
                "of the slots against each other, the card records and the capability data, card\n"
                "ids, and values that do not unpack. Rules and finding lines: docs/check.md.\n"
                "Exit status: 0 nothing found, 1 findings, 2 a bad command line or a database or\n"
                "capability file that cannot be read.\n"
                "Examples:\n"
                "  pmx check --db unix:///tmp/pmxdb/redis.sock\n"
                "  pmx check --load examples/chassis/small.json --json\n"
                "  pmx check --db unix:///tmp/pmxdb/redis.sock --caps examples/chassis/large.caps.json");
    add_db_options(sub, &opt->db);
    sub->add_option("--caps", opt->caps,
                    "Capability file of the module-id ranges (default: $PMX_CAP_FILE, else the installed default)")
        ->type_name("FILE");
    sub->add_flag("--json", opt->json, "Print one JSON object instead of the table");
    sub->add_flag("--progress", opt->progress,
                  "Show the progress of a long read even when standard error is not a terminal");
    return Command{sub, [opt] { return check(*opt); }};
}

} // namespace pmx_tool
