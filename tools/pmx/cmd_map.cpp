// pmx map: one self-contained HTML page that draws a chassis (devices, slots, cards, subcards and
// their ports) from the library's tables: this process's, filled from a database or record files
// as the change callbacks fill them, or those of a running process read through its debug shell.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "commands.h"
#include "db_session.h"
#include "libpmx_cap.h"
#include "map_model.h"
#include "map_page.h"
#include "map_tables.h"

namespace pmx_tool
{
namespace
{

struct MapOptions {
    DbOptions db;
    MapSource source;
    std::string output = "pmx-map.html";
    std::string title;
};

std::string plural(size_t n, const char *one, const char *many)
{
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

// What the page names as its source.
std::string source_text(const MapOptions &opt)
{
    if (!opt.source.module.empty())
        return "module " + opt.source.module + (opt.source.pid != 0 ? " pid " + std::to_string(opt.source.pid) : "");
    std::string text;
    for (const std::string &f : opt.db.loads) text += (text.empty() ? "" : ", ") + f;
    if (!opt.db.url.empty()) text += (text.empty() ? "" : " in ") + opt.db.url;
    return text.empty() ? "the database of $PMX_DB" : text;
}

int map(const MapOptions &opt)
{
    MapTables tables;
    if (!opt.source.module.empty()) {
        if (!opt.db.url.empty() || !opt.db.loads.empty()) {
            std::fprintf(stderr, "pmx: --module reads the tables of a running process: no --db or --load with it\n");
            return kExitUsage;
        }
        if (const int status = read_map_tables(opt.source, &tables); status != kExitOk) return status;
    } else {
        DbSession session;
        if (!session.open(opt.db)) return kExitFailed;
        libpmx_cap_init(nullptr, "pmx");
        if (apply_followed_records() != 0) return kExitFailed;
        if (const int status = read_map_tables(opt.source, &tables); status != kExitOk) return status;
    }
    const std::string source = source_text(opt);
    MapModel model;
    std::string why;
    if (!build_map_model(tables, opt.title.empty() ? "Chassis map" : opt.title, source, &model, &why)) {
        std::fprintf(stderr, "pmx: the tables of %s do not make a map: %s\n", source.c_str(), why.c_str());
        return kExitFailed;
    }
    const std::string page = render_map_page(model.data);
    std::ofstream out(opt.output, std::ios::binary | std::ios::trunc);
    if (!out || !out.write(page.data(), static_cast<std::streamsize>(page.size())) || !out.flush()) {
        std::fprintf(stderr, "pmx: cannot write %s\n", opt.output.c_str());
        return kExitFailed;
    }
    const MapCounts &c = model.counts;
    std::printf("wrote %s\n", opt.output.c_str());
    std::printf("%s, %s, %s%s, %s (%s)\n", plural(c.devices, "device", "devices").c_str(),
                plural(c.cards, "card", "cards").c_str(), plural(c.ports, "port", "ports").c_str(),
                c.backplane != 0 ? (" and " + plural(c.backplane, "back-plane port", "back-plane ports")).c_str() : "",
                plural(c.interfaces, "interface", "interfaces").c_str(),
                plural(c.sub_interfaces, "sub-interface", "sub-interfaces").c_str());
    return kExitOk;
}

} // namespace

Command add_map_command(CLI::App &app)
{
    auto opt = std::make_shared<MapOptions>();
    CLI::App *sub = app.add_subcommand("map", "Write a chassis map: one self-contained HTML page");
    sub->footer("The page draws every device, slot, card and subcard with its ports, coloured by state;\n"
                "hovering or clicking a port shows its identities, the search box finds a port by any of\n"
                "them. It needs no network: styles, script and data are inside. See docs/map.md.\n"
                "Examples:\n"
                "  pmx gen examples/chassis/small.topo.json -o small.json\n"
                "  pmx map --load small.json -o small-map.html --title 'Sample chassis'\n"
                "  pmx map --db unix:///tmp/pmxdb/redis.sock\n"
                "  pmx map --module libpmx_pmx --pid 1234");
    sub->add_option("-o,--output", opt->output, "The page to write (default pmx-map.html)")->type_name("FILE");
    sub->add_option("--title", opt->title, "The page's title (default \"Chassis map\")")->type_name("TEXT");
    sub->add_option("--module", opt->source.module, "Read the tables of the running process serving this module");
    sub->add_option("--pid", opt->source.pid, "The process, when several serve the module")->check(CLI::PositiveNumber);
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return map(*opt); }};
}

} // namespace pmx_tool
