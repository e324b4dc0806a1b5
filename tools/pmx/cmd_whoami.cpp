// pmx whoami: starts the library as an application would and prints who the local card is and
// the static attributes of its card type.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>

#include "commands.h"
#include "db_session.h"
#include "libpmx.h"
#include "libpmx_cap.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "p_dev.pb-c.h"
#include "ssat.h"

namespace pmx_tool
{
namespace
{

constexpr int kSleepsPerSecond = 1000000 / LIBPMX_BLOCK_INTERVAL_US; // sleeps between read attempts

struct WhoamiOptions {
    DbOptions db;
    int wait_seconds = 3;
    bool json = false;
};

// What whoami prints: sections of labelled values, as text or as one JSON object.
nlohmann::ordered_json g_report = nlohmann::ordered_json::object();
std::string g_section;

void section(const char *name)
{
    g_section = name;
    g_report[g_section] = nlohmann::ordered_json::object();
}

void row(const char *label, const std::string &value)
{
    g_report[g_section][label] = value;
}

void print_report(bool as_json)
{
    if (as_json) {
        std::printf("%s\n", g_report.dump().c_str());
        return;
    }
    for (const auto &[name, rows] : g_report.items()) {
        std::printf("%s\n", name.c_str());
        for (const auto &[label, value] : rows.items())
            std::printf("  %-20s%s\n", label.c_str(), value.get<std::string>().c_str());
    }
}

std::string number(int32_t v)
{
    return v == -1 ? "unknown" : std::to_string(v);
}

std::string enum_text(const ProtobufCEnumDescriptor *desc, int32_t v)
{
    if (v == -1) return "unknown";
    const ProtobufCEnumValue *ev = protobuf_c_enum_descriptor_get_value(desc, v);
    return ev != nullptr ? std::string(ev->name) + " (" + std::to_string(v) + ")"
                         : std::to_string(v);
}

std::string node_id_text(int32_t v)
{
    if (v == -1) return "unknown";
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%08" PRIx32 " (%" PRId32 ")", static_cast<uint32_t>(v), v);
    return buf;
}

// A getter's value when it returned 0, else unknown.
std::string counted(int rc, int32_t v)
{
    return rc == LIBPMX_OK ? std::to_string(v) : "unknown";
}

void print_identity(int32_t *info)
{
    // The getters read the database while their value is unknown; the array then holds all six.
    libpmx_get_my_node_type(1);
    libpmx_get_my_slot(1);
    libpmx_get_my_card_type(1);
    libpmx_get_my_node(1);
    libpmx_get_my_sslot(1);
    libpmx_get_my_dev_id(1);
    libpmx_get_my_info(info);

    section("local identity");
    row("node type", enum_text(&p_dev__dm_node_type_e__descriptor, info[LIBPMX_MY_NODE_TYPE]));
    row("slot", number(info[LIBPMX_MY_SLOT_ID]));
    row("card type", number(info[LIBPMX_MY_CARD_TYPE]));
    row("node id", node_id_text(info[LIBPMX_MY_NODE_ID]));
    row("sub-slot", number(info[LIBPMX_MY_SSLOT_ID]));
    row("device id", number(info[LIBPMX_MY_DEV_ID]));
}

void print_card_attributes(int32_t card_type)
{
    section("card static attributes");
    if (card_type == -1) {
        // They are the attributes of the local card type: without it the library would wait
        // for them in vain and then report zeros.
        for (const char *label :
             {"max lport id", "chip units", "modid alloc mode", "intraband chips", "virtual units"})
            row(label, "unknown");
        return;
    }
    row("max lport id", number(libpmx_get_max_lport_id()));
    // A wait that reached the limit bars this thread from waiting again for a while, so the
    // reads below are single attempts.
    if (libpmx_no_block_to_read_db() != 0)
        std::fprintf(stderr, "pmx: the database does not report the card attributes complete "
                             "(p_dev.dm_stattr_complete): those read now come back as zeros\n");
    int32_t chips = libpmx_get_local_chip_num();
    row("chip units", number(chips));
    for (int32_t unit = 0; unit < chips && unit < LIBPMX_UNITS_MAX; ++unit) {
        int32_t max_port = 0;
        int rc = libpmx_get_max_port_by_unit(static_cast<uint32_t>(unit), &max_port);
        std::string label = "max port, unit " + std::to_string(unit);
        row(label.c_str(), counted(rc, max_port));
    }
    uint32_t mode[4] = {};
    if (libpmx_port_get_lc_modid_alloc_mode(mode) == LIBPMX_OK) {
        row("modid alloc mode",
            enum_text(&p_dev__alloc_type__descriptor, static_cast<int32_t>(mode[0])) + ", id_num " +
                std::to_string(mode[1]) + ", idnum_per_unit " + std::to_string(mode[2]) +
                ", support_num " + std::to_string(mode[3]));
    } else {
        row("modid alloc mode", "unknown");
    }
    int32_t intraband = 0;
    int rc = libpmx_get_intraband_chip_num(&intraband);
    row("intraband chips", counted(rc, intraband));
    int32_t virtual_units = 0;
    rc = libpmx_get_my_virtual_unit_num(&virtual_units);
    row("virtual units", counted(rc, virtual_units));
}

int whoami(const WhoamiOptions &opt)
{
    DbSession session;
    if (!session.open(opt.db)) return kExitFailed;

    // The capability data read at start-up sets the limit too, so it is set on both sides.
    int32_t sleeps = opt.wait_seconds * kSleepsPerSecond;
    libpmx_cap_set_block_times(sleeps);
    int rc = libpmx_init(session.glb(), "pmx");
    if (rc != LIBPMX_OK)
        std::fprintf(stderr, "pmx: libpmx_init failed (%d); reading the records directly\n", rc);
    libpmx_cap_set_block_times(sleeps);

    int32_t info[LIBPMX_MY_INFO_NUM];
    print_identity(info);
    print_card_attributes(info[LIBPMX_MY_CARD_TYPE]);
    print_report(opt.json);
    std::fflush(stdout);

    // The library serves its debug commands from now on; this process has no use for them.
    char app_name[LIBPMX_APP_NAME_SIZE];
    if (rc == LIBPMX_OK && libpmx_get_app_name(app_name, sizeof app_name) == LIBPMX_OK)
        ssat_multi_thread_stop(app_name);
    if (info[LIBPMX_MY_SLOT_ID] == -1) {
        std::fprintf(stderr,
                     "pmx: no local identity: p_dev.dp_lib_my_info is not readable from "
                     "database %d of %s\n",
                     LIBPMX_DB_DEV, session.url().c_str());
        return kExitFailed;
    }
    return kExitOk;
}

} // namespace

Command add_whoami_command(CLI::App &app)
{
    auto opt = std::make_shared<WhoamiOptions>();
    CLI::App *sub = app.add_subcommand(
        "whoami", "Start the library and print the local card's identity and attributes");
    sub->footer("Fails when the local identity record is missing. Values the database does not\n"
                "give print as unknown.\n"
                "Examples:\n"
                "  pmx whoami --load examples/chassis/small.json\n"
                "  pmx whoami --db unix:///tmp/pmxdb/redis.sock --wait-seconds 10\n"
                "  pmx whoami --load examples/chassis/small.json --json");
    sub->add_flag("--json", opt->json, "Print one JSON object: each section's labelled values");
    sub->add_option("--wait-seconds", opt->wait_seconds,
                    "How long a read waits for a record that is not there yet")
        ->check(CLI::Range(0, 3600))
        ->capture_default_str();
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return whoami(*opt); }};
}

} // namespace pmx_tool
