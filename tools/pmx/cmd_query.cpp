// pmx query: one identity query of the library, run in this process with the read mode asked
// for, its answer printed with every phyid decoded into its fields.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "db_session.h"
#include "hex.h"
#include "libpmx_cap.h"
#include "libpmx_errno.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "libpmx_mom.h"
#include "libpmx_port.h"
#include "libpmx_split.h"
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
    bool apply = false; // fill the caches from the records first, as a follower's are
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
    int32_t dev = 0, slot = 0, unit = 0, node = 0, card_type = -1, subcard_type = 0, cid = -1, type = -1;
    a.rc = libpmx_get_dev_slot_unit_by_modid_detail(id, &dev, &slot, &unit, mode);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_node_unit_from_modid_detail(id, &node, &unit, mode);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_modid_type_from_cache(id, &type);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_card_type_by_modid_port(id, port, &card_type, &subcard_type, mode);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_cid_with_card_type(card_type, subcard_type, &cid, mode);
    if (a.rc != LIBPMX_OK) return a;
    a.fields = {{"modid", id},
                {"dev", dev},
                {"slot", slot},
                {"unit", unit},
                {"gslot", libpmx_get_gslot_by_dev_slot_sslot(dev, slot, 0)},
                {"node", hex32(static_cast<uint32_t>(node))},
                {"modid_type", type},
                {"port", port},
                {"card_type", card_type},
                {"subcard_type", subcard_type},
                {"cid", cid},
                {"local", libpmx_is_local_modid_detail(id, mode) != 0}};
    return a;
}

// "A/B[/C...]": between lo and hi numbers, each a 32-bit id; empty with *why on bad text.
std::vector<int32_t> parse_tuple(const std::string &text, size_t lo, size_t hi, std::string *why)
{
    std::vector<int32_t> parts;
    size_t begin = 0;
    for (;;) {
        const size_t end = text.find('/', begin);
        const auto part = parse_id(text.substr(begin, end == std::string::npos ? end : end - begin), why);
        if (!part) return {};
        parts.push_back(static_cast<int32_t>(*part));
        if (end == std::string::npos) break;
        begin = end + 1;
    }
    if (parts.size() < lo || parts.size() > hi) {
        *why = "'" + text + "' takes " + std::to_string(lo) + (lo == hi ? "" : " to " + std::to_string(hi)) +
               " numbers separated by '/'";
        return {};
    }
    return parts;
}

// The modid of a card's unit and core from its module table (read by its slot first with a mode
// other than 0, and kept as the change callbacks keep it): dev/slot/unit[/core].
Answer chip(const std::vector<int32_t> &t, int mode)
{
    Answer a;
    const int32_t core = t.size() > 3 ? t[3] : 0;
    int32_t modid = -1;
    if (mode != 0) {
        // The module table of that slot, read and kept as the change callbacks would keep it.
        libpmx_mod_tbl_info_t info{};
        if (libpmx_get_mod_tbl_from_dev_slot_sslot(t[0], t[1], 0, libpmx_mod_tbl_decode, &info, mode) == 0)
            libpmx_add_mod_tbl(info.dev, info.slot, info.sslot, &info.tbl);
    }
    a.rc = libpmx_get_modid_by_dev_slot_unit_core(&modid, t[0], t[1], t[2], core);
    if (a.rc == LIBPMX_OK)
        a.fields = {{"dev", t[0]}, {"slot", t[1]}, {"unit", t[2]}, {"core", core}, {"modid", modid}};
    return a;
}

