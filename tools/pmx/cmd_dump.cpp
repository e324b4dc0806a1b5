// pmx dump: prints one of the library's tables, from a running process through its debug shell
// (--module), or from this process after its caches were filled from a database or record files
// the way the change callbacks fill them.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "db_session.h"
#include "libpmx_cap.h"
#include "libpmx_dbg.h"
#include "libpmx_mom.h"

namespace pmx_tool
{
namespace
{

struct DumpOptions {
    DbOptions db;
    std::string table;
    std::vector<std::string> args; // name=value arguments of the table's debug command
    std::string module;
    int pid = 0;
    bool json = false;
};

struct Table {
    const char *name;
    const char *command; // the library's debug command
    const char *what;
    bool json = true; // the command prints its table as JSON when given json=1
};

const Table kTables[] = {
    {"ifx", "dump_ifx_tbl", "interface table in ifx-chain order [ifx=]"},
    {"phy", "dump_phy_tbl", "interface table in gphyid-chain order [phyid=]"},
    {"ifx-by-slot", "dump_ifx_tbl_by_dev_slot", "interfaces of a device or slot dev= [slot=]"},
    {"ifx-ordered", "dump_ifx_tbl_ordered_by", "interfaces sorted by=0 (ifx), 1 (gphyid), 2 (dev/slot)"},
    {"cid", "dump_cid_tbl", "card ids and subcard ids [card_type=] [subcard_type=]"},
    {"sub-ap", "dump_sub_ap", "sub-AP interfaces [ifx=]"},
    {"sub-route", "dump_sub_route", "sub-route interfaces [ifx=]"},
    {"chipid", "dump_chipid_res", "chip-id resources [modid=]"},
    {"chipslot", "dump_chipslot", "per-slot module tables [gslot=]"},
    {"local-modid", "dump_local_modid", "the local card's module ids", false},
    {"card-info", "dump_card_info", "card type of every dev/slot/sslot"},
    {"global-sport", "dump_global_sport", "sub-slot and panel port of card types' chip ports"},
    {"port-table", "dump_port_table", "the local card's chip ports"},
    {"sysport", "dump_sysport", "system ports and the port each names"},
    {"split-glb", "dump_split_glb_phy", "split ports: gphyid <-> module port"},
    {"split-local", "dump_split_local_phy", "split ports: lphyid <-> unit port"},
    {"split-port", "dump_split_port", "split ports: gslot unit port <-> panel port"},
    {"cap", "dump_cap", "capability values in use", false},
    {"block", "dump_block_info", "the last long database waits", false},
    {"notify", "dump_notify", "which notify types are ready, and the hooks waiting", false},
    {"events", "dump_events", "registrations of the timed event delivery", false},
};

const Table *find_table(const std::string &name)
{
    for (const Table &t : kTables)
        if (name == t.name) return &t;
    return nullptr;
}

int dump(const DumpOptions &opt)
{
    const Table *t = find_table(opt.table);
    if (t == nullptr) {
        std::fprintf(stderr, "pmx: no table '%s'; the tables:\n", opt.table.c_str());
        for (const Table &each : kTables) std::fprintf(stderr, "  %-13s %s\n", each.name, each.what);
        return kExitUsage;
    }
    if (opt.json && !t->json) {
        std::fprintf(stderr, "pmx: table '%s' has no JSON form\n", t->name);
        return kExitUsage;
    }
    std::string line = t->command;
    for (const std::string &a : opt.args) line += " " + a;
    if (opt.json) line += " json=1";
    if (!opt.module.empty()) {
        if (!opt.db.url.empty() || !opt.db.loads.empty()) {
            std::fprintf(stderr, "pmx: --module reads the tables of a running process: no --db or --load with it\n");
            return kExitUsage;
        }
        return run_shell_line(opt.module, opt.pid, line);
    }
    DbSession session;
    if (!session.open(opt.db)) return kExitFailed;
    libpmx_cap_init(nullptr, "pmx");
    size_t applied = 0;
    if (apply_followed_records(&applied) != 0) return kExitFailed;
    std::fflush(stdout);
    const int rc = libpmx_dbg_run_cmd(line.c_str());
    std::fflush(stdout);
    if (rc != 0) std::fprintf(stderr, "pmx: '%s' ended with code %d (%zu records applied)\n", line.c_str(), rc, applied);
    return rc == 0 ? kExitOk : kExitFailed;
}

} // namespace

Command add_dump_command(CLI::App &app)
{
    auto opt = std::make_shared<DumpOptions>();
    CLI::App *sub = app.add_subcommand("dump", "Print one of the library's tables");
    std::string tables = "Tables (arguments as the debug commands take them, name=value):\n";
    for (const Table &t : kTables) tables += "  " + std::string(t.name) + std::string(14 - std::string(t.name).size(), ' ') + t.what + "\n";
    sub->footer(tables +
                "Without --module the tables are this process's, filled from the database (--db) or\n"
                "record files (--load) as the library's change callbacks fill them.\n"
                "Examples:\n"
                "  pmx dump --load examples/chassis/small.json chipslot\n"
                "  pmx dump --load examples/chassis/small.json --json sysport\n"
                "  pmx dump --load examples/chassis/small.json ifx-by-slot dev=1 slot=3\n"
                "  pmx dump --module libpmx_follow port-table");
    sub->add_option("table", opt->table, "The table")->required();
    sub->add_option("args", opt->args, "Arguments of the table's debug command (name=value)");
    sub->add_option("--module", opt->module, "Read the table of the running process serving this module");
    sub->add_option("--pid", opt->pid, "The process, when several serve the module")->check(CLI::PositiveNumber);
    sub->add_flag("--json", opt->json, "Print the table as one JSON object (rows and total)");
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return dump(*opt); }};
}

} // namespace pmx_tool
