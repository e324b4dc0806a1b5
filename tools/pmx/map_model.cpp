#include "map_model.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <tuple>
#include <vector>

#include "libpmx_intf.h"
#include "phyid_text.h"

namespace pmx_tool
{
namespace
{

using json = nlohmann::json;
using Pos = std::tuple<int64_t, int64_t, int64_t>; // dev, slot, sslot

struct Port {
    int64_t unit = 0, port = 0, lport = 0;
    bool has_intf = false;
    int64_t ifx = 0, modid = 0, mport = 0, core = 0;
    uint32_t gphyid = 0, lphyid = 0;
    bool split = false, backplane = false;
    int64_t member = 0;
    int64_t id = 0; // the port's number on the page
};

struct MapCard {
    std::optional<int64_t> type; // none: interfaces name the position, the card-info table does not
    std::optional<int64_t> cid, scid;
    std::vector<Port> ports;
    bool local = false;
};

// Reads fields of table rows; the first missing or mistyped one is kept in *why.
class Fields
{
  public:
    explicit Fields(std::string *why) : why_(why) {}
    bool ok() const { return ok_; }

    int64_t num(const json &row, const char *table, size_t i, const char *field)
    {
        const auto it = row.find(field);
        if (it != row.end() && it->is_number_integer()) return it->get<int64_t>();
        return fail(table, i, field, "no integer");
    }
    uint32_t hex(const json &row, const char *table, size_t i, const char *field)
    {
        const auto it = row.find(field);
        if (it != row.end() && it->is_string()) {
            const std::string s = it->get<std::string>();
            char *end = nullptr;
            const unsigned long long v = std::strtoull(s.c_str(), &end, 16);
            if (s.size() > 2 && s.compare(0, 2, "0x") == 0 && *end == '\0' && v <= UINT32_MAX)
                return static_cast<uint32_t>(v);
        }
        return static_cast<uint32_t>(fail(table, i, field, "no hex id"));
    }
    std::string text(const json &row, const char *table, size_t i, const char *field)
    {
        const auto it = row.find(field);
        if (it != row.end() && it->is_string()) return it->get<std::string>();
        fail(table, i, field, "no text");
        return {};
    }

  private:
    int64_t fail(const char *table, size_t i, const char *field, const char *what)
    {
        if (ok_)
            *why_ = std::string("table ") + table + ", row " + std::to_string(i + 1) + ": field '" + field + "': " +
                    what;
        ok_ = false;
        return 0;
    }
    std::string *why_;
    bool ok_ = true;
};

std::vector<int64_t> numbers(const std::string &text)
{
    std::vector<int64_t> out;
    std::istringstream in(text);
    int64_t v;
    while (in >> v) out.push_back(v);
    return out;
}

bool is_sub_phyid(uint32_t phyid)
{
    const uint32_t type = phyid >> 24;
    return type == LIBPMX_PHYID_SUB_AP || type == LIBPMX_PHYID_SUB_ROUTE;
}

// The fields of a phyid, as phyid_json decodes them, in its order; the kind and field names of
// each type go to *kinds once.
json decoded(uint32_t phyid, json *kinds)
{
    const nlohmann::ordered_json j = phyid_json(phyid);
    json values = json::array(), names = json::array();
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (it.key() == "value" || it.key() == "type" || it.key() == "text") continue;
        values.push_back(it.value().get<int64_t>()); // every decoded field is a number
        names.push_back(it.key());
    }
    const std::string type = std::to_string(phyid >> 24);
    if (!kinds->contains(type)) {
        // The text is "0x... (kind)" or "0x... (kind: fields)".
        const std::string text = j["text"];
        const size_t open = text.find(" (") + 2;
        const size_t close = text.find_first_of(":)", open);
        (*kinds)[type] = {{"kind", text.substr(open, close - open)}, {"fields", names}};
    }
    return values;
}

const char *state_of(const Port &p)
{
    if (p.backplane) return "backplane";
    if (!p.has_intf) return "absent";
    if ((p.gphyid >> 24) == LIBPMX_PHYID_POWER) return "power";
    return p.split ? "split" : "port";
}

class MapBuilder
{
  public:
    MapBuilder(const MapTables &t, std::string *why) : t_(t), why_(why), f_(why) {}

    bool build(const std::string &title, const std::string &source, MapModel *out);

  private:
    const json *table(const char *name)
    {
        const auto it = t_.rows.find(name);
        if (it != t_.rows.end()) return &it->second;
        if (f_.ok()) *why_ = std::string("the tables read have no '") + name + "'";
        missing_ = true;
        return nullptr;
    }
    bool ok() const { return f_.ok() && !missing_; }
    void read_cards();
    void read_ports();
    void read_interfaces();
    void read_split();
    void find_local();
    void number_ports();
    json card_json(const Pos &pos, const MapCard &card);
    json port_json(const Port &p);
    json subs_json();

