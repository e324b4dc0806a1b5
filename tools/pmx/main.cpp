// pmx: the command-line tool of libpmx.
#include <CLI/CLI.hpp>

#include <cstdlib>
#include <vector>

#include "commands.h"

int main(int argc, char **argv)
{
    // A command-line run shows the platform's warnings and errors, not its progress lines.
    setenv("PMX_LOG_LEVEL", "warn", 0);
    CLI::App app{"Inspect and drive libpmx, the port identity mapping library.", "pmx"};
    app.set_version_flag("--version", PMX_TOOL_VERSION);
    app.require_subcommand(1);
    app.footer("Each subcommand's --help has examples. Tables print as JSON with --json.\n"
               "Exit status: 0 done (nothing found, for check); 1 the command ran and failed or found something\n"
               "(bad data, a mismatch, an inconsistency, a process not serving); 2 the command line was wrong.\n"
               "Environment: PMX_DB (default database URL), PMX_CAP_FILE (capability file), PMX_RUN_DIR\n"
               "(debug-shell sockets), PMX_LOG_LEVEL (platform log level; warn here). docs/operations.md has them all.\n"
               "Examples:\n"
               "  pmx gen examples/chassis/small.topo.json -o small.json\n"
               "  pmx query --load small.json phyid 301\n"
               "  pmx map --load small.json -o small-map.html\n"
               "  pmx check --db unix:///run/pmx/redis.sock\n"
               "  pmx stats libpmx_pmx; pmx history libpmx_pmx --key 'ifx:301}'");

    std::vector<pmx_tool::Command> commands;
    commands.push_back(pmx_tool::add_decode_command(app));
    commands.push_back(pmx_tool::add_dump_command(app));
    commands.push_back(pmx_tool::add_load_command(app));
    commands.push_back(pmx_tool::add_gen_command(app));
    commands.push_back(pmx_tool::add_get_command(app));
    commands.push_back(pmx_tool::add_query_command(app));
    commands.push_back(pmx_tool::add_whoami_command(app));
    commands.push_back(pmx_tool::add_shell_command(app));
    commands.push_back(pmx_tool::add_verify_command(app));
    commands.push_back(pmx_tool::add_follow_command(app));
    commands.push_back(pmx_tool::add_churn_command(app));
    commands.push_back(pmx_tool::add_stats_command(app));
    commands.push_back(pmx_tool::add_history_command(app));
    commands.push_back(pmx_tool::add_map_command(app));
    commands.push_back(pmx_tool::add_check_command(app));

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help and --version end up here too, with a zero status.
        return app.exit(e) == 0 ? pmx_tool::kExitOk : pmx_tool::kExitUsage;
    }
    for (const auto &command : commands) {
        if (command.app->parsed()) return command.run();
    }
    return pmx_tool::kExitUsage;
}
