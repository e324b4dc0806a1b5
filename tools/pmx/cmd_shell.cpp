// pmx shell: lists the processes serving debug shells, attaches to one and runs its commands.
#include <CLI/CLI.hpp>

#include <editline/readline.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "ssat_client.h"
#include "tool_errors.h"

namespace pmx_tool
{
namespace
{

constexpr int kHistoryLines = 1000;

struct ShellOptions {
    std::string module;
    std::vector<std::string> words; // the command and its arguments, joined with spaces
    bool list = false;
    bool list_modules = false;
    bool json = false; // the process list as JSON
    pid_t pid = 0; // 0: the only process serving the module
};

std::string trim(const std::string &s)
{
    const char *blanks = " \t\r";
    size_t begin = s.find_first_not_of(blanks);
    if (begin == std::string::npos) return {};
    return s.substr(begin, s.find_last_not_of(blanks) - begin + 1);
}

// Runs one line and prints its answer: output to standard output, the shell's own messages
// and a non-zero result code to standard error. False when the connection is lost.
bool run_command(ssat_client_t *client, const std::string &line, int *code)
{
    auto print = [](void *, int kind, const char *text, size_t size) {
        if (kind == SSAT_CLIENT_OUTPUT) {
            std::fwrite(text, 1, size, stdout);
            std::fflush(stdout);
        } else {
            std::fprintf(stderr, "pmx: %.*s\n", static_cast<int>(size), text);
        }
    };
    int rc = ssat_client_run(client, line.c_str(), print, nullptr, code);
    if (rc == SSAT_CLIENT_E_INVAL) { // a line the shell would refuse: the session goes on
        fail(ssat_client_last_error());
        *code = rc;
        return true;
    }
    if (rc != SSAT_CLIENT_OK) {
        fail(ssat_client_last_error());
        return false;
    }
    if (*code != 0)
        std::fprintf(stderr, "pmx: '%s' ended with code %d\n",
                     line.substr(0, line.find_first_of(" \t")).c_str(), static_cast<int>(*code));
    return true;
}

// Reads the next line of a session into *line; false at its end.
using LineReader = std::function<bool(std::string *)>;

// Runs lines until the reader ends or "quit"/"exit"; fails when any command failed.
int run_session(ssat_client_t *client, const LineReader &next)
{
    bool failed = false;
    std::string line;
    while (next(&line)) {
        line = trim(line);
        if (line.empty()) continue;
        if (line == "quit" || line == "exit") break;
        int code = 0;
        if (!run_command(client, line, &code)) return kExitFailed;
        failed = failed || code != 0;
    }
    return failed ? kExitFailed : kExitOk;
}

std::string history_file()
{
    const char *home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.pmx_history" : std::string();
}

int interactive(ssat_client_t *client, const std::string &module)
{
    using_history();
    stifle_history(kHistoryLines);
    std::string history = history_file();
    if (!history.empty()) read_history(history.c_str()); // none yet is fine

    std::string prompt = module + "> ";
    int status = run_session(client, [&prompt](std::string *line) {
        std::unique_ptr<char, decltype(&std::free)> text(readline(prompt.c_str()), &std::free);
        if (!text) {
            std::printf("\n");
            return false;
        }
        *line = text.get();
        if (!trim(*line).empty()) add_history(text.get());
        return true;
    });
    // Kept only when the file can be written; it stays private to the user.
    if (!history.empty() && write_history(history.c_str()) == 0) chmod(history.c_str(), 0600);
    return status;
}

// The processes serving module (every module when empty); a negative code with the error
// printed.
int list_processes(const std::string &module, std::vector<ssat_client_proc_t> *procs)
{
    const char *filter = module.empty() ? nullptr : module.c_str();
    for (;;) { // a process may start between the two calls
        int n = ssat_client_list(filter, procs->data(), procs->size());
        if (n < 0) {
            fail(ssat_client_last_error());
            return n;
        }
        bool complete = static_cast<size_t>(n) <= procs->size();
        procs->resize(static_cast<size_t>(n));
        if (complete) return SSAT_CLIENT_OK;
    }
}

// One line a process: module, pid, socket.
void print_processes(FILE *out, const std::vector<ssat_client_proc_t> &procs, const char *indent)
{
    int width = 0;
    for (const auto &p : procs)
        width = std::max(width, static_cast<int>(std::strlen(p.module)));
    for (const auto &p : procs)
        std::fprintf(out, "%s%-*s  %7d  %s\n", indent, width, p.module, static_cast<int>(p.pid),
                     p.path);
}

int list_modules(const ShellOptions &opt)
{
    if (!opt.words.empty() || opt.list || opt.pid != 0) {
        fail("shell --list-modules takes no command, --list or --pid");
        return kExitUsage;
    }
    std::vector<ssat_client_proc_t> procs;
    if (int rc = list_processes(opt.module, &procs); rc != SSAT_CLIENT_OK)
        return rc == SSAT_CLIENT_E_INVAL ? kExitUsage : kExitFailed;
    if (procs.empty())
        fail(opt.module.empty() ? std::string("no process serves a debug shell")
                                : "module " + opt.module + " is not serving");
    if (opt.json) {
        nlohmann::ordered_json rows = nlohmann::ordered_json::array();
        for (const auto &p : procs) rows.push_back({{"module", p.module}, {"pid", p.pid}, {"socket", p.path}});
        std::printf("%s\n", nlohmann::ordered_json{{"table", "processes"}, {"rows", rows}, {"total", procs.size()}}.dump().c_str());
        return kExitOk;
    }
    print_processes(stdout, procs, "");
    return kExitOk;
}

// Connects to the process serving module: kExitOk with *client set, or an exit status with the
// reason printed.
int connect(const std::string &module, pid_t pid, ssat_client_t **client)
{
    int rc = ssat_client_connect(module.c_str(), pid, client);
    if (rc == SSAT_CLIENT_E_SEVERAL) {
        std::vector<ssat_client_proc_t> procs;
        if (list_processes(module, &procs) != SSAT_CLIENT_OK) return kExitFailed;
        fail("module " + module + " is served by several processes; pick one with --pid:");
        print_processes(stderr, procs, "  ");
        std::fprintf(stderr, "for example: pmx shell %s --pid %d ...\n", module.c_str(),
                     procs.empty() ? 0 : static_cast<int>(procs[0].pid));
        return kExitUsage;
    }
    if (rc != SSAT_CLIENT_OK) {
        fail(ssat_client_last_error());
        return rc == SSAT_CLIENT_E_INVAL ? kExitUsage : kExitFailed;
    }
    return kExitOk;
}

int shell(const ShellOptions &opt)
{
    if (opt.list_modules || opt.module.empty()) return list_modules(opt);
    if (opt.list && !opt.words.empty()) {
        fail("shell --list takes no command");
        return kExitUsage;
    }
    ssat_client_t *client = nullptr;
    if (int rc = connect(opt.module, opt.pid, &client); rc != kExitOk) return rc;
    int status;
    if (opt.list || !opt.words.empty()) {
        std::string line = opt.list ? "help" : "";
        for (const auto &word : opt.words)
            line += (line.empty() ? "" : " ") + word;
        int code = 0;
        status = run_command(client, line, &code) && code == 0 ? kExitOk : kExitFailed;
    } else if (isatty(STDIN_FILENO)) {
        status = interactive(client, opt.module);
    } else {
        status = run_session(client, [](std::string *line) {
            return static_cast<bool>(std::getline(std::cin, *line));
        });
    }
    ssat_client_close(client);
    return status;
}

} // namespace

int run_shell_line(const std::string &module, int pid, const std::string &line)
{
    ssat_client_t *client = nullptr;
    if (int rc = connect(module, pid, &client); rc != kExitOk) return rc;
    int code = 0;
    const int status = run_command(client, line, &code) && code == 0 ? kExitOk : kExitFailed;
    ssat_client_close(client);
    return status;
}

Command add_shell_command(CLI::App &app)
{
    auto opt = std::make_shared<ShellOptions>();
    CLI::App *sub = app.add_subcommand("shell", "Run the debug commands a module serves");
    sub->footer("Without a module: the processes serving a debug shell (module, pid, socket).\n"
                "Without a command: an interactive session on a terminal (quit, exit or end of\n"
                "input ends it), otherwise one command per line of standard input.\n"
                "When several processes serve the module, --pid picks one (without it: exit\n"
                "status 2).\n"
                "The exit status is 1 when a command ends with a non-zero code.\n"
                "Put -- before a command whose arguments start with '-'.\n"
                "Examples:\n"
                "  pmx shell --list-modules\n"
                "  pmx shell MODULE --list\n"
                "  pmx shell MODULE --pid 1234 COMMAND key=value\n"
                "  pmx shell MODULE < commands.txt");
    sub->add_option("module", opt->module, "The module whose shell to attach to");
    sub->add_option("command", opt->words, "The command to run and its arguments");
    sub->add_flag("--list", opt->list, "List the module's commands and exit");
    sub->add_flag("--list-modules", opt->list_modules,
                  "List the processes serving a debug shell (of MODULE only, when given) and exit");
    sub->add_flag("--json", opt->json, "With --list-modules: the processes as one JSON object");
    sub->add_option("--pid", opt->pid, "The process to attach to, when several serve the module")
        ->check(CLI::PositiveNumber);
    return Command{sub, [opt] { return shell(*opt); }};
}

} // namespace pmx_tool
