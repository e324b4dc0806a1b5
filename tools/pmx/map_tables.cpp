// Reading the map's tables. Both sources print to standard output (libpmx_dbg_run_cmd here,
// run_shell_line for another process), so one capture serves both: standard output goes to an
// unnamed temporary file for the length of a command.
#include "map_tables.h"

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "commands.h"
#include "libpmx_dbg.h"

namespace pmx_tool
{
namespace
{

// The debug commands of the map, each printing one table or two (dump_cid_tbl).
const char *const kCommands[] = {
    "dump_card_info json=1", "dump_cid_tbl json=1",  "dump_global_sport json=1", "dump_chipslot json=1",
    "dump_ifx_tbl json=1",   "dump_sub_ap json=1",   "dump_sub_route json=1",    "dump_split_port json=1",
};

// Runs fn with standard output captured into *text; fn's status, or kExitFailed when standard
// output could not be moved (printed).
int capture_stdout(const std::function<int()> &fn, std::string *text)
{
    std::unique_ptr<FILE, decltype(&std::fclose)> tmp(std::tmpfile(), &std::fclose);
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    if (!tmp || saved < 0 || dup2(fileno(tmp.get()), STDOUT_FILENO) < 0) {
        std::perror("pmx: cannot capture the output of a debug command");
        if (saved >= 0) close(saved);
        return kExitFailed;
    }
    const int status = fn();
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::rewind(tmp.get());
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, tmp.get())) > 0) text->append(buf, n);
    return status;
}

std::string where(const MapSource &source)
{
    if (source.module.empty()) return "this process";
    return "module " + source.module + (source.pid != 0 ? " (pid " + std::to_string(source.pid) + ")" : "");
}

} // namespace

bool parse_table_lines(const std::string &text, MapTables *out, std::string *why)
{
    size_t begin = 0;
    for (int line = 1; begin < text.size(); ++line) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos) end = text.size();
        const std::string row = text.substr(begin, end - begin);
        begin = end + 1;
        if (row.empty() || row[0] != '{') continue;
        const nlohmann::json t = nlohmann::json::parse(row, nullptr, false);
        if (t.is_discarded() || !t.contains("table") || !t["table"].is_string() || !t.contains("rows") ||
            !t["rows"].is_array()) {
            *why = "line " + std::to_string(line) + " is no JSON table: " + row.substr(0, 80);
            return false;
        }
        out->rows[t["table"].get<std::string>()] = t["rows"];
    }
    return true;
}

int read_map_tables(const MapSource &source, MapTables *out)
{
    auto run = [&source](const std::string &line, std::string *text) {
        if (!source.module.empty())
            return capture_stdout([&] { return run_shell_line(source.module, source.pid, line); }, text);
        return capture_stdout([&] { return libpmx_dbg_run_cmd(line.c_str()) == 0 ? kExitOk : kExitFailed; }, text);
    };
    for (const char *command : kCommands) {
        std::string text, why;
        const int status = run(command, &text);
        if (status != kExitOk) {
            std::fprintf(stderr, "pmx: '%s' failed in %s\n", command, where(source).c_str());
            return status;
        }
        if (!parse_table_lines(text, out, &why)) {
            std::fprintf(stderr, "pmx: '%s' in %s: %s\n", command, where(source).c_str(), why.c_str());
            return kExitFailed;
        }
    }
    for (auto [command, text] : {std::pair{"dump_local_modid", &out->local_modids},
                                 std::pair{"dump_port_table", &out->port_table}})
        if (run(command, text) != kExitOk) {
            std::fprintf(stderr, "pmx: '%s' failed in %s\n", command, where(source).c_str());
            return kExitFailed;
        }
    return kExitOk;
}

} // namespace pmx_tool
