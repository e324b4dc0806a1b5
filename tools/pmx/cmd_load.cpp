// pmx load: writes the records of JSON record files into the database.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "db_session.h"

namespace pmx_tool
{
namespace
{

struct LoadOptions {
    DbOptions db;
    std::vector<std::string> files;
};

int load(const LoadOptions &opt)
{
    DbSession session;
    DbOptions db = opt.db;
    db.loads.clear();
    if (!session.open(db)) return kExitFailed;
    long total = 0;
    std::vector<std::string> files = opt.db.loads;
    files.insert(files.end(), opt.files.begin(), opt.files.end());
    for (const auto &file : files) {
        long n = session.load(file);
        if (n < 0) return kExitFailed;
        total += n;
    }
    std::printf("loaded %ld record%s into %s\n", total, total == 1 ? "" : "s",
                session.url().c_str());
    std::fflush(stdout);
    if (session.url().starts_with("embedded"))
        std::fprintf(stderr, "pmx: note: the embedded store ends with this command; give --load "
                             "to the command that reads it, or --db a Redis server\n");
    return kExitOk;
}

} // namespace

Command add_load_command(CLI::App &app)
{
    auto opt = std::make_shared<LoadOptions>();
    CLI::App *sub =
        app.add_subcommand("load", "Write the records of JSON record files into the database");
    sub->footer("A record file is {\"records\": [{\"record\": NAME, \"key\": {...}, \"value\": "
                "{...}}, ...]};\n"
                "see examples/chassis/README.md. A file with any error writes nothing.\n"
                "Examples:\n"
                "  pmx load --db unix:///tmp/pmxdb/redis.sock examples/chassis/small.json\n"
                "  PMX_DB=redis://127.0.0.1:6379 pmx load chassis.json");
    sub->add_option("file", opt->files, "The record files")->required();
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return load(*opt); }};
}

} // namespace pmx_tool
