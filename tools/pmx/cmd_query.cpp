// pmx query: one identity query of the library, run in this process with the read mode asked
// for, its answer printed with every phyid decoded into its fields.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>

#include "commands.h"
#include "db_session.h"
#include "libpmx_cap.h"
#include "libpmx_errno.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "phyid_text.h"

namespace pmx_tool
{
namespace
{

using Json = nlohmann::ordered_json;

struct QueryOptions {
    DbOptions db;
    std::string what;
    std::string id;
    int32_t subcard_type = 0;
    int32_t port = 0;
    int mode = 2;
    bool json = false;
};

// The answer of a query: the library's result code and the fields it gave.
struct Answer {
    int rc = 0;
    Json fields = Json::object();
};

Answer phyid_of_ifx(uint32_t ifx, int mode)
{
    Answer a;
    uint32_t gphyid = 0;
    a.rc = libpmx_get_phyid_by_ifx_detail(ifx, &gphyid, mode);
    if (a.rc == LIBPMX_OK) a.fields = {{"ifx", ifx}, {"gphyid", phyid_json(gphyid)}};
    return a;
}

Answer ifx_of_phyid(uint32_t phyid, int mode)
{
    Answer a;
    uint32_t ifx = 0;
    a.rc = libpmx_get_ifx_by_phyid_detail(phyid, &ifx, mode);
    if (a.rc == LIBPMX_OK) a.fields = {{"phyid", phyid_json(phyid)}, {"ifx", ifx}};
    return a;
}

// The blocking lookup waits for as long as the port's card is present and its record is not.
Answer ifx_of_phyid_block(uint32_t phyid)
{
    Answer a;
    uint32_t ifx = 0;
    a.rc = libpmx_get_ifx_by_phyid_block(phyid, &ifx);
    if (a.rc == LIBPMX_OK) a.fields = {{"phyid", phyid_json(phyid)}, {"ifx", ifx}};
    return a;
}

// Where a module id sits: its card, unit and node, the card's types and cid for one of its
// ports, and whether it is on the local card.
Answer modid(int32_t id, int32_t port, int mode)
{
    Answer a;
    libpmx_cap_init(nullptr, "pmx"); // the subcard-id switch
    int32_t dev = 0, slot = 0, unit = 0, node = 0, card_type = -1, subcard_type = 0, cid = -1, type = -1;
    a.rc = libpmx_get_dev_slot_unit_by_modid_detail(id, &dev, &slot, &unit, mode);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_node_unit_from_modid_detail(id, &node, &unit, mode);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_modid_type_from_cache(id, &type);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_card_type_by_modid_port(id, port, &card_type, &subcard_type, mode);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_cid_with_card_type(card_type, subcard_type, &cid, mode);
    if (a.rc != LIBPMX_OK) return a;
    char node_text[16];
    std::snprintf(node_text, sizeof node_text, "0x%08x", static_cast<uint32_t>(node));
    a.fields = {{"modid", id},
                {"dev", dev},
                {"slot", slot},
                {"unit", unit},
                {"gslot", libpmx_get_gslot_by_dev_slot_sslot(dev, slot, 0)},
                {"node", node_text},
                {"modid_type", type},
                {"port", port},
                {"card_type", card_type},
                {"subcard_type", subcard_type},
                {"cid", cid},
                {"local", libpmx_is_local_modid_detail(id, mode) != 0}};
    return a;
}

Answer sub_ap(uint32_t phyid, int mode)
{
    Answer a;
    libpmx_sub_ap_info_t r{};
    a.rc = libpmx_get_sub_ap_info_by_phyid_detail(phyid, &r, mode);
    if (a.rc == LIBPMX_OK)
        a.fields = {{"ifx", r.ifx},     {"phyid", phyid_json(r.phyid)}, {"evlan", r.evlan},
                    {"trunk", r.trunk}, {"master_phyid", phyid_json(r.master_phyid)}};
    return a;
}

Answer sub_route(uint32_t phyid, int mode)
{
    Answer a;
    libpmx_sub_route_info_t r{};
    a.rc = libpmx_get_sub_route_info_by_phyid_detail(phyid, &r, mode);
    if (a.rc == LIBPMX_OK)
        a.fields = {{"ifx", r.ifx},
                    {"phyid", phyid_json(r.phyid)},
                    {"evlan", r.evlan},
                    {"master_phyid", phyid_json(r.master_phyid)}};
    return a;
}

Answer cid(int32_t card_type, int32_t subcard_type, int mode)
{
    Answer a;
    int32_t v = -1;
    a.rc = libpmx_get_cid_with_card_type(card_type, subcard_type, &v, mode);
    if (a.rc == LIBPMX_OK) a.fields = {{"card_type", card_type}, {"subcard_type", subcard_type}, {"cid", v}};
    return a;
}

Answer scid(int32_t subcard_type, int mode)
{
    Answer a;
    // The subcard-id switch and table come from the capability data.
    libpmx_cap_init(nullptr, "pmx");
    int32_t v = 0;
    a.rc = libpmx_get_scid_with_subcard_type(subcard_type, &v, mode);
    if (a.rc == LIBPMX_OK)
        a.fields = {{"subcard_type", subcard_type},
                    {"scid", v},
                    {"subcard_id_enable", libpmx_cap_get_subcard_id_enable()}};
    return a;
}

void print_plain(const Json &fields)
{
    for (const auto &[name, value] : fields.items()) {
        if (value.is_object())
            std::printf("  %-18s%s\n", name.c_str(), value["text"].get<std::string>().c_str());
        else
            std::printf("  %-18s%s\n", name.c_str(), value.dump().c_str());
    }
}

int query(const QueryOptions &opt)
{
    std::string why;
    const auto id = parse_id(opt.id, &why);
    if (!id) {
        std::fprintf(stderr, "pmx: %s\n", why.c_str());
        return kExitUsage;
    }
    DbSession session;
    if (!session.open(opt.db)) return kExitFailed;

    Answer a;
    const std::string &w = opt.what;
    if (w == "phyid")
        a = phyid_of_ifx(*id, opt.mode);
    else if (w == "ifx")
        a = ifx_of_phyid(*id, opt.mode);
    else if (w == "ifx-block")
        a = ifx_of_phyid_block(*id);
    else if (w == "modid")
        a = modid(static_cast<int32_t>(*id), opt.port, opt.mode);
    else if (w == "sub-ap")
        a = sub_ap(*id, opt.mode);
    else if (w == "sub-route")
        a = sub_route(*id, opt.mode);
    else if (w == "cid")
        a = cid(static_cast<int32_t>(*id), opt.subcard_type, opt.mode);
    else
        a = scid(static_cast<int32_t>(*id), opt.mode);

    if (a.rc != LIBPMX_OK) {
        std::fprintf(stderr, "pmx: %s %s (mode %d): %s\n", w.c_str(), describe_id(w, *id).c_str(), opt.mode,
                     result_text(a.rc, w, *id, opt.mode).c_str());
        if (opt.json)
            std::printf("%s\n", Json({{"query", w}, {"id", opt.id}, {"mode", opt.mode}, {"result", a.rc},
                                      {"error", result_name(a.rc)}})
                                    .dump()
                                    .c_str());
        return kExitFailed;
    }
    if (opt.json) {
        Json out = {{"query", w}, {"id", opt.id}, {"mode", opt.mode}, {"result", 0}};
        out.update(a.fields);
        std::printf("%s\n", out.dump().c_str());
    } else {
        std::printf("%s %s (mode %d)\n", w.c_str(), describe_id(w, *id).c_str(), opt.mode);
        print_plain(a.fields);
    }
    return kExitOk;
}

} // namespace

Command add_query_command(CLI::App &app)
{
    auto opt = std::make_shared<QueryOptions>();
    CLI::App *sub = app.add_subcommand("query", "Ask the library one identity question");
    sub->footer("What to ask, and the id it takes:\n"
                "  phyid IFX            the gphyid of an interface\n"
                "  ifx PHYID            the interface of a gphyid (the older of two)\n"
                "  ifx-block PHYID      the same, waiting for the database as long as the port's\n"
                "                       card is present (types 7 and 25; --mode is not used)\n"
                "  modid MODID          where a module id sits, and its card's types and cid for\n"
                "                       one of its chip ports (--port, default 0)\n"
                "  sub-ap PHYID         the record of a sub-AP phyid (type 20)\n"
                "  sub-route PHYID      the record of a sub-route phyid (type 19)\n"
                "  cid CARD_TYPE        the card id of a card type (--subcard-type)\n"
                "  scid SUBCARD_TYPE    the subcard id of a subcard type\n"
                "Ids in decimal or 0x hex. --mode: 0 the caches of this process only, 1 the\n"
                "database once on a miss, 2 the database with waiting (default). A pmx process\n"
                "starts with empty caches, so mode 0 answers only what an earlier step cached.\n"
                "Examples:\n"
                "  pmx query --load examples/chassis/small.json phyid 301 --mode 1\n"
                "  pmx query --db unix:///tmp/pmxdb/redis.sock --json ifx 0x0710190c\n"
                "  pmx query --load examples/chassis/small.json modid 25 --port 12 --mode 2");
    sub->add_option("what", opt->what, "What to ask")
        ->required()
        ->check(CLI::IsMember({"phyid", "ifx", "ifx-block", "modid", "sub-ap", "sub-route", "cid", "scid"}));
    sub->add_option("id", opt->id, "The id asked about")->required();
    sub->add_option("--mode", opt->mode, "Read mode: 0, 1 or 2")->check(CLI::Range(0, 2));
    sub->add_option("--subcard-type", opt->subcard_type, "Subcard type of a cid query (default 0)");
    sub->add_option("--port", opt->port, "Chip port of a modid query (default 0)");
    sub->add_flag("--json", opt->json, "Print one JSON object");
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return query(*opt); }};
}

} // namespace pmx_tool
