// pmx get: reads one record through the library's database reads and prints it.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "db_session.h"
#include "libpmx_mom.h"
#include "libpmx_protoc_fmt.h"
#include "record_kinds.h"
#include "tool_errors.h"

namespace pmx_tool
{
namespace
{

struct GetOptions {
    DbOptions db;
    std::string kind;
    std::vector<std::string> key_words;
    bool compact = false;
    bool json = false;
    std::optional<int> db_number;
    std::string form;
};

// The decoder handed to the library's reads: prints the record it is given.
struct RecordPrinter {
    bool json;
    int flags;
    int db;
    Form form;
    int rc = 0; // the formatter's result
};

int print_record(const void *reply, void *out)
{
    auto *printer = static_cast<RecordPrinter *>(out);
    const auto *record = static_cast<const ProtobufCMessage *>(reply);
    if (printer->json) {
        nlohmann::ordered_json file = {
            {"records",
             nlohmann::ordered_json::array({record_to_json(record, printer->db, printer->form)})}};
        std::printf("%s\n", file.dump(2).c_str());
    } else {
        printer->rc = libpmx_protoc_format_message_to_console(printer->flags, record);
    }
    std::fflush(stdout);
    return printer->rc;
}

int get(const GetOptions &opt)
{
    const ProtobufCMessageDescriptor *desc = find_kind(opt.kind);
    if (desc == nullptr) {
        fail(unknown_kind_error(opt.kind));
        return kExitFailed;
    }
    if (!is_record_kind(desc)) {
        fail(opt.kind + " is a part of other records, not a record");
        return kExitFailed;
    }
    MessagePtr key;
    try {
        key = key_from_words(desc, opt.key_words);
    } catch (const FieldError &e) {
        fail(e.path.empty() ? e.text : "key field " + e.path + ": " + e.text);
        return kExitUsage;
    }
    int db = 0;
    Form form = Form::Plain;
    bool has_db = default_placement(desc, &db, &form);
    if (opt.db_number) {
        db = *opt.db_number;
    } else if (!has_db) {
        fail(std::string(desc->name) + " is not a record the library reads: give --dbnum");
        return kExitUsage;
    }
    if (!opt.form.empty()) form = opt.form == "hash" ? Form::Hash : Form::Plain;

    DbSession session;
    if (!session.open(opt.db)) return kExitFailed;

    RecordPrinter printer{opt.json, opt.compact ? LIBPMX_FMT_COMPACT : 0, db, form};
    qv_mom_key_t mom_key{key.get(), desc};
    int rc = form == Form::Hash ? libpmx_hget_info_from_db(&mom_key, db, print_record, &printer)
                                : libpmx_get_info_from_db(&mom_key, db, print_record, &printer);
    if (rc == LIBPMX_OK) return kExitOk;

    std::string what = desc->name;
    if (key->descriptor != desc) what += " " + key_fields_text(key.get());
    std::string where = "database " + std::to_string(db);
    if (printer.rc != 0) {
        fail("formatting " + what + " failed: " + std::to_string(printer.rc));
    } else if (rc == LIBPMX_E_NOT_FOUND) {
        fail(what + " is not in " + where);
    } else if (rc == LIBPMX_E_NO_DB) {
        fail("no connection to the database " + session.url());
    } else if (rc == LIBPMX_E_FAIL) {
        fail("reading " + what + " as a " + form_name(form) + " record from " + where +
             " failed: stored in the other form (try --form), or it does not unpack as " +
             desc->name);
    } else {
        fail("reading " + what + " from " + where + " failed: " + std::to_string(rc));
    }
    return kExitFailed;
}

} // namespace

Command add_get_command(CLI::App &app)
{
    auto opt = std::make_shared<GetOptions>();
    CLI::App *sub = app.add_subcommand("get", "Read one record from the database and print it");
    sub->footer("The key values follow the record name, in the field order of its key message;\n"
                "a singleton takes none. Enums by name or number, bytes as hex.\n"
                "Examples:\n"
                "  pmx get --load examples/chassis/small.json u_intf.pmx_ifx_tbl 301\n"
                "  pmx get --db unix:///tmp/pmxdb/redis.sock p_dev.card_info 0 1 3 0\n"
                "  pmx get --compact p_dev.dp_lib_my_info");
    sub->add_option("record", opt->kind, "Full name of the record kind, e.g. u_intf.pmx_ifx_tbl")
        ->required();
    sub->add_option("key", opt->key_words, "The values of the key fields");
    sub->add_flag("--compact", opt->compact, "Print on one line");
    sub->add_flag("--json", opt->json, "Print as a record file, ready for pmx load");
    sub->add_option("--dbnum", opt->db_number,
                    "Database number (default: where the library reads the record)")
        ->check(CLI::Range(0, QV_MOM_DB_COUNT - 1));
    sub->add_option("--form", opt->form,
                    "Read as a hash or a plain record (default: as the library does)")
        ->check(CLI::IsMember({"hash", "plain"}));
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return get(*opt); }};
}

} // namespace pmx_tool
