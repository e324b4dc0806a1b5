#include "topology.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>
#include <new>
#include <optional>
#include <set>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "hex.h"
#include "p_dev.pb-c.h"
#include "p_intf.pb-c.h"
#include "qv_cap.h"
#include "s_cluster.pb-c.h"
#include "u_intf.pb-c.h"

namespace pmx_tool
{
namespace
{

using nlohmann::json;
using nlohmann::ordered_json;

constexpr int32_t kMaxUnits = 8;       // units of a card (the library's limit)
constexpr int32_t kMaxModid = 0x7ff;   // 11 bits of a gphyid
constexpr uint32_t kMaxSubIfx = 0xffffff; // a sub-interface phyid holds its ifx in 24 bits
constexpr uint32_t kTypeGlobal = 7;
constexpr uint32_t kTypePower = 25;
constexpr uint32_t kTypeSubRoute = 19;
constexpr uint32_t kTypeSubAp = 20;

struct TopoError {
    std::string path;
    std::string text;
};

[[noreturn]] void reject(const std::string &path, const std::string &text)
{
    throw TopoError{path, text};
}

std::string member_path(const std::string &path, const std::string &name)
{
    return path.empty() ? name : path + "." + name;
}

std::string index_path(const std::string &path, size_t i)
{
    return path + "[" + std::to_string(i) + "]";
}

void only_members(const json &obj, const std::string &path, std::initializer_list<const char *> allowed)
{
    if (!obj.is_object()) reject(path, "expected an object, got " + json_kind(obj));
    for (const auto &[k, v] : obj.items()) {
        bool known = k == "comment";
        for (const char *a : allowed)
            known = known || k == a;
        if (known) continue;
        std::string list;
        for (const char *a : allowed)
            list += std::string(list.empty() ? "" : ", ") + a;
        reject(member_path(path, k), "unknown member (expected " + list + ")");
    }
}

int64_t integer(const json &v, const std::string &path, int64_t lo, int64_t hi)
{
    if (!v.is_number_integer()) reject(path, "expected an integer, got " + json_kind(v));
    bool fits = v.is_number_unsigned() ? v.get<uint64_t>() <= static_cast<uint64_t>(hi)
                                       : v.get<int64_t>() >= lo && v.get<int64_t>() <= hi;
    if (!fits)
        reject(path, v.dump() + " is out of range " + std::to_string(lo) + ".." + std::to_string(hi));
    return v.get<int64_t>();
}

int32_t int_member(const json &obj, const std::string &path, const char *name, int64_t lo,
                   int64_t hi, std::optional<int32_t> dflt = std::nullopt)
{
    auto it = obj.find(name);
    if (it == obj.end()) {
        if (!dflt) reject(member_path(path, name), "missing");
        return *dflt;
    }
    return static_cast<int32_t>(integer(*it, member_path(path, name), lo, hi));
}

std::string string_member(const json &obj, const std::string &path, const char *name,
                          std::optional<std::string> dflt = std::nullopt)
{
    auto it = obj.find(name);
    if (it == obj.end()) {
        if (!dflt) reject(member_path(path, name), "missing");
        return *dflt;
    }
    if (!it->is_string()) reject(member_path(path, name), "expected a string, got " + json_kind(*it));
    return it->get<std::string>();
}

bool bool_member(const json &obj, const std::string &path, const char *name)
{
    auto it = obj.find(name);
    if (it == obj.end()) return false;
    if (!it->is_boolean())
        reject(member_path(path, name), "expected true or false, got " + json_kind(*it));
    return it->get<bool>();
}

std::optional<int64_t> parse_number(std::string_view s)
{
    if (s.empty() || s.size() > 10) return std::nullopt;
    int64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return std::nullopt;
        v = v * 10 + (c - '0');
    }
    return v;
}

// "3", "2-4", "1,3-4" (or an integer, or an array of those) as the numbers they name, in order.
void add_numbers(const json &v, const std::string &path, int64_t lo, int64_t hi,
                 std::vector<int32_t> *out)
{
    if (v.is_number_integer()) {
        out->push_back(static_cast<int32_t>(integer(v, path, lo, hi)));
        return;
    }
    if (v.is_array()) {
        for (size_t i = 0; i < v.size(); ++i)
            add_numbers(v[i], index_path(path, i), lo, hi, out);
        return;
    }
    if (!v.is_string())
        reject(path, "expected a number, a range \"A-B\" or an array of them, got " + json_kind(v));
    const std::string &text = v.get_ref<const std::string &>();
    std::string_view rest = text;
    do {
        size_t comma = rest.find(',');
        std::string_view item = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        size_t dash = item.find('-');
        auto first = parse_number(item.substr(0, dash));
        auto last = dash == std::string_view::npos ? first : parse_number(item.substr(dash + 1));
        if (!first || !last)
            reject(path, "\"" + text + "\" is not a number or a range \"A-B\"");
        if (*first > *last) reject(path, "\"" + text + "\": the range runs backwards");
        if (*first < lo || *last > hi)
            reject(path, "\"" + text + "\" is out of range " + std::to_string(lo) + ".." +
                           std::to_string(hi));
        for (int64_t n = *first; n <= *last; ++n)
            out->push_back(static_cast<int32_t>(n));
    } while (!rest.empty());
}

std::vector<int32_t> numbers(const json &v, const std::string &path, int64_t lo, int64_t hi)
{
    std::vector<int32_t> out;
    add_numbers(v, path, lo, hi, &out);
    if (out.empty()) reject(path, "names no number");
    return out;
}

// ---------------------------------------------------------------- capabilities

struct Caps {
    std::string path;
    json root;
    int32_t lc_slots = 21;
    std::vector<int32_t> invalid; // sorted
    bool subcard_ids = false;

    // The integer at a '/'-separated name, or nothing.
    std::optional<int32_t> get(const std::string &name) const
    {
        const json *node = &root;
        size_t begin = 0;
        for (;;) {
            size_t end = name.find('/', begin);
            std::string step = name.substr(begin, end == std::string::npos ? end : end - begin);
            if (!node->is_object() || !node->contains(step)) return std::nullopt;
            node = &(*node)[step];
            if (end == std::string::npos) break;
            begin = end + 1;
        }
        if (node->is_boolean()) return node->get<bool>() ? 1 : 0;
        if (!node->is_number_integer()) return std::nullopt;
        return static_cast<int32_t>(node->get<int64_t>());
    }
};

// The capability file the platform would read: $PMX_CAP_FILE, else the default of this tree.
std::string default_caps_path()
{
    libqv_cap_ctrl_info_t *info = nullptr;
    if (libqv_cap_ctrl_info_init(&info, nullptr) != LIBQV_CAP_OK || info == nullptr) return "";
    std::string path = libqv_cap_ctrl_info_path(info);
    libqv_cap_ctrl_info_free(info);
    return path;
}

void read_caps(const std::string &path, Caps *caps)
{
    caps->path = path;
    std::ifstream in(path);
    if (!in) reject("caps", "cannot read the capability file " + path + ": " + std::strerror(errno));
    try {
        caps->root = json::parse(in, nullptr, true, true);
    } catch (const json::exception &e) {
        reject("caps", "the capability file " + path + " is not valid JSON: " + e.what());
    }
    if (auto l = caps->get("lc-slots-num"); l && *l > 0) caps->lc_slots = *l;
    caps->subcard_ids = caps->get("subcard-id/enable").value_or(0) != 0;
    const json &inv = caps->root.contains("invalid-modids") ? caps->root["invalid-modids"] : json();
    if (inv.is_array()) {
        for (const auto &v : inv) {
            if (v.is_number_integer()) caps->invalid.push_back(v.get<int32_t>());
        }
    }
    std::sort(caps->invalid.begin(), caps->invalid.end());
}

// ---------------------------------------------------------------- the topology

struct PortDef {
    int32_t unit = 0;
    int32_t port = 0;
    int32_t lport = 0;
};

struct UnitDef {
    std::vector<int32_t> ports;
    bool power = false;
    bool is_virtual = false;
};

struct CardType {
    std::string name;
    std::string path;
    int32_t type = 0;
    int32_t cid = -1;
    int32_t node = P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC;
    int32_t port_type = 0;
    int32_t idnum_per_unit = 1;
    int32_t intraband = 0;
    int32_t cpu_num = 1;
    int32_t mgmt_num = 0;
    int32_t subslots = 0;
    std::vector<UnitDef> units;
    std::vector<PortDef> ports; // in lport order
    std::vector<PortDef> backplane; // back-plane ports of a cluster member, in lport order
    bool subcard = false;
    int32_t scid = 0; // subcard types: from the capability data

