// pmx shell: attaches to a module's debug shell and runs its commands.
#include <CLI/CLI.hpp>

#include <editline/readline.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "ssat.h"
#include "ssat_wire.h"

namespace pmx_tool
{
namespace
{

constexpr int kHistoryLines = 1000;

struct ShellOptions {
    std::string module;
    std::vector<std::string> words; // the command and its arguments, joined with spaces
    bool list = false;
};

void fail(const std::string &text)
{
    std::fprintf(stderr, "pmx: %s\n", text.c_str());
}

std::string trim(const std::string &s)
{
    const char *blanks = " \t\r";
    size_t begin = s.find_first_not_of(blanks);
    if (begin == std::string::npos) return {};
    return s.substr(begin, s.find_last_not_of(blanks) - begin + 1);
}

// Runs one line and prints its answer: output to standard output, the shell's own messages
// and a non-zero result code to standard error. False when the connection is lost.
bool run_command(int fd, const std::string &line, int32_t *code)
{
    std::string problem = ssat_wire::line_problem(line);
    if (!problem.empty()) {
        fail(problem);
        *code = SSAT_E_INVAL;
        return true;
    }
    std::string error;
    auto print = [](ssat_wire::Frame type, std::string_view text) {
        if (type == ssat_wire::Frame::Output) {
            std::fwrite(text.data(), 1, text.size(), stdout);
            std::fflush(stdout);
        } else {
            std::fprintf(stderr, "pmx: %.*s\n", static_cast<int>(text.size()), text.data());
        }
    };
    if (!ssat_wire::run_line(fd, line, print, code, &error)) {
        fail(error);
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
int run_session(int fd, const LineReader &next)
{
    bool failed = false;
    std::string line;
    while (next(&line)) {
        line = trim(line);
        if (line.empty()) continue;
        if (line == "quit" || line == "exit") break;
        int32_t code = 0;
        if (!run_command(fd, line, &code)) return kExitFailed;
        failed = failed || code != 0;
    }
    return failed ? kExitFailed : kExitOk;
}

std::string history_file()
{
    const char *home = std::getenv("HOME");
    return home != nullptr && *home != '\0' ? std::string(home) + "/.pmx_history" : std::string();
}

int interactive(int fd, const std::string &module)
{
    using_history();
    stifle_history(kHistoryLines);
    std::string history = history_file();
    if (!history.empty()) read_history(history.c_str()); // none yet is fine

    std::string prompt = module + "> ";
    int status = run_session(fd, [&prompt](std::string *line) {
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

int shell(const ShellOptions &opt)
{
    if (opt.list && !opt.words.empty()) {
        fail("shell --list takes no command");
        return kExitUsage;
    }
    int size = ssat_socket_path(opt.module.c_str(), nullptr, 0);
    if (size < 0) {
        fail("invalid module name '" + opt.module +
             "': use letters, digits, '_', '-' and '.', not leading '.'");
        return kExitUsage;
    }
    std::string path(static_cast<size_t>(size), '\0');
    ssat_socket_path(opt.module.c_str(), path.data(), path.size() + 1);

    std::string error;
    int fd = ssat_wire::connect_socket(path, &error);
    if (fd < 0) {
        fail("module " + opt.module + " is not serving: " + error);
        return kExitFailed;
    }
    int status;
    if (opt.list || !opt.words.empty()) {
        std::string line = opt.list ? "help" : "";
        for (const auto &word : opt.words)
            line += (line.empty() ? "" : " ") + word;
        int32_t code = 0;
        status = run_command(fd, line, &code) && code == 0 ? kExitOk : kExitFailed;
    } else if (isatty(STDIN_FILENO)) {
        status = interactive(fd, opt.module);
    } else {
        status = run_session(
            fd, [](std::string *line) { return static_cast<bool>(std::getline(std::cin, *line)); });
    }
    close(fd);
    return status;
}

} // namespace

Command add_shell_command(CLI::App &app)
{
    auto opt = std::make_shared<ShellOptions>();
    CLI::App *sub = app.add_subcommand("shell", "Run the debug commands a module serves");
    sub->footer("Without a command: an interactive session on a terminal (quit, exit or end of\n"
                "input ends it), otherwise one command per line of standard input.\n"
                "The exit status is 1 when a command ends with a non-zero code.\n"
                "Put -- before a command whose arguments start with '-'.\n"
                "Examples:\n"
                "  pmx shell MODULE --list\n"
                "  pmx shell MODULE COMMAND key=value\n"
                "  pmx shell MODULE < commands.txt");
    sub->add_option("module", opt->module, "The module whose shell to attach to")->required();
    sub->add_option("command", opt->words, "The command to run and its arguments");
    sub->add_flag("--list", opt->list, "List the module's commands and exit");
    return Command{sub, [opt] { return shell(*opt); }};
}

} // namespace pmx_tool
