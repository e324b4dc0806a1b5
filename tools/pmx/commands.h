// Subcommands of the pmx tool. Each one registers its options on the application and hands
// back the function that runs it once the command line has been parsed.
#ifndef PMX_TOOL_COMMANDS_H
#define PMX_TOOL_COMMANDS_H

#include <functional>
#include <string>

namespace CLI
{
class App;
}

namespace pmx_tool
{

// Exit statuses shared by every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1; // the command ran and failed (bad data, unknown kind...)
inline constexpr int kExitUsage = 2;  // the command line itself was wrong

struct Command {
    CLI::App *app;            // the subcommand, to tell whether it was chosen
    std::function<int()> run; // runs it; returns the exit status
};

Command add_check_command(CLI::App &app);
Command add_churn_command(CLI::App &app);
Command add_decode_command(CLI::App &app);
Command add_dump_command(CLI::App &app);
Command add_follow_command(CLI::App &app);
Command add_gen_command(CLI::App &app);
Command add_history_command(CLI::App &app);
Command add_get_command(CLI::App &app);
Command add_load_command(CLI::App &app);
Command add_map_command(CLI::App &app);
Command add_query_command(CLI::App &app);
Command add_shell_command(CLI::App &app);
Command add_stats_command(CLI::App &app);
Command add_verify_command(CLI::App &app);
Command add_whoami_command(CLI::App &app);

// Runs one debug command line in the process serving module (pid 0: the only one), its output to
// standard output; an exit status (kExitUsage when several processes serve it and none is picked).
int run_shell_line(const std::string &module, int pid, const std::string &line);

} // namespace pmx_tool

#endif // PMX_TOOL_COMMANDS_H