    int32_t virtual_units() const
    {
        return static_cast<int32_t>(
            std::count_if(units.begin(), units.end(), [](const UnitDef &u) { return u.is_virtual; }));
    }
    bool power_supply() const
    {
        return std::any_of(units.begin(), units.end(), [](const UnitDef &u) { return u.power; });
    }
};

struct Card {
    int32_t dev = 0;
    int32_t slot = 0;
    int32_t sslot = 0;
    const CardType *type = nullptr;    // the card in the slot (the host of a subcard)
    const CardType *subcard = nullptr; // the subcard in a sub-slot
    std::string path;
    std::vector<uint32_t> modids; // cards in a slot with chip units
    std::vector<size_t> rows;     // its ports in the truth table
    int32_t first_ifx = 0;

    const CardType &own() const { return subcard != nullptr ? *subcard : *type; }
    std::string where() const
    {
        return std::to_string(dev) + "/" + std::to_string(slot) + "/" + std::to_string(sslot);
    }
    int32_t gslot() const { return (sslot & 31) << 10 | (dev - 1) << 5 | (slot & 31); }
    uint32_t node() const
    {
        return 0x0C000000u | static_cast<uint32_t>(dev) << 18 | static_cast<uint32_t>(sslot) << 15 |
               static_cast<uint32_t>(slot) << 8;
    }
};

// DEV/SLOT/SSLOT/LPORT with each part "*" or numbers.
struct Pattern {
    std::string text;
    std::optional<std::set<int32_t>> part[4];
};

Pattern parse_pattern(const json &v, const std::string &path)
{
    if (!v.is_string()) reject(path, "expected \"DEV/SLOT/SSLOT/LPORT\", got " + json_kind(v));
    Pattern p;
    p.text = v.get<std::string>();
    std::string_view rest = p.text;
    static const int64_t hi[4] = {16, 31, 7, 0xffff};
    for (int i = 0; i < 4; ++i) {
        size_t slash = rest.find('/');
        if ((slash == std::string_view::npos) != (i == 3))
            reject(path, "\"" + p.text + "\" is not DEV/SLOT/SSLOT/LPORT (each a number, a range or *)");
        std::string item(rest.substr(0, slash));
        rest = i == 3 ? std::string_view() : rest.substr(slash + 1);
        if (item == "*") continue;
        std::vector<int32_t> ns = numbers(json(item), path, i == 2 ? 0 : 1, hi[i]);
        p.part[i] = std::set<int32_t>(ns.begin(), ns.end());
    }
    return p;
}

class Builder
{
  public:
    explicit Builder(std::string base_dir) : dir_(std::move(base_dir)) {}

    void parse(const json &doc, const GenOptions &opt);
    void build(Chassis *out);

  private:
    void parse_card_types(const json &doc);
    void parse_backplane(const json &o, const std::string &path, CardType *t);
    void parse_devices(const json &doc);
    void allocate_modids();
    void make_ports(const json &doc);
    void number_ports(const json &doc);
    void make_sub_interfaces(const json &doc);
    size_t choose_local(const json &doc, const std::string &card_opt) const;
    std::vector<std::pair<size_t, int32_t>> match(const Pattern &p, const std::string &path) const;
    void take_ifx(uint32_t ifx, size_t row, const std::string &path);
    std::string describe(size_t row) const;

