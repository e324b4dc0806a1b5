// The library tables a chassis map is drawn from, read as the debug commands print them with
// json=1: from this process's caches, or from a running process through its debug shell. Both
// sources run the same commands, so the map of either is built from the same text.
#ifndef PMX_TOOL_MAP_TABLES_H
#define PMX_TOOL_MAP_TABLES_H

#include <nlohmann/json.hpp>

#include <map>
#include <string>

namespace pmx_tool
{

struct MapTables {
    // "interfaces", "card_info", "card_ids", "subcard_ids", "global_sport", "chipslot", "sub_ap",
    // "sub_route", "split_port": the "rows" of each table printed.
    std::map<std::string, nlohmann::json> rows;
    // Two commands without a JSON form: dump_local_modid (the local card's module ids, or why
    // none) and dump_port_table (its last line names the back-plane lports of the local card).
    std::string local_modids;
    std::string port_table;
};

// Where the tables come from: this process (module empty) or the process serving module.
struct MapSource {
    std::string module;
    int pid = 0;
};

// Runs every command of the map and parses its tables. kExitOk, or an exit status after printing
// what failed (the command, the module, the text that does not parse).
int read_map_tables(const MapSource &source, MapTables *out);

// Parses the output of one command: each line that starts with '{' is one table. False with *why
// naming the line that does not parse.
bool parse_table_lines(const std::string &text, MapTables *out, std::string *why);

} // namespace pmx_tool

#endif // PMX_TOOL_MAP_TABLES_H