// A chip port of the local card: its panel port, core, unit kind and subcard ids.
Answer unit_port(const std::vector<int32_t> &t, int mode)
{
    Answer a;
    int32_t lport = -1, core = -1, subcard_type = 0, scid = 0;
    a.rc = libpmx_get_coreid_by_unit_port_detail(t[0], t[1], &core, mode);
    if (a.rc == LIBPMX_OK) a.rc = libpmx_get_subcard_type_scid_by_unit_port(t[0], t[1], &subcard_type, &scid, mode);
    if (a.rc != LIBPMX_OK) return a;
    const bool has_lport = libpmx_get_lport_by_unit_port_detail(t[0], t[1], &lport, 0) == LIBPMX_OK;
    uint32_t lphyid = 0;
    const bool has_lphyid = libpmx_get_lphyid_by_unit_port_detail(t[0], t[1], &lphyid, mode) == LIBPMX_OK;
    a.fields = {{"unit", t[0]},
                {"port", t[1]},
                {"lphyid", has_lphyid ? phyid_json(lphyid) : Json(nullptr)},
                {"lport", has_lport ? Json(lport) : Json(nullptr)},
                {"core", core},
                {"virtual_unit", libpmx_is_local_virtual_unit_port(t[0], t[1]) != 0},
                {"subcard_type", subcard_type},
                {"scid", scid}};
    return a;
}

// The split ports of a module port: modid/port[/cid], cid -1 (the first) by default.
Answer split(const std::vector<int32_t> &t)
{
    Answer a;
    const auto cid = t.size() > 2 ? static_cast<uint32_t>(t[2]) : UINT32_MAX;
    uint32_t gphyid = 0;
    a.rc = libpmx_split_cache_get_phyid_by_mod_port(static_cast<uint32_t>(t[0]), static_cast<uint32_t>(t[1]), cid,
                                                    &gphyid);
    if (a.rc == LIBPMX_OK)
        a.fields = {{"modid", t[0]}, {"port", t[1]}, {"cid", static_cast<int32_t>(cid)}, {"gphyid", phyid_json(gphyid)}};
    return a;
}

// Every conversion that applies to one phyid, each answer decoded (or its result code).
Answer convert(uint32_t id, int mode)
{
    Answer a;
    const uint32_t type = id >> 24;
    // Why a conversion refused the id, in the terms of the id.
    auto code = [id, type, mode](int rc) {
        std::string why;
        if (id == 0)
            why = "phyid 0 is no port";
        else if (rc == LIBPMX_E_INVAL && libpmx_is_tunnel_phyid(id))
            why = "a tunnel id is no physical port";
        else if (rc == LIBPMX_E_INVAL && type == LIBPMX_PHYID_BACKPLANE)
            why = "a back-plane id has no module port";
        else if (rc == LIBPMX_E_INVAL && !libpmx_is_physical_port(id))
            why = "type " + std::to_string(type) + " is no physical port";
        else if (rc == LIBPMX_E_INVAL)
            why = "not a port of this card";
        else if (rc == LIBPMX_E_PORT_RANGE)
            why = "its panel port is beyond this card's count";
        else if (rc == LIBPMX_E_NOT_FOUND && mode == 0)
            why = "not in the caches of this process (mode 0 does not read the database; --apply fills them)";
        else if (rc == LIBPMX_E_NOT_FOUND || rc == LIBPMX_E_FAIL)
            why = "not a port of this card, or not known to the caches or the database";
        return Json("result " + std::to_string(rc) + " " + result_name(rc) + (why.empty() ? "" : ": " + why));
    };
    uint32_t out = 0, m = 0, p = 0;
    int rc = libpmx_get_lphyid_by_gphyid_detail(id, &out, mode);
    a.fields["phyid"] = phyid_json(id);
    a.fields["lphyid"] = rc == LIBPMX_OK ? phyid_json(out) : code(rc);
    rc = libpmx_get_gphyid_by_lphyid_detail(id, &out, mode);
    a.fields["gphyid"] = rc == LIBPMX_OK ? phyid_json(out) : code(rc);
    rc = libpmx_get_mod_port_by_phyid_detail(id, &m, &p, mode);
    a.fields["modid/port"] = rc == LIBPMX_OK ? Json(std::to_string(m) + "/" + std::to_string(p)) : code(rc);
    rc = mode == 0 ? libpmx_get_unit_port_by_lphyid_ext(id, &m, &p) : libpmx_get_unit_port_by_lphyid(id, &m, &p);
    a.fields["unit/port"] = rc == LIBPMX_OK ? Json(std::to_string(m) + "/" + std::to_string(p)) : code(rc);
    a.fields["tunnel"] = libpmx_is_tunnel_phyid(id) != 0;
    a.fields["physical_port"] = libpmx_is_physical_port(id) != 0;
    return a;
}

