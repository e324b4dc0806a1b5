// Chassis topologies: a short JSON description of devices, slots and card types (the format is
// in docs/chassis.md), turned into every record the library reads and a truth table of each
// interface's identities. Used by pmx gen and by the tests that check the library against it.
#ifndef PMX_TOOL_TOPOLOGY_H
#define PMX_TOOL_TOPOLOGY_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "json_records.h"

namespace pmx_tool
{

enum class PortKind { Port, Power, SplitMember, SubAp, SubRoute };

// "port", "power", "split member", "sub-ap", "sub-route".
const char *port_kind_name(PortKind kind);

// One interface with every identity the records give it. A sub-interface carries the position
// of its parent port (dev ... core, lphyid) and its own ifx and phyid.
struct TruthRow {
    PortKind kind = PortKind::Port;
    int32_t dev = 0;
    int32_t slot = 0;
    int32_t sslot = 0;
    int32_t lport = 0;
    int32_t member = 0; // 1.. for the members of a split port, else 0
    int32_t unit = 0;
    int32_t port = 0;
    int32_t core = 0;
    int32_t modid = 0;
    int32_t mport = 0;
    int32_t cid = 0;
    int32_t scid = 0;
    int32_t card_type = 0;    // the type of the card in the slot
    int32_t subcard_type = 0; // the subcard's type in a sub-slot, else 0
    uint32_t ifx = 0;
    uint32_t gphyid = 0; // the sub-interface phyid (type 19 or 20) for a sub-interface
    uint32_t lphyid = 0;
    int32_t gslot = 0;
    uint32_t node = 0;
    // Sub-interfaces only.
    uint32_t master_phyid = 0;
    uint32_t evlan = 0;
    uint32_t trunk = 0;
};

// One JSON line of the truth table (ids as "0x%08x" strings, null where a field does not apply).
nlohmann::ordered_json truth_json(const TruthRow &row);

struct GenOptions {
    std::string card; // "DEV/SLOT[/SSLOT]": the local card; empty: the topology's or the default
    std::string caps; // capability file; empty: the topology's "caps", else the platform default
};

struct Chassis {
    std::vector<Record> records; // in writing order: the completeness records come last
    std::vector<TruthRow> truth; // ports in dev/slot/sslot/lport order, then sub-interfaces
    std::string local;           // "1/3/0": the card the local records describe
    std::string caps_path;       // the capability file used
    size_t devices = 0;
    size_t cards = 0; // cards and subcards
};

// Reads a topology file and builds its records. False with *error naming the file, the path in
// it and the bad value; nothing is returned then.
bool generate_chassis(const std::string &path, const GenOptions &opt, Chassis *out,
                      std::string *error);

} // namespace pmx_tool

#endif // PMX_TOOL_TOPOLOGY_H