    std::string dir_;
    Caps caps_;
    std::vector<CardType> types_; // card types, then subcard types
    std::vector<Card> cards_;     // sorted by dev, slot, sslot
    std::vector<TruthRow> rows_;
    std::vector<size_t> row_card_; // the card of each port row
    std::map<std::pair<size_t, int32_t>, int32_t> splits_; // (card, lport) -> members
    std::unordered_map<uint32_t, size_t> ifx_owner_;
    size_t devices_ = 0;
    size_t local_ = 0;
};

const CardType *find_type(const std::vector<CardType> &types, const std::string &name, bool subcard,
                          const std::string &path)
{
    for (const auto &t : types) {
        if (t.name == name && t.subcard == subcard) return &t;
    }
    std::string known;
    for (const auto &t : types) {
        if (t.subcard == subcard) known += std::string(known.empty() ? "" : ", ") + t.name;
    }
    reject(path, std::string("unknown ") + (subcard ? "subcard" : "card") + " type '" + name + "' (" +
                   (subcard ? "subcard_types" : "card_types") + " has " +
                   (known.empty() ? "none" : known) + ")");
}

int32_t enum_member(const json &obj, const std::string &path, const char *name,
                    const ProtobufCEnumDescriptor *desc, const std::string &prefix,
                    const std::string &dflt)
{
    std::string text = string_member(obj, path, name, dflt);
    const ProtobufCEnumValue *v =
        protobuf_c_enum_descriptor_get_value_by_name(desc, (prefix + text).c_str());
    if (v == nullptr)
        reject(member_path(path, name), "'" + text + "' is not a value of " + desc->name);
    return v->value;
}

void Builder::parse(const json &doc, const GenOptions &opt)
{
    only_members(doc, "",
                 {"caps", "local", "ifx", "card_types", "subcard_types", "devices", "split",
                  "sub_interfaces"});
    std::string caps_path = opt.caps;
    if (caps_path.empty() && doc.contains("caps")) {
        std::filesystem::path p = string_member(doc, "", "caps");
        caps_path = p.is_absolute() ? p.string() : (std::filesystem::path(dir_) / p).string();
    }
    if (caps_path.empty()) caps_path = default_caps_path();
    if (caps_path.empty()) reject("caps", "no capability file: give \"caps\", --caps or PMX_CAP_FILE");
    read_caps(caps_path, &caps_);

    parse_card_types(doc);
    parse_devices(doc);
    allocate_modids();
    make_ports(doc);
    number_ports(doc);
    make_sub_interfaces(doc);
    local_ = choose_local(doc, opt.card);
}

void Builder::parse_card_types(const json &doc)
{
    if (!doc.contains("card_types") || !doc["card_types"].is_array())
        reject("card_types", "expected an array of card types");
    std::map<int32_t, std::string> seen_type;
    std::map<std::string, std::string> seen_name;
    for (const char *list : {"card_types", "subcard_types"}) {
        bool subcard = std::strcmp(list, "subcard_types") == 0;
        if (!doc.contains(list)) continue;
        const json &arr = doc[list];
        if (!arr.is_array()) reject(list, "expected an array, got " + json_kind(arr));
        for (size_t i = 0; i < arr.size(); ++i) {
            const json &o = arr[i];
            std::string path = index_path(list, i);
            if (subcard)
                only_members(o, path, {"name", "type", "cid", "port_type", "lport_base", "ports"});
            else
                only_members(o, path,
                             {"name", "type", "cid", "node", "port_type", "idnum_per_unit",
                              "intraband", "cpu_num", "mgmt_num", "subslots", "lport_base", "units",
                              "backplane"});
            CardType t;
            t.path = path;
            t.subcard = subcard;
            t.name = string_member(o, path, "name");
            t.type = int_member(o, path, "type", 1, INT32_MAX);
            if (auto it = seen_type.find(t.type); it != seen_type.end())
                reject(member_path(path, "type"),
                     "card type " + std::to_string(t.type) + " is given twice (also " + it->second + ")");
            if (auto it = seen_name.find(t.name); it != seen_name.end())
                reject(member_path(path, "name"),
                     "the name '" + t.name + "' is given twice (also " + it->second + ")");
            seen_type[t.type] = path;
            seen_name[t.name] = path;
            t.cid = int_member(o, path, "cid", 0, 31, -1);
            t.port_type = enum_member(o, path, "port_type", &p_intf__intftype_e__descriptor, "",
                                      "GIGABITETHERNET");
            int32_t lport = int_member(o, path, "lport_base", 1, 0xffff, 1);
            if (subcard) {
                t.node = P_DEV__DM_NODE_TYPE_E__DM_TYPE_SUB_LC;
                const json &ports = o.contains("ports") ? o["ports"] : json::array();
                if (!ports.is_array()) reject(member_path(path, "ports"), "expected an array");
                for (size_t k = 0; k < ports.size(); ++k) {
                    std::string pp = index_path(member_path(path, "ports"), k);
                    only_members(ports[k], pp, {"unit", "ports"});
                    int32_t unit = int_member(ports[k], pp, "unit", 0, kMaxUnits - 1);
                    if (!ports[k].contains("ports")) reject(member_path(pp, "ports"), "missing");
                    for (int32_t port : numbers(ports[k]["ports"], member_path(pp, "ports"), 0, 255))
                        t.ports.push_back({unit, port, lport++});
                }
                if (caps_.subcard_ids) {
                    auto scid = caps_.get("subcard-id/table/" + std::to_string(t.type));
                    if (!scid)
                        reject(member_path(path, "type"),
                             "subcard type " + std::to_string(t.type) + " has no subcard id in " +
                                 caps_.path + " (subcard-id/table/" + std::to_string(t.type) + ")");
                    t.scid = *scid;
                }
            } else {
                t.node = enum_member(o, path, "node", &p_dev__dm_node_type_e__descriptor, "DM_TYPE_", "LC");
                t.idnum_per_unit = int_member(o, path, "idnum_per_unit", 1, 16, 1);
                t.intraband = int_member(o, path, "intraband", 0, kMaxUnits, 0);
                t.cpu_num = int_member(o, path, "cpu_num", 0, 64, 1);
                t.mgmt_num = int_member(o, path, "mgmt_num", 0, 64, 0);
                t.subslots = int_member(o, path, "subslots", 0, 7, 0);
                const json &units = o.contains("units") ? o["units"] : json::array();
                if (!units.is_array()) reject(member_path(path, "units"), "expected an array");
                if (units.size() > static_cast<size_t>(kMaxUnits))
                    reject(member_path(path, "units"), "a card has at most 8 units");
                for (size_t u = 0; u < units.size(); ++u) {
                    std::string up = index_path(member_path(path, "units"), u);
                    only_members(units[u], up, {"ports", "power", "virtual"});
                    UnitDef unit;
                    unit.power = bool_member(units[u], up, "power");
                    unit.is_virtual = bool_member(units[u], up, "virtual");
                    if (unit.is_virtual && units[u].contains("ports"))
                        reject(member_path(up, "ports"), "a virtual unit has no panel ports");
                    if (unit.is_virtual && unit.power)
                        reject(member_path(up, "power"), "a virtual unit is not a power module");
                    if (units[u].contains("ports"))
                        unit.ports = numbers(units[u]["ports"], member_path(up, "ports"), 0, 255);
                    std::set<int32_t> once;
                    for (int32_t port : unit.ports) {
                        if (!once.insert(port).second)
                            reject(member_path(up, "ports"), "chip port " + std::to_string(port) +
                                                               " is given twice");
                        t.ports.push_back({static_cast<int32_t>(u), port, lport++});
                    }
                    t.units.push_back(std::move(unit));
                }
            }
            if (!subcard && o.contains("backplane")) parse_backplane(o["backplane"], member_path(path, "backplane"), &t);
            if (!t.ports.empty() && t.cid < 0)
                reject(member_path(path, "cid"), "missing: a card type with ports needs its card id");
            types_.push_back(std::move(t));
        }
    }
}

// {"lport_base": N, "ports": [{"unit": U, "ports": ...}]}: back-plane panel ports from N on, on
// chip ports that are no front-panel port of the card.
void Builder::parse_backplane(const json &o, const std::string &path, CardType *t)
{
    only_members(o, path, {"lport_base", "ports"});
    int32_t lport = int_member(o, path, "lport_base", 1, 0xffff);
    if (!o.contains("ports") || !o["ports"].is_array()) reject(member_path(path, "ports"), "expected an array");
    std::set<std::pair<int32_t, int32_t>> front;
    for (const PortDef &p : t->ports) front.insert({p.unit, p.port});
    for (size_t k = 0; k < o["ports"].size(); ++k) {
        const json &e = o["ports"][k];
        std::string pp = index_path(member_path(path, "ports"), k);
        only_members(e, pp, {"unit", "ports"});
        const int32_t unit = int_member(e, pp, "unit", 0, static_cast<int64_t>(t->units.size()) - 1);
        if (!e.contains("ports")) reject(member_path(pp, "ports"), "missing");
        for (int32_t port : numbers(e["ports"], member_path(pp, "ports"), 0, 1023)) {
            if (front.count({unit, port}) != 0)
                reject(member_path(pp, "ports"), "unit " + std::to_string(unit) + " chip port " + std::to_string(port) +
                                                   " is a front-panel port of the card");
            t->backplane.push_back({unit, port, lport++});
        }
    }
}

void Builder::parse_devices(const json &doc)
{
    if (!doc.contains("devices") || !doc["devices"].is_array() || doc["devices"].empty())
        reject("devices", "expected an array of devices");
    const json &devs = doc["devices"];
    std::map<int32_t, std::string> dev_seen;
    std::map<std::tuple<int32_t, int32_t, int32_t>, std::string> slot_seen;
    for (size_t i = 0; i < devs.size(); ++i) {
        std::string dpath = index_path("devices", i);
        only_members(devs[i], dpath, {"dev", "slots"});
        if (!devs[i].contains("dev")) reject(member_path(dpath, "dev"), "missing");
        for (int32_t dev : numbers(devs[i]["dev"], member_path(dpath, "dev"), 1, 16)) {
            if (auto it = dev_seen.find(dev); it != dev_seen.end())
                reject(member_path(dpath, "dev"),
                     "device " + std::to_string(dev) + " is given twice (also " + it->second + ")");
            dev_seen[dev] = member_path(dpath, "dev");
            const json &slots = devs[i].contains("slots") ? devs[i]["slots"] : json::array();
            if (!slots.is_array()) reject(member_path(dpath, "slots"), "expected an array");
            for (size_t s = 0; s < slots.size(); ++s) {
                std::string spath = index_path(member_path(dpath, "slots"), s);
                only_members(slots[s], spath, {"slot", "card", "subcards"});
                if (!slots[s].contains("slot")) reject(member_path(spath, "slot"), "missing");
                const CardType *type =
                    find_type(types_, string_member(slots[s], spath, "card"), false,
                              member_path(spath, "card"));
                for (int32_t slot : numbers(slots[s]["slot"], member_path(spath, "slot"), 1, 31)) {
                    auto key = std::make_tuple(dev, slot, 0);
                    if (auto it = slot_seen.find(key); it != slot_seen.end())
                        reject(member_path(spath, "slot"), "slot " + std::to_string(slot) +
                                                             " of device " + std::to_string(dev) +
                                                             " is given twice (also " + it->second + ")");
                    slot_seen[key] = spath;
                    cards_.push_back(Card{dev, slot, 0, type, nullptr, spath, {}, {}, 0});
                    const json &subs = slots[s].contains("subcards") ? slots[s]["subcards"] : json::array();
                    if (!subs.is_array()) reject(member_path(spath, "subcards"), "expected an array");
                    for (size_t k = 0; k < subs.size(); ++k) {
                        std::string kpath = index_path(member_path(spath, "subcards"), k);
                        only_members(subs[k], kpath, {"sslot", "card"});
                        if (!subs[k].contains("sslot")) reject(member_path(kpath, "sslot"), "missing");
                        const CardType *sub =
                            find_type(types_, string_member(subs[k], kpath, "card"), true,
                                      member_path(kpath, "card"));
                        for (const PortDef &p : sub->ports) {
                            if (p.unit >= static_cast<int32_t>(type->units.size()) ||
                                type->units[static_cast<size_t>(p.unit)].is_virtual)
                                reject(member_path(kpath, "card"),
                                     "subcard " + sub->name + " has ports on unit " +
                                         std::to_string(p.unit) + ", which " + type->name +
                                         " does not have as a physical unit");
                        }
                        for (int32_t sslot : numbers(subs[k]["sslot"], member_path(kpath, "sslot"), 1, 7)) {
                            if (sslot > type->subslots)
                                reject(member_path(kpath, "sslot"),
                                     "sub-slot " + std::to_string(sslot) + " is beyond the " +
                                         std::to_string(type->subslots) + " sub-slots of " + type->name);
                            auto skey = std::make_tuple(dev, slot, sslot);
                            if (auto it = slot_seen.find(skey); it != slot_seen.end())
                                reject(member_path(kpath, "sslot"),
                                     "sub-slot " + std::to_string(sslot) + " of " + std::to_string(dev) +
                                         "/" + std::to_string(slot) + " is given twice (also " +
                                         it->second + ")");
                            slot_seen[skey] = kpath;
                            cards_.push_back(Card{dev, slot, sslot, type, sub, kpath, {}, {}, 0});
                        }
                    }
                }
            }
        }
    }
    devices_ = dev_seen.size();
    std::stable_sort(cards_.begin(), cards_.end(), [](const Card &a, const Card &b) {
        return std::tie(a.dev, a.slot, a.sslot) < std::tie(b.dev, b.slot, b.sslot);
    });
}

// Module ids by the capability scheme of static allocation: a base from the card's slot
// position, ids counted up from it and moved past the invalid module ids.
void Builder::allocate_modids()
{
    std::map<uint32_t, std::string> owner;
    for (Card &card : cards_) {
        const CardType &t = *card.type;
        if (card.sslot != 0 || t.units.empty()) continue;
        std::string ctx = "card type " + t.name + " in " + card.where();
        std::string type_key = "modid-info/" + std::to_string(t.type);
        auto min = caps_.get(type_key + "/min");
        auto max = caps_.get(type_key + "/max");
        auto per_slot = caps_.get(type_key + "/num-per-slot");
        if (!min || !max || !per_slot)
            reject(member_path(card.path, "card"),
                 ctx + " has no module-id range in " + caps_.path + " (" + type_key +
                     "/min, max, num-per-slot)");
        auto id_num = caps_.get("node-type-cap-id-num/" + std::to_string(t.node));
        if (!id_num || *id_num <= 0)
            reject(member_path(card.path, "card"),
                 ctx + ": " + caps_.path + " gives node type " + std::to_string(t.node) +
                     " no module ids (node-type-cap-id-num/" + std::to_string(t.node) + ")");
        int64_t need = static_cast<int64_t>(t.units.size()) * t.idnum_per_unit;
        if (need > *id_num)
            reject(member_path(card.path, "card"),
                 ctx + " needs " + std::to_string(need) + " module ids (" +
                     std::to_string(t.units.size()) + " units x " + std::to_string(t.idnum_per_unit) +
                     "), its node type gives " + std::to_string(*id_num));
        int64_t pos = 0;
        switch (t.node) {
        case P_DEV__DM_NODE_TYPE_E__DM_TYPE_BOX:
            pos = card.dev - 1;
            break;
        case P_DEV__DM_NODE_TYPE_E__DM_TYPE_MB:
            pos = card.slot + card.dev * 2 - 32;
            break;
        case P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC:
        case P_DEV__DM_NODE_TYPE_E__DM_TYPE_HPSC:
            pos = card.dev == 1 ? card.slot : card.slot + static_cast<int64_t>(card.dev - 1) * caps_.lc_slots;
            break;
        case P_DEV__DM_NODE_TYPE_E__DM_TYPE_SFC:
            pos = card.dev == 1 ? card.slot - 22 : card.slot + card.dev * 8 - 30;
            break;
        default:
            reject(member_path(card.path, "card"),
                 ctx + ": node type " + std::to_string(t.node) + " has no module-id position");
        }
        int64_t base = *min + static_cast<int64_t>(*per_slot) * pos;
        for (int32_t i = 0; i < *id_num; ++i) {
            int64_t id = base + i;
            int64_t counted = 0;
            for (;;) {
                int64_t n = std::count_if(caps_.invalid.begin(), caps_.invalid.end(),
                                          [&](int32_t v) { return v >= *min && v <= id; });
                if (n <= counted) break;
                id += n - counted;
                counted = n;
            }
            if (id < *min || id > *max || id > kMaxModid)
                reject(member_path(card.path, "card"),
                     "module id range exhausted: " + ctx + " would take module id " +
                         std::to_string(id) + ", outside " + std::to_string(*min) + ".." +
                         std::to_string(std::min(*max, kMaxModid)) + " (" + type_key + " of " +
                         caps_.path + ")");
            auto [it, fresh] = owner.emplace(static_cast<uint32_t>(id), card.where());
            if (!fresh)
                reject(member_path(card.path, "card"),
                     ctx + " would take module id " + std::to_string(id) + ", already taken by " +
                         it->second);
            card.modids.push_back(static_cast<uint32_t>(id));
        }
    }
}

std::vector<std::pair<size_t, int32_t>> Builder::match(const Pattern &p, const std::string &path) const
{
    std::vector<std::pair<size_t, int32_t>> out;
    bool wild = !p.part[0] || !p.part[1] || !p.part[2];
    for (size_t c = 0; c < cards_.size(); ++c) {
        const Card &card = cards_[c];
        if ((p.part[0] && !p.part[0]->count(card.dev)) || (p.part[1] && !p.part[1]->count(card.slot)) ||
            (p.part[2] && !p.part[2]->count(card.sslot)))
            continue;
        const CardType &t = card.own();
        if (wild && t.ports.empty()) continue;
        if (!p.part[3]) {
            for (const PortDef &port : t.ports)
                out.emplace_back(c, port.lport);
            continue;
        }
        for (int32_t lport : *p.part[3]) {
            bool has = std::any_of(t.ports.begin(), t.ports.end(),
                                   [&](const PortDef &d) { return d.lport == lport; });
            if (!has)
                reject(path, "\"" + p.text + "\": lport " + std::to_string(lport) +
                               " is beyond the ports of " + t.name + " in " + card.where() + " (" +
                               std::to_string(t.ports.size()) + " panel ports from " +
                               (t.ports.empty() ? "-" : std::to_string(t.ports.front().lport)) + ")");
            out.emplace_back(c, lport);
        }
    }
    if (out.empty()) reject(path, "\"" + p.text + "\" matches no port");
    return out;
}

void Builder::make_ports(const json &doc)
{
    if (doc.contains("split")) {
        const json &arr = doc["split"];
        if (!arr.is_array()) reject("split", "expected an array");
        for (size_t i = 0; i < arr.size(); ++i) {
            std::string path = index_path("split", i);
            only_members(arr[i], path, {"port", "members"});
            if (!arr[i].contains("port")) reject(member_path(path, "port"), "missing");
            Pattern p = parse_pattern(arr[i]["port"], member_path(path, "port"));
            int32_t members = int_member(arr[i], path, "members", 2, 8);
            for (const auto &key : match(p, member_path(path, "port")))
                splits_[key] = members;
        }
    }

    for (size_t c = 0; c < cards_.size(); ++c) {
        Card &card = cards_[c];
        const CardType &t = card.own();
        const CardType &host = *card.type;
        // The host card's module ids; a subcard's ports sit on its host's chips.
        const Card *chips = &card;
        for (size_t h = c; card.sslot != 0; --h) {
            if (cards_[h].sslot == 0) {
                chips = &cards_[h];
                break;
            }
        }
        int32_t cid = t.cid;
        int32_t scid = card.subcard != nullptr ? t.scid : 0;
        for (const PortDef &def : t.ports) {
            auto split = splits_.find({c, def.lport});
            int32_t members = split == splits_.end() ? 1 : split->second;
            const UnitDef &unit = host.units[static_cast<size_t>(def.unit)];
            for (int32_t m = 0; m < members; ++m) {
                TruthRow r;
                r.kind = members > 1 ? PortKind::SplitMember : unit.power ? PortKind::Power : PortKind::Port;
                r.dev = card.dev;
                r.slot = card.slot;
                r.sslot = card.sslot;
                r.lport = def.lport;
                r.member = members > 1 ? m + 1 : 0;
                r.unit = def.unit;
                r.port = def.port + m;
                if (r.port > 255)
                    reject("split", "a member of " + card.where() + "/" + std::to_string(def.lport) +
                                      " would take chip port " + std::to_string(r.port) + " (at most 255)");
                r.core = r.port * host.idnum_per_unit / 256;
                size_t id_index = static_cast<size_t>(def.unit * host.idnum_per_unit + r.core);
                r.modid = static_cast<int32_t>(chips->modids.at(id_index));
                r.mport = r.port;
                r.cid = cid;
                r.scid = scid;
                r.card_type = host.type;
                r.subcard_type = card.subcard != nullptr ? card.subcard->type : 0;
                uint32_t type = unit.power ? kTypePower : kTypeGlobal;
                r.gphyid = type << 24 | static_cast<uint32_t>(cid & 31) << 19 |
                           static_cast<uint32_t>(r.modid & kMaxModid) << 8 | static_cast<uint32_t>(r.port & 255);
                r.lphyid = 0x08000000u | static_cast<uint32_t>(scid) << 16 |
                           static_cast<uint32_t>(r.unit) << 8 | static_cast<uint32_t>(r.port);
                r.gslot = card.gslot();
                r.node = card.node();
                card.rows.push_back(rows_.size());
                rows_.push_back(r);
                row_card_.push_back(c);
            }
        }
    }

    // A chip port stands for one panel port: on a card and its subcards, per unit.
    std::map<std::tuple<int32_t, int32_t, int32_t, int32_t>, size_t> chip_ports;
    for (size_t i = 0; i < rows_.size(); ++i) {
        const TruthRow &r = rows_[i];
        auto [it, fresh] = chip_ports.emplace(std::make_tuple(r.dev, r.slot, r.unit, r.port), i);
        if (!fresh) {
            bool split = r.member > 1 || rows_[it->second].member > 1;
            reject(split ? "split" : cards_[row_card_[i]].path,
                 describe(i) + " takes chip port " + std::to_string(r.port) + " of unit " +
                     std::to_string(r.unit) + ", already used by " + describe(it->second));
        }
    }
}

std::string Builder::describe(size_t row) const
{
    const TruthRow &r = rows_[row];
    std::string text = std::string(port_kind_name(r.kind)) + " " + std::to_string(r.dev) + "/" +
                       std::to_string(r.slot) + "/" + std::to_string(r.sslot) + "/" +
                       std::to_string(r.lport);
    if (r.member != 0) text += ":" + std::to_string(r.member);
    if (r.kind == PortKind::SubAp || r.kind == PortKind::SubRoute)
        text += " evlan " + std::to_string(r.evlan);
    return text;
}

void Builder::take_ifx(uint32_t ifx, size_t row, const std::string &path)
{
    rows_[row].ifx = ifx;
    auto [it, fresh] = ifx_owner_.emplace(ifx, row);
    if (!fresh)
        reject(path, "ifx collision: ifx " + std::to_string(ifx) + " of " + describe(row) +
                       " is already taken by " + describe(it->second));
}

void Builder::number_ports(const json &doc)
{
    const json ifx = doc.contains("ifx") ? doc["ifx"] : json::object();
    only_members(ifx, "ifx", {"base", "per_slot", "sub_base"});
    int64_t base = int_member(ifx, "ifx", "base", 1, UINT32_MAX, 1);
    int64_t per_slot = int_member(ifx, "ifx", "per_slot", 0, 1 << 24, 0);
    int64_t next = base;
    for (size_t c = 0; c < cards_.size(); ++c) {
        const Card &card = cards_[c];
        if (per_slot > 0 && card.sslot == 0)
            next = base + (static_cast<int64_t>(card.dev - 1) * 32 + card.slot) * per_slot;
        for (size_t row : card.rows) {
            if (next > UINT32_MAX) reject("ifx", "the ifx of " + describe(row) + " passes 2^32 - 1");
            take_ifx(static_cast<uint32_t>(next++), row, per_slot > 0 ? "ifx.per_slot" : "ifx");
        }
    }
}

void Builder::make_sub_interfaces(const json &doc)
{
    int64_t next = 1;
    for (const TruthRow &r : rows_)
        next = std::max<int64_t>(next, static_cast<int64_t>(r.ifx) + 1);
    if (doc.contains("ifx") && doc["ifx"].contains("sub_base"))
        next = int_member(doc["ifx"], "ifx", "sub_base", 1, kMaxSubIfx);
    if (!doc.contains("sub_interfaces")) return;
    const json &arr = doc["sub_interfaces"];
    if (!arr.is_array()) reject("sub_interfaces", "expected an array");
    size_t ports = rows_.size();
    for (size_t i = 0; i < arr.size(); ++i) {
        std::string path = index_path("sub_interfaces", i);
        const json &o = arr[i];
        only_members(o, path, {"kind", "ports", "evlans", "trunk", "ifx"});
        std::string kind = string_member(o, path, "kind");
        if (kind != "sub-ap" && kind != "sub-route")
            reject(member_path(path, "kind"), "'" + kind + "' is neither \"sub-ap\" nor \"sub-route\"");
        bool ap = kind == "sub-ap";
        uint32_t trunk = 0;
        if (ap) trunk = static_cast<uint32_t>(int_member(o, path, "trunk", 1, INT32_MAX));
        else if (o.contains("trunk"))
            reject(member_path(path, "trunk"), "only a sub-ap has a trunk");
        if (!o.contains("ports")) reject(member_path(path, "ports"), "missing");
        if (!o.contains("evlans")) reject(member_path(path, "evlans"), "missing");
        Pattern p = parse_pattern(o["ports"], member_path(path, "ports"));
        std::vector<int32_t> evlans = numbers(o["evlans"], member_path(path, "evlans"), 1, 4094);
        if (o.contains("ifx")) next = int_member(o, path, "ifx", 1, kMaxSubIfx);
        std::set<std::pair<size_t, int32_t>> parents;
        for (const auto &key : match(p, member_path(path, "ports")))
            parents.insert(key);
        for (size_t parent = 0; parent < ports; ++parent) {
            if (!parents.count({row_card_[parent], rows_[parent].lport})) continue;
            const TruthRow host = rows_[parent];
            for (int32_t evlan : evlans) {
                if (next > kMaxSubIfx)
                    reject(path, "the ifx of a sub-interface passes 0xffffff (its phyid holds it in 24 bits)");
                TruthRow r = host;
                r.kind = ap ? PortKind::SubAp : PortKind::SubRoute;
                r.evlan = static_cast<uint32_t>(evlan);
                r.trunk = trunk;
                r.master_phyid = host.gphyid;
                uint32_t ifx = static_cast<uint32_t>(next++);
                r.gphyid = (ap ? kTypeSubAp : kTypeSubRoute) << 24 | ifx;
                rows_.push_back(r);
                take_ifx(ifx, rows_.size() - 1, member_path(path, o.contains("ifx") ? "ifx" : "ports"));
            }
        }
    }
}

size_t Builder::choose_local(const json &doc, const std::string &card_opt) const
{
    std::string text = card_opt;
    std::string path = "--card";
    if (text.empty() && doc.contains("local")) {
        text = string_member(doc, "", "local");
        path = "local";
    }
    if (text.empty()) {
        for (size_t c = 0; c < cards_.size(); ++c) {
            if (cards_[c].dev == cards_.front().dev && cards_[c].sslot == 0 &&
                cards_[c].type->node == P_DEV__DM_NODE_TYPE_E__DM_TYPE_LC)
                return c;
        }
        reject("local", "the first device has no line card: name the local card with \"local\" or --card");
    }
    int32_t part[3] = {0, 0, 0};
    int n = 0;
    std::string_view rest = text;
    while (n < 3) {
        size_t slash = rest.find('/');
        auto v = parse_number(rest.substr(0, slash));
        if (!v) break;
        part[n++] = static_cast<int32_t>(*v);
        if (slash == std::string_view::npos) {
            rest = {};
            break;
        }
        rest = rest.substr(slash + 1);
    }
    if (n < 2 || !rest.empty()) reject(path, "\"" + text + "\" is not DEV/SLOT or DEV/SLOT/SSLOT");
    for (size_t c = 0; c < cards_.size(); ++c) {
        if (cards_[c].dev == part[0] && cards_[c].slot == part[1] && cards_[c].sslot == part[2])
            return c;
    }
    reject(path, "no card in " + std::to_string(part[0]) + "/" + std::to_string(part[1]) + "/" +
                   std::to_string(part[2]));
}

// ---------------------------------------------------------------- records

template <typename T> T *new_msg(const ProtobufCMessageDescriptor &desc)
{
    void *p = std::malloc(desc.sizeof_message);
    if (p == nullptr) throw std::bad_alloc();
    protobuf_c_message_init(&desc, p);
    return static_cast<T *>(p);
}

char *dup_string(const std::string &s)
{
    auto *p = static_cast<char *>(std::malloc(s.size() + 1));
    if (p == nullptr) throw std::bad_alloc();
    std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

template <typename T> T *dup_array(const std::vector<T> &v, size_t *n)
{
    *n = 0;
    if (v.empty()) return nullptr;
    auto *p = static_cast<T *>(std::malloc(v.size() * sizeof(T)));
    if (p == nullptr) throw std::bad_alloc();
    std::copy(v.begin(), v.end(), p);
    *n = v.size();
    return p;
}

template <typename T> T **pointer_array(size_t count)
{
    auto *p = static_cast<T **>(std::calloc(count == 0 ? 1 : count, sizeof(T *)));
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

class Records
{
  public:
    explicit Records(std::vector<Record> *out) : out_(out) {}

    // Takes the record; key is its index message, or null for a singleton.
    void add(ProtobufCMessage *value, const ProtobufCMessage *key)
    {
        Record r;
        r.value = MessagePtr(value);
        r.key = key != nullptr ? key : value;
        default_placement(value->descriptor, &r.db, &r.form);
        out_->push_back(std::move(r));
    }

  private:
    std::vector<Record> *out_;
};

PDev__DmPortAttrT *port_attr(int32_t type, int32_t unit, int32_t port, int32_t lport, int32_t core,
                             int32_t owner_subcard)
{
    auto *a = new_msg<PDev__DmPortAttrT>(p_dev__dm_port_attr_t__descriptor);
    a->type = static_cast<PIntf__IntftypeE>(type);
    a->unit = unit;
    a->port = port;
    a->lport = lport;
    a->user_port = lport;
    a->coreid = core;
    a->mport = port;
    a->owner_subcard = owner_subcard;
    return a;
}

// The static attributes of a card type: its units with their ports (a subcard lists the host
// units its ports sit on), the module-id allocation mode.
void add_card_stattr(Records &rec, const CardType &t, const Caps &caps)
{
    auto *s = new_msg<PDev__DmCardStattrT>(p_dev__dm_card_stattr_t__descriptor);
    s->index = new_msg<PDev__DmCardStattrIndex>(p_dev__dm_card_stattr_index__descriptor);
    rec.add(&s->base, &s->index->base);
    s->index->type = t.type;
    s->type = t.type;
    s->name = dup_string(t.name);
    s->node_name = static_cast<PDev__NodeName>(t.node);
    s->cpu_num = t.cpu_num;
    s->mgmt_num = t.mgmt_num;
    s->switch_num = t.intraband;
    s->sub_slot_num = t.subslots;
    s->virtual_chip_num = t.virtual_units();
    s->power_supply = t.power_supply() ? 1 : 0;
    std::vector<std::pair<int32_t, std::vector<const PortDef *>>> units;
    if (t.subcard) {
        for (const PortDef &p : t.ports) {
            auto it = std::find_if(units.begin(), units.end(), [&](const auto &u) { return u.first == p.unit; });
            if (it == units.end()) units.push_back({p.unit, {&p}});
            else it->second.push_back(&p);
        }
    } else {
        for (size_t u = 0; u < t.units.size(); ++u) {
            units.push_back({static_cast<int32_t>(u), {}});
            for (const PortDef &p : t.ports) {
                if (p.unit == static_cast<int32_t>(u)) units.back().second.push_back(&p);
            }
        }
    }
    s->chip_num = static_cast<int32_t>(units.size());
    s->chip_attr_array = pointer_array<PDev__DmChipAttrT>(units.size());
    for (size_t u = 0; u < units.size(); ++u) {
        auto *chip = new_msg<PDev__DmChipAttrT>(p_dev__dm_chip_attr_t__descriptor);
        s->chip_attr_array[u] = chip;
        s->n_chip_attr_array = u + 1;
        bool is_virtual = !t.subcard && t.units[u].is_virtual;
        chip->name = dup_string((is_virtual ? "vunit" : "unit") + std::to_string(units[u].first));
        chip->is_switch_chip = is_virtual ? 0 : 1;
        chip->unit_virtual_type = is_virtual ? P_DEV__UNIT_TYPE_E__UNIT_LOGICAL : P_DEV__UNIT_TYPE_E__UNIT_PHYSICAL;
        const auto &ports = units[u].second;
        chip->port_num = static_cast<int32_t>(ports.size());
        chip->port_attr = pointer_array<PDev__DmPortAttrT>(ports.size());
        int32_t ipu = t.subcard ? 1 : t.idnum_per_unit;
        for (size_t k = 0; k < ports.size(); ++k) {
            chip->port_attr[k] = port_attr(t.port_type, ports[k]->unit, ports[k]->port, ports[k]->lport,
                                           ports[k]->port * ipu / 256, t.subcard ? t.type : 0);
            chip->n_port_attr = k + 1;
        }
    }
    if (!t.subcard && !t.units.empty()) {
        auto *mode = new_msg<PDev__ChipidCardMode>(p_dev__chipid_card_mode__descriptor);
        s->chipid_card_mode = mode;
        mode->alloc_type = P_DEV__ALLOC_TYPE__STATIC;
        mode->id_num = static_cast<uint32_t>(t.units.size()) * static_cast<uint32_t>(t.idnum_per_unit);
        mode->idnum_per_unit = static_cast<uint32_t>(t.idnum_per_unit);
        auto max = caps.get("modid-info/" + std::to_string(t.type) + "/max");
        mode->support_num = max ? static_cast<uint32_t>(*max) + 1 : 0;
    }
}

} // namespace

const char *port_kind_name(PortKind kind)
{
    switch (kind) {
    case PortKind::Port:
        return "port";
    case PortKind::Power:
        return "power";
    case PortKind::SplitMember:
        return "split member";
    case PortKind::SubAp:
        return "sub-ap";
    case PortKind::SubRoute:
        return "sub-route";
    }
    return "port";
}

namespace
{

} // namespace

ordered_json truth_json(const TruthRow &r)
{
    bool sub = r.kind == PortKind::SubAp || r.kind == PortKind::SubRoute;
    ordered_json j;
    j["kind"] = port_kind_name(r.kind);
    j["dev"] = r.dev;
    j["slot"] = r.slot;
    j["sslot"] = r.sslot;
    j["lport"] = r.lport;
    j["member"] = r.member;
    j["unit"] = r.unit;
    j["port"] = r.port;
    j["core"] = r.core;
    j["modid"] = r.modid;
    j["mport"] = r.mport;
    j["cid"] = r.cid;
    j["scid"] = r.scid;
    j["card_type"] = r.card_type;
    j["subcard_type"] = r.subcard_type;
    j["ifx"] = r.ifx;
    j["gphyid"] = hex32(r.gphyid);
    j["lphyid"] = hex32(r.lphyid);
    j["gslot"] = r.gslot;
    j["node"] = hex32(r.node);
    // The system port of a front-panel port: gslot * 256 + lport (the library's numbering).
    j["sysport"] = sub ? ordered_json() : ordered_json(static_cast<uint32_t>(r.gslot) * 256 + static_cast<uint32_t>(r.lport));
    j["master_phyid"] = sub ? ordered_json(hex32(r.master_phyid)) : ordered_json();
    j["evlan"] = sub ? ordered_json(r.evlan) : ordered_json();
    j["trunk"] = r.kind == PortKind::SubAp ? ordered_json(r.trunk) : ordered_json();
    return j;
}

void Builder::build(Chassis *out)
{
    std::vector<Record> all;
    Records rec(&all);

    for (const CardType &t : types_)
        add_card_stattr(rec, t, caps_);

    // Card ids: each card type alone, and each card type with each subcard type it hosts.
    std::set<std::pair<int32_t, int32_t>> addressed;
    auto add_address = [&](const CardType &card, const CardType *sub) {
        int32_t sub_type = sub != nullptr ? sub->type : 0;
        if (!addressed.insert({card.type, sub_type}).second) return;
        auto *a = new_msg<UIntf__PmxCardAddressId>(u_intf__pmx_card_address_id__descriptor);
        a->index = new_msg<UIntf__CardAddressIdIndex>(u_intf__card_address_id_index__descriptor);
        rec.add(&a->base, &a->index->base);
        a->index->card_type = card.type;
        a->index->subcard_type = sub_type;
        a->card_pmx_id = sub != nullptr ? sub->cid : card.cid;
        a->subcard_pmx_id = sub != nullptr ? sub->scid : 0;
    };
    for (const CardType &t : types_) {
        if (!t.subcard && t.cid >= 0) add_address(t, nullptr);
    }
    for (const Card &card : cards_) {
        if (card.subcard != nullptr) add_address(*card.type, card.subcard);
    }

    for (const Card &card : cards_) {
        const CardType &t = card.own();
        auto *info = new_msg<PDev__CardInfo>(p_dev__card_info__descriptor);
        info->index = new_msg<PDev__CardInfoIndex>(p_dev__card_info_index__descriptor);
        rec.add(&info->base, &info->index->base);
        info->index->devid = card.dev;
        info->index->slotid = card.slot;
        info->index->sslotid = card.sslot;
        info->config_dev_type = t.type;
        info->is_online = 1;
        info->cpu_num = t.cpu_num;
        info->is_mboard = t.node == P_DEV__DM_NODE_TYPE_E__DM_TYPE_MB ? 1 : 0;
        info->sw_status = 2;
        info->name = dup_string(t.name);
        info->static_info = new_msg<PDev__CardStaticInfo>(p_dev__card_static_info__descriptor);
        info->static_info->index = new_msg<PDev__CardStaticInfoIndex>(p_dev__card_static_info_index__descriptor);
        info->static_info->index->type = t.type;
        info->static_info->node_type = t.node;
        info->static_info->sub_slot_num = t.subslots;
        info->static_info->name = dup_string(t.name);
        info->user_slot = card.slot;
        info->user_sslot = card.sslot;
        info->card_nodeid = static_cast<int32_t>(card.node());
        info->port_num = static_cast<int32_t>(t.ports.size());

        auto *ready = new_msg<PDev__LocalCardPortReady>(p_dev__local_card_port_ready__descriptor);
        ready->index = new_msg<PDev__LocalCardInfoIndex>(p_dev__local_card_info_index__descriptor);
        rec.add(&ready->base, &ready->index->base);
        ready->index->devid = card.dev;
        ready->index->slotid = card.slot;
        ready->index->sslotid = card.sslot;
        ready->local_port_ready = 1;
        ready->card_type = t.type;

        if (card.modids.empty()) continue;
        const CardType &host = *card.type;
        auto *mod = new_msg<UIntf__PmxModTbl>(u_intf__pmx_mod_tbl__descriptor);
        mod->index = new_msg<UIntf__ModIndex>(u_intf__mod_index__descriptor);
        rec.add(&mod->base, &mod->index->base);
        mod->index->devid = card.dev;
        mod->index->slotid = card.slot;
        mod->status = U_INTF__SLOT_MODID_ST_E__MODID_VALID;
        mod->gslot = card.gslot();
        mod->card_type = host.type;
        mod->idnum_per_unit = static_cast<uint32_t>(host.idnum_per_unit);
        mod->id = dup_array(card.modids, &mod->n_id);
        mod->id_num = static_cast<uint32_t>(mod->n_id);
        mod->fuid_info = pointer_array<UIntf__PmxFuidInfo>(host.units.size());
        for (size_t u = 0; u < host.units.size(); ++u) {
            auto *f = new_msg<UIntf__PmxFuidInfo>(u_intf__pmx_fuid_info__descriptor);
            mod->fuid_info[u] = f;
            mod->n_fuid_info = u + 1;
            f->unit = static_cast<int32_t>(u);
            auto first = card.modids.begin() + static_cast<std::ptrdiff_t>(u * static_cast<size_t>(host.idnum_per_unit));
            f->id = dup_array(std::vector<uint32_t>(first, first + host.idnum_per_unit), &f->n_id);
            f->fuid_type = host.units[u].is_virtual ? U_INTF__PMX_FUID_TYPE_E__PMX_LOGICAL
                           : host.units[u].power    ? U_INTF__PMX_FUID_TYPE_E__PMX_POWER
                                                    : U_INTF__PMX_FUID_TYPE_E__PMX_PHYSICAL;
        }
    }

    // A split port's members carry the member count, the rest 1.
    std::map<std::tuple<int32_t, int32_t, int32_t, int32_t>, int32_t> members;
    for (const TruthRow &r : rows_)
        if (r.member > 0) ++members[{r.dev, r.slot, r.sslot, r.lport}];
    auto fill = [&members](auto *m, const TruthRow &r) {
        m->ifx = r.ifx;
        m->gphyid = r.gphyid;
        m->lphyid = r.lphyid;
        m->user_phyid = r.gphyid;
        m->modid = r.modid;
        m->mport = r.mport;
        m->unit = r.unit;
        m->port = r.port;
        m->dev = r.dev;
        m->slot = r.slot;
        m->lport = r.lport;
        m->is_valid = 1;
        m->count = r.member > 0 ? members[{r.dev, r.slot, r.sslot, r.lport}] : 1;
        m->core = r.core;
        m->sslot = r.sslot;
    };
    for (const TruthRow &r : rows_) {
        auto *ifx = new_msg<UIntf__PmxIfxTbl>(u_intf__pmx_ifx_tbl__descriptor);
        ifx->index = new_msg<UIntf__IfxIndex>(u_intf__ifx_index__descriptor);
        rec.add(&ifx->base, &ifx->index->base);
        ifx->index->ifx = r.ifx;
        fill(ifx, r);
        auto *phy = new_msg<UIntf__PmxPhyTbl>(u_intf__pmx_phy_tbl__descriptor);
        phy->index = new_msg<UIntf__PhyIndex>(u_intf__phy_index__descriptor);
        rec.add(&phy->base, &phy->index->base);
        phy->index->phyid = r.gphyid;
        fill(phy, r);
        if (r.kind == PortKind::SubAp) {
            auto *s = new_msg<UIntf__PmxSubApIntf>(u_intf__pmx_sub_ap_intf__descriptor);
            s->index = new_msg<UIntf__IfxIndex>(u_intf__ifx_index__descriptor);
            rec.add(&s->base, &s->index->base);
            s->index->ifx = r.ifx;
            s->phyid = r.gphyid;
            s->evlan = r.evlan;
            s->trunk = r.trunk;
            s->master_phyid = r.master_phyid;
        } else if (r.kind == PortKind::SubRoute) {
            auto *s = new_msg<UIntf__PmxSubRouteIntf>(u_intf__pmx_sub_route_intf__descriptor);
            s->index = new_msg<UIntf__IfxIndex>(u_intf__ifx_index__descriptor);
            rec.add(&s->base, &s->index->base);
            s->index->ifx = r.ifx;
            s->phyid = r.gphyid;
            s->evlan = r.evlan;
            s->master_phyid = r.master_phyid;
        }
    }

    // The local card.
    const Card &local = cards_[local_];
    const CardType &lt = local.own();
    auto *me = new_msg<PDev__DpLibMyInfo>(p_dev__dp_lib_my_info__descriptor);
    rec.add(&me->base, nullptr);
    me->dm_my_node_type = static_cast<PDev__DmNodeTypeE>(lt.node);
    me->slotid = local.slot;
    me->sslotid = local.sslot;
    me->cpu_num = lt.cpu_num;
    me->card_type = lt.type;
    me->actual_card_type = lt.type;
    me->card_nodeid = static_cast<int32_t>(local.node());
    std::vector<uint8_t> mac = {0x02, 0x50, 0x4d, static_cast<uint8_t>(local.dev),
                                static_cast<uint8_t>(local.slot), static_cast<uint8_t>(local.sslot)};
    me->my_card_mac_addr.data = dup_array(mac, &me->my_card_mac_addr.len);

    auto *chss = new_msg<PDev__DpLibMyChss>(p_dev__dp_lib_my_chss__descriptor);
    rec.add(&chss->base, nullptr);
    chss->devid = local.dev;
    chss->chss_num = static_cast<int32_t>(devices_);
    chss->is_master = local.dev == cards_.front().dev ? 1 : 0;

    std::vector<int32_t> lports;
    for (const PortDef &p : lt.ports)
        lports.push_back(p.lport);
    auto *lpi = new_msg<PDev__LocalPortInfo>(p_dev__local_port_info__descriptor);
    rec.add(&lpi->base, nullptr);
    lpi->lport_num = static_cast<int32_t>(lports.size());
    lpi->online_lport = dup_array(lports, &lpi->n_online_lport);
    for (size_t row : local.rows) {
        const TruthRow &r = rows_[row];
        if (r.member <= 1) {
            auto *lp = new_msg<PDev__LportInfo>(p_dev__lport_info__descriptor);
            lp->index = new_msg<PDev__LportIndex>(p_dev__lport_index__descriptor);
            rec.add(&lp->base, &lp->index->base);
            lp->index->lport = r.lport;
            lp->unit = r.unit;
            lp->cport = r.port;
        }
        auto *uc = new_msg<PDev__UnitCportInfo>(p_dev__unit_cport_info__descriptor);
        uc->index = new_msg<PDev__UnitCportIndex>(p_dev__unit_cport_index__descriptor);
        rec.add(&uc->base, &uc->index->base);
        uc->index->unit = r.unit;
        uc->index->cport = r.port;
        uc->static_info = port_attr(lt.port_type, r.unit, r.port, r.lport, r.core,
                                    local.subcard != nullptr ? lt.type : 0);
        uc->owner_card_type = lt.type;
    }

    // A cluster member's back-plane ports: their range and the chip port behind each.
    if (!lt.backplane.empty()) {
        auto *range = new_msg<SCluster__IxnLportInfo>(s_cluster__ixn_lport_info__descriptor);
        rec.add(&range->base, nullptr);
        range->lport_base = static_cast<uint32_t>(lt.backplane.front().lport);
        range->lport_num = static_cast<uint32_t>(lt.backplane.size());
        for (const PortDef &p : lt.backplane) {
            auto *bp = new_msg<SCluster__IxnLportToUpt>(s_cluster__ixn_lport_to_upt__descriptor);
            bp->index = new_msg<SCluster__IxnLportToUptIndex>(s_cluster__ixn_lport_to_upt_index__descriptor);
            rec.add(&bp->base, &bp->index->base);
            bp->index->lport = static_cast<uint32_t>(p.lport);
            bp->unit = static_cast<uint32_t>(p.unit);
            bp->port = static_cast<uint32_t>(p.port);
        }
    }

    // Completeness last: a follower that sees it has everything else.
    auto *done = new_msg<PDev__DpLibComplete>(p_dev__dp_lib_complete__descriptor);
    rec.add(&done->base, nullptr);
    done->all_is_complete = 1;
    done->local_mb_is_complete = 1;
    done->local_lc_is_complete = 1;
    done->global_mb_is_complete = 1;
    done->local_card_is_complete = 1;
    done->dp_is_complete = 1;
    auto *stattr_done = new_msg<PDev__DmStattrComplete>(p_dev__dm_stattr_complete__descriptor);
    rec.add(&stattr_done->base, nullptr);
    stattr_done->all_complete = 1;

    out->records = std::move(all);
    out->truth = std::move(rows_);
    out->local = local.where();
    out->caps_path = caps_.path;
    out->devices = devices_;
    out->cards = cards_.size();
}

bool generate_chassis(const std::string &path, const GenOptions &opt, Chassis *out,
                      std::string *error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    json doc;
    try {
        doc = json::parse(in, nullptr, true, true);
    } catch (const json::exception &e) {
        std::string what = e.what();
        size_t tag_end = what.find("] ");
        if (what.starts_with("[json.") && tag_end != std::string::npos) what.erase(0, tag_end + 2);
        *error = path + ": not valid JSON: " + what;
        return false;
    }
    try {
        Builder b(std::filesystem::path(path).parent_path().string());
        b.parse(doc, opt);
        Chassis c;
        b.build(&c);
        *out = std::move(c);
        return true;
    } catch (const TopoError &e) {
        *error = path + ": " + (e.path.empty() ? "" : e.path + ": ") + e.text;
        return false;
    }
}

} // namespace pmx_tool
