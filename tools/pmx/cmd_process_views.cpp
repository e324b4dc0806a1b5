// pmx stats and pmx history: what a running process's library has counted and the last changes
// it applied, read through its debug shell.
#include <CLI/CLI.hpp>

#include <memory>
#include <string>

#include "commands.h"

namespace pmx_tool
{
namespace
{

struct ProcessOptions {
    std::string module;
    int pid = 0;
    bool json = false;
};

void add_process_options(CLI::App *sub, ProcessOptions *opt)
{
    sub->add_option("module", opt->module, "The module the process serves its debug shell as")->required();
    sub->add_option("--pid", opt->pid, "The process, when several serve the module")->check(CLI::PositiveNumber);
    sub->add_flag("--json", opt->json, "Print JSON: one object per table and line");
}

struct StatsOptions : ProcessOptions {
    bool all = false;
    bool reset = false;
};

struct HistoryOptions : ProcessOptions {
    std::string key;
    std::string record;
    unsigned count = 50;
};

} // namespace

Command add_stats_command(CLI::App &app)
{
    auto opt = std::make_shared<StatsOptions>();
    CLI::App *sub = app.add_subcommand("stats", "Print a running process's cache and record statistics");
    sub->footer("Lookups, hits and misses of every cache; database reads, failures, waits and their time, and\n"
                "applied changes of every record kind, since the process started or the last --reset.\n"
                "Examples:\n"
                "  pmx stats libpmx_pmx\n"
                "  pmx stats libpmx_pmx --json --all\n"
                "  pmx stats libpmx_pmx --reset");
    add_process_options(sub, opt.get());
    sub->add_flag("--all", opt->all, "Show the caches and records not used yet too");
    sub->add_flag("--reset", opt->reset, "Count from now on (prints nothing else)");
    return Command{sub, [opt] {
                       std::string line = "stats";
                       if (opt->reset) line += " reset=1";
                       if (opt->all) line += " all=1";
                       if (opt->json) line += " json=1";
                       return run_shell_line(opt->module, opt->pid, line);
                   }};
}

Command add_history_command(CLI::App &app)
{
    auto opt = std::make_shared<HistoryOptions>();
    CLI::App *sub = app.add_subcommand("history", "Print the last changes a running process applied from the database");
    sub->footer("Newest first: time, sequence number, add/change/delete, record, key, and the old and new values\n"
                "in compact form. --key keeps the changes whose key text holds the given text.\n"
                "Examples:\n"
                "  pmx history libpmx_pmx --count 20\n"
                "  pmx history libpmx_pmx --key 'ifx:1027}'\n"
                "  pmx history libpmx_pmx --record pmx_mod_tbl --json");
    add_process_options(sub, opt.get());
    sub->add_option("--key", opt->key, "Only changes whose key text holds this text (e.g. 'ifx:1027}')");
    sub->add_option("--record", opt->record, "Only records whose name holds this text (e.g. pmx_ifx_tbl)");
    sub->add_option("--count", opt->count, "How many to show (default 50)")->check(CLI::PositiveNumber);
    return Command{sub, [opt] {
                       if (opt->record.find_first_of(" \t") != std::string::npos) {
                           std::fprintf(stderr, "pmx: --record takes one word, not '%s'\n", opt->record.c_str());
                           return kExitUsage;
                       }
                       std::string line = "history count=" + std::to_string(opt->count);
                       if (opt->json) line += " json=1";
                       if (!opt->record.empty()) line += " record=" + opt->record;
                       // key= takes the rest of the line, so it comes last.
                       if (!opt->key.empty()) line += " key=" + opt->key;
                       return run_shell_line(opt->module, opt->pid, line);
                   }};
}

} // namespace pmx_tool