    const MapTables &t_;
    std::string *why_;
    Fields f_;
    bool missing_ = false;
    std::map<Pos, MapCard> cards_;
    std::map<int64_t, std::string> slot_modids_; // gslot -> "25 26"
    std::map<int64_t, std::string> slot_status_;
    std::optional<Pos> local_;
    json sub_rows_ = json::array();
    json kinds_ = json::object();
    MapCounts counts_;
};

void MapBuilder::read_cards()
{
    if (const json *rows = table("card_info"))
        for (size_t i = 0; i < rows->size(); ++i) {
            const json &r = (*rows)[i];
            const Pos pos{f_.num(r, "card_info", i, "dev"), f_.num(r, "card_info", i, "slot"),
                          f_.num(r, "card_info", i, "sslot")};
            cards_[pos].type = f_.num(r, "card_info", i, "card_type");
        }
    std::map<std::pair<int64_t, int64_t>, int64_t> cids;
    std::map<int64_t, int64_t> scids;
    if (const json *rows = table("card_ids"))
        for (size_t i = 0; i < rows->size(); ++i) {
            const json &r = (*rows)[i];
            cids[{f_.num(r, "card_ids", i, "card_type"), f_.num(r, "card_ids", i, "subcard_type")}] =
                f_.num(r, "card_ids", i, "cid");
        }
    if (const json *rows = table("subcard_ids"))
        for (size_t i = 0; i < rows->size(); ++i)
            scids[f_.num((*rows)[i], "subcard_ids", i, "subcard_type")] = f_.num((*rows)[i], "subcard_ids", i, "scid");
    for (auto &[pos, card] : cards_) {
        if (!card.type) continue;
        const int64_t sslot = std::get<2>(pos);
        if (sslot == 0) {
            if (auto it = cids.find({*card.type, 0}); it != cids.end()) card.cid = it->second;
            continue;
        }
        // A subcard's cid is keyed by its host's card type and its own type.
        const auto host = cards_.find({std::get<0>(pos), std::get<1>(pos), 0});
        if (host != cards_.end() && host->second.type)
            if (auto it = cids.find({*host->second.type, *card.type}); it != cids.end()) card.cid = it->second;
        if (auto it = scids.find(*card.type); it != scids.end()) card.scid = it->second;
    }
    if (const json *rows = table("chipslot"))
        for (size_t i = 0; i < rows->size(); ++i) {
            const json &r = (*rows)[i];
            const int64_t gslot = f_.hex(r, "chipslot", i, "gslot");
            slot_modids_[gslot] = f_.text(r, "chipslot", i, "modids");
            slot_status_[gslot] = f_.text(r, "chipslot", i, "status");
        }
}

// Each card's ports as its card type lists them (rows of sub-slot 0: the card type's own chip
// ports; the others are lookups a process cached for its queries).
void MapBuilder::read_ports()
{
    std::map<int64_t, std::vector<Port>> by_type;
    if (const json *rows = table("global_sport"))
        for (size_t i = 0; i < rows->size(); ++i) {
            const json &r = (*rows)[i];
            if (f_.num(r, "global_sport", i, "sslot") != 0) continue;
            Port p;
            p.unit = f_.num(r, "global_sport", i, "unit");
            p.port = f_.num(r, "global_sport", i, "port");
            p.lport = f_.num(r, "global_sport", i, "lport");
            by_type[f_.num(r, "global_sport", i, "card_type")].push_back(p);
        }
    for (auto &[pos, card] : cards_)
        if (card.type)
            if (auto it = by_type.find(*card.type); it != by_type.end()) card.ports = it->second;
}

void MapBuilder::read_interfaces()
{
    const json *rows = table("interfaces");
    if (rows == nullptr) return;
    counts_.interfaces = rows->size();
    std::set<int64_t> cached_subs; // ifx of the sub-interfaces the sub-AP and sub-route caches hold
    for (const char *name : {"sub_ap", "sub_route"}) {
        const json *subs = table(name);
        if (subs == nullptr) continue;
        const bool ap = std::string(name) == "sub_ap";
        for (size_t i = 0; i < subs->size(); ++i) {
            const json &r = (*subs)[i];
            const int64_t ifx = f_.num(r, name, i, "ifx");
            const uint32_t phyid = f_.hex(r, name, i, "phyid");
            cached_subs.insert(ifx);
            sub_rows_.push_back({ifx, phyid, ap ? "sub-ap" : "sub-route", f_.num(r, name, i, "evlan"),
                                 ap ? json(f_.num(r, name, i, "trunk")) : json(nullptr),
                                 f_.hex(r, name, i, "master_phyid"), decoded(phyid, &kinds_)});
        }
    }
    for (size_t i = 0; i < rows->size(); ++i) {
        const json &r = (*rows)[i];
        const uint32_t gphyid = f_.hex(r, "interfaces", i, "gphyid");
        const int64_t ifx = f_.num(r, "interfaces", i, "ifx");
        if (is_sub_phyid(gphyid)) {
            // In the interface table only: its parent is unknown, its kind is its phyid's.
            if (!cached_subs.count(ifx))
                sub_rows_.push_back({ifx, gphyid, (gphyid >> 24) == LIBPMX_PHYID_SUB_AP ? "sub-ap" : "sub-route",
                                     nullptr, nullptr, nullptr, decoded(gphyid, &kinds_)});
            continue;
        }
        MapCard &card = cards_[{f_.num(r, "interfaces", i, "dev"), f_.num(r, "interfaces", i, "slot"),
                             f_.num(r, "interfaces", i, "sslot")}];
        const int64_t unit = f_.num(r, "interfaces", i, "unit"), port = f_.num(r, "interfaces", i, "port");
        auto it = std::find_if(card.ports.begin(), card.ports.end(),
                               [&](const Port &p) { return !p.has_intf && p.unit == unit && p.port == port; });
        if (it == card.ports.end()) {
            card.ports.push_back(Port{});
            it = card.ports.end() - 1;
            it->unit = unit;
            it->port = port;
        }
        it->has_intf = true;
        it->lport = f_.num(r, "interfaces", i, "lport");
        it->ifx = ifx;
        it->gphyid = gphyid;
        it->lphyid = f_.hex(r, "interfaces", i, "lphyid");
        it->modid = f_.num(r, "interfaces", i, "modid");
        it->mport = f_.num(r, "interfaces", i, "mport");
        it->core = f_.num(r, "interfaces", i, "core");
    }
    counts_.sub_interfaces = sub_rows_.size();
}

void MapBuilder::read_split()
{
    if (const json *rows = table("split_port"))
        for (size_t i = 0; i < rows->size(); ++i) {
            const json &r = (*rows)[i];
            const auto it = cards_.find(
                {f_.num(r, "split_port", i, "dev"), f_.num(r, "split_port", i, "slot"), f_.num(r, "split_port", i, "sslot")});
            if (it == cards_.end()) continue;
            const int64_t unit = f_.num(r, "split_port", i, "unit"), port = f_.num(r, "split_port", i, "port");
            for (Port &p : it->second.ports)
                if (p.unit == unit && p.port == port) p.split = true;
        }
    // Members count from 1 within their panel port, in chip-port order.
    for (auto &[pos, card] : cards_) {
        std::sort(card.ports.begin(), card.ports.end(), [](const Port &a, const Port &b) {
            return std::tie(a.lport, a.unit, a.port) < std::tie(b.lport, b.unit, b.port);
        });
        for (size_t i = 0; i < card.ports.size(); ++i)
            if (card.ports[i].split)
                card.ports[i].member = i > 0 && card.ports[i - 1].split && card.ports[i - 1].lport == card.ports[i].lport
                                           ? card.ports[i - 1].member + 1
                                           : 1;
    }
}

// The local card is the one whose module table holds the local module ids. Its back-plane ports
// are known by their lports alone: the port table names their range in its closing line
// ("back-plane lports 1001..1002", or "none").
void MapBuilder::find_local()
{
    const std::vector<int64_t> mine = numbers(t_.local_modids);
    if (mine.empty()) return; // "get my node failed", "has no local modid."
    for (const auto &[gslot, ids] : slot_modids_)
        if (numbers(ids) == mine) local_ = Pos{((gslot >> 5) & 31) + 1, gslot & 31, gslot >> 10};
    if (!local_) return;
    const auto it = cards_.find(*local_);
    if (it == cards_.end()) return;
    it->second.local = true;
    static const std::regex range("back-plane lports ([0-9]+)\\.\\.([0-9]+)");
    std::smatch m;
    if (!std::regex_search(t_.port_table, m, range)) return;
    for (int64_t lport = std::stoll(m[1]); lport <= std::stoll(m[2]); ++lport) {
        Port p;
        p.lport = lport;
        p.backplane = true;
        it->second.ports.push_back(p);
    }
}

void MapBuilder::number_ports()
{
    int64_t id = 0;
    for (auto &[pos, card] : cards_) {
        // Back-plane ports after the front panel; the order within each stays.
        std::stable_partition(card.ports.begin(), card.ports.end(), [](const Port &p) { return !p.backplane; });
        for (Port &p : card.ports) {
            p.id = id++;
            (p.backplane ? counts_.backplane : counts_.ports)++;
        }
    }
}

json MapBuilder::port_json(const Port &p)
{
    if (p.backplane) // known by its lport alone
        return {p.id, nullptr, nullptr, nullptr, nullptr, nullptr, p.lport, nullptr, nullptr, nullptr, state_of(p), 0,
                nullptr, nullptr};
    if (!p.has_intf)
        return {p.id, nullptr, nullptr, nullptr, p.unit, p.port, p.lport, nullptr, nullptr, nullptr, state_of(p), 0,
                nullptr, nullptr};
    return {p.id,      p.ifx,  p.gphyid,    p.lphyid,  p.unit,   p.port,
            p.lport,   p.modid, p.mport,    p.core,    state_of(p), p.member,
            decoded(p.gphyid, &kinds_), decoded(p.lphyid, &kinds_)};
}

json MapBuilder::card_json(const Pos &pos, const MapCard &card)
{
    const auto [dev, slot, sslot] = pos;
    const int64_t gslot = sslot << 10 | (dev - 1) << 5 | slot;
    json ports = json::array();
    for (const Port &p : card.ports) ports.push_back(port_json(p));
    json j = {{"dev", dev}, {"slot", slot}, {"sslot", sslot}, {"gslot", gslot}};
    j["type"] = card.type ? json(*card.type) : json(nullptr);
    j["cid"] = card.cid ? json(*card.cid) : json(nullptr);
    j["scid"] = card.scid ? json(*card.scid) : json(nullptr);
    const auto ids = slot_modids_.find(gslot);
    j["modids"] = ids != slot_modids_.end() ? json(ids->second) : json(nullptr);
    j["modid_status"] = ids != slot_modids_.end() ? json(slot_status_[gslot]) : json(nullptr);
    j["local"] = card.local;
    j["ports"] = std::move(ports);
    return j;
}

// Each sub-interface gets the number of the port whose gphyid is its master phyid (-1: none).
json MapBuilder::subs_json()
{
    std::map<uint32_t, int64_t> by_gphyid;
    for (const auto &[pos, card] : cards_)
        for (const Port &p : card.ports)
            if (p.has_intf) by_gphyid.emplace(p.gphyid, p.id);
    for (json &s : sub_rows_) {
        const auto it = s[5].is_null() ? by_gphyid.end() : by_gphyid.find(s[5].get<uint32_t>());
        s.push_back(it != by_gphyid.end() ? it->second : -1);
    }
    return std::move(sub_rows_);
}

bool MapBuilder::build(const std::string &title, const std::string &source, MapModel *out)
{
    read_cards();
    read_ports();
    read_interfaces();
    read_split();
    find_local();
    if (!ok()) return false;
    number_ports();
    json devices = json::array();
    for (auto it = cards_.begin(); it != cards_.end(); ++it) {
        const auto [dev, slot, sslot] = it->first;
        if (devices.empty() || devices.back()["dev"] != dev) devices.push_back({{"dev", dev}, {"cards", json::array()}});
        json &cards = devices.back()["cards"];
        const bool host_drawn = !cards.empty() && cards.back()["slot"] == slot;
        if (sslot == 0 || !host_drawn) {
            // A subcard whose host the card-info table does not name gets an empty host.
            json host = card_json({dev, slot, 0}, sslot == 0 ? it->second : MapCard{});
            host["subcards"] = json::array();
            cards.push_back(std::move(host));
        }
        if (sslot != 0) cards.back()["subcards"].push_back(card_json(it->first, it->second));
        ++counts_.cards;
    }
    counts_.devices = devices.size();
    json &d = out->data;
    d["title"] = title;
    d["source"] = source;
    d["summary"] = {{"devices", counts_.devices}, {"cards", counts_.cards},           {"ports", counts_.ports},
                    {"backplane", counts_.backplane}, {"interfaces", counts_.interfaces},
                    {"sub_interfaces", counts_.sub_interfaces}};
    d["local"] = local_ ? json(std::to_string(std::get<0>(*local_)) + "/" + std::to_string(std::get<1>(*local_)) +
                               "/" + std::to_string(std::get<2>(*local_)))
                        : json(nullptr);
    d["port_fields"] = {"id",    "ifx",   "gphyid", "lphyid", "unit",  "port", "lport",
                        "modid", "mport", "core",   "state",  "member", "gdec", "ldec"};
    d["sub_fields"] = {"ifx", "phyid", "kind", "evlan", "trunk", "master_phyid", "dec", "port"};
    d["devices"] = std::move(devices);
    d["subs"] = subs_json();
    d["phyid_kinds"] = std::move(kinds_);
    out->counts = counts_;
    return true;
}

} // namespace

bool build_map_model(const MapTables &tables, const std::string &title, const std::string &source, MapModel *out,
                     std::string *why)
{
    return MapBuilder(tables, why).build(title, source, out);
}

} // namespace pmx_tool