// The gphyid of a module port and the lphyid of a local chip port.
Answer mod_port(const std::vector<int32_t> &t, int mode)
{
    Answer a;
    uint32_t g = 0;
    a.rc = libpmx_get_phyid_by_mod_port_detail(t[0], t[1], &g, mode);
    if (a.rc == LIBPMX_OK) a.fields = {{"modid", t[0]}, {"port", t[1]}, {"gphyid", phyid_json(g)}};
    return a;
}

Answer sysport(uint32_t id, int mode)
{
    Answer a;
    uint32_t gphyid = 0;
    a.rc = libpmx_get_phyid_by_sysport_detail(id, &gphyid, mode);
    if (a.rc != LIBPMX_OK) return a;
    int32_t dev = 0, slot = 0, sslot = 0, lport = 0;
    libpmx_get_dev_slot_sslot_lport_by_sysport(id, &dev, &slot, &sslot, &lport);
    a.fields = {{"sysport", id}, {"dev", dev}, {"slot", slot}, {"sslot", sslot}, {"lport", lport},
                {"gphyid", phyid_json(gphyid)}};
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

// The queries whose id is a tuple, and how many numbers it takes.
struct TupleQuery {
    const char *what;
    size_t lo, hi;
};
constexpr TupleQuery kTupleQueries[] = {{"chip", 3, 4}, {"unit-port", 2, 2}, {"split", 2, 3}, {"mod-port", 2, 2}};

int print_answer(const QueryOptions &opt, const Answer &a, const std::string &described, const std::string &why)
{
    const std::string &w = opt.what;
    if (a.rc != LIBPMX_OK) {
        std::fprintf(stderr, "pmx: %s %s (mode %d): %s\n", w.c_str(), described.c_str(), opt.mode, why.c_str());
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
        std::printf("%s %s (mode %d)\n", w.c_str(), described.c_str(), opt.mode);
        print_plain(a.fields);
    }
    return kExitOk;
}

// Why a tuple query failed, naming the ids.
std::string tuple_result_text(int rc, const std::string &w, const std::vector<int32_t> &t, int mode)
{
    if (w == "chip" && rc == LIBPMX_E_INVAL)
        return "dev " + std::to_string(t[0]) + " slot " + std::to_string(t[1]) + " unit " + std::to_string(t[2]) +
               " core " + std::to_string(t.size() > 3 ? t[3] : 0) +
               ": a dev is 1 to 16, a slot 0 to 31, a core 0 to 15, and the unit one of the card's units (" +
               result_name(rc) + ")";
    if (rc == LIBPMX_E_NOT_FOUND)
        return std::string(mode == 0 ? "not in the caches of this process (mode 0 does not read the database)"
                                     : "not found, in the caches or in the database") +
               " (" + result_name(rc) + ")";
    if (rc == LIBPMX_E_SPLIT_IGNORED) return "split ports are ignored by this thread (" + result_name(rc) + ")";
    return result_name(rc);
}

// The store of a query, and this process's start-up: the capability data (the subcard-id switch
// and table), and with --apply the caches filled from the records. False when it failed (printed).
bool start(const QueryOptions &opt, DbSession *session)
{
    if (!session->open(opt.db)) return false;
    libpmx_cap_init(nullptr, "pmx");
    return !opt.apply || apply_followed_records() == 0;
}

int tuple_query(const QueryOptions &opt, const TupleQuery &q)
{
    std::string why;
    const std::vector<int32_t> t = parse_tuple(opt.id, q.lo, q.hi, &why);
    if (t.empty()) {
        std::fprintf(stderr, "pmx: %s\n", why.c_str());
        return kExitUsage;
    }
    DbSession session;
    if (!start(opt, &session)) return kExitFailed;
    const std::string &w = opt.what;
    Answer a = w == "chip"        ? chip(t, opt.mode)
               : w == "unit-port" ? unit_port(t, opt.mode)
               : w == "mod-port"  ? mod_port(t, opt.mode)
                                  : split(t);
    if (w == "split" && a.rc == LIBPMX_E_NOT_FOUND) {
        // The split maps are filled by the records of split ports: apply them, then ask again.
        apply_followed_records();
        a = split(t);
    }
    return print_answer(opt, a, opt.id, tuple_result_text(a.rc, w, t, opt.mode));
}

int query(const QueryOptions &opt)
{
    for (const TupleQuery &q : kTupleQueries)
        if (opt.what == q.what) return tuple_query(opt, q);
    std::string why;
    const auto id = parse_id(opt.id, &why);
    if (!id) {
        std::fprintf(stderr, "pmx: %s\n", why.c_str());
        return kExitUsage;
    }
    DbSession session;
    if (!start(opt, &session)) return kExitFailed;

    Answer a;
    const std::string &w = opt.what;
    if (w == "sysport")
        a = sysport(*id, opt.mode);
    else if (w == "convert")
        a = convert(*id, opt.mode);
    else if (w == "phyid")
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

    return print_answer(opt, a, describe_id(w, *id), result_text(a.rc, w, *id, opt.mode));
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
                "  chip DEV/SLOT/UNIT[/CORE]  the module id of a card's unit and core\n"
                "  unit-port UNIT/PORT  a chip port of the local card: panel port, core, subcard ids\n"
                "  split MODID/PORT[/CID]  the gphyid of a split port's module port (cid: which one)\n"
                "  sysport SYSPORT      the port a system port names\n"
                "  convert PHYID        every conversion of a phyid: lphyid, gphyid, modid/port, unit/port\n"
                "  mod-port MODID/PORT  the gphyid of a module port\n"
                "  sub-ap PHYID         the record of a sub-AP phyid (type 20)\n"
                "  sub-route PHYID      the record of a sub-route phyid (type 19)\n"
                "  cid CARD_TYPE        the card id of a card type (--subcard-type)\n"
                "  scid SUBCARD_TYPE    the subcard id of a subcard type\n"
                "Ids in decimal or 0x hex. --mode: 0 the caches of this process only, 1 the\n"
                "database once on a miss, 2 the database with waiting (default). A pmx process\n"
                "starts with empty caches, so mode 0 answers only what an earlier step cached;\n"
                "--apply fills them from the records first, as a following process's are.\n"
                "Examples:\n"
                "  pmx query --load examples/chassis/small.json phyid 301 --mode 1\n"
                "  pmx query --db unix:///tmp/pmxdb/redis.sock --json ifx 0x0710190c\n"
                "  pmx query --load examples/chassis/small.json modid 25 --port 12 --mode 2");
    sub->add_option("what", opt->what, "What to ask")
        ->required()
        ->check(CLI::IsMember({"phyid", "ifx", "ifx-block", "modid", "chip", "unit-port", "split", "sysport", "convert",
                               "mod-port", "sub-ap", "sub-route", "cid", "scid"}));
    sub->add_option("id", opt->id, "The id asked about")->required();
    sub->add_option("--mode", opt->mode, "Read mode: 0, 1 or 2")->check(CLI::Range(0, 2));
    sub->add_option("--subcard-type", opt->subcard_type, "Subcard type of a cid query (default 0)");
    sub->add_option("--port", opt->port, "Chip port of a modid query (default 0)");
    sub->add_flag("--json", opt->json, "Print one JSON object");
    sub->add_flag("--apply", opt->apply, "Fill the caches from the records first, as the change callbacks do");
    add_db_options(sub, &opt->db);
    return Command{sub, [opt] { return query(*opt); }};
}

} // namespace pmx_tool
