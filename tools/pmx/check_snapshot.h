// The records pmx check compares: every record of the library's followed kinds read straight
// from the attached store (no cache of the library in between), reduced to the fields the rules
// look at, each with its database key.
#ifndef PMX_TOOL_CHECK_SNAPSHOT_H
#define PMX_TOOL_CHECK_SNAPSHOT_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "check_findings.h"

namespace pmx_tool
{

// An interface record (u_intf.pmx_ifx_tbl) or a physical-port record (u_intf.pmx_phy_tbl): the
// same fields, keyed by ifx and by gphyid.
struct PortRecord {
    std::string key; // the database key text
    uint32_t ifx = 0, gphyid = 0, lphyid = 0;
    int32_t modid = 0, mport = 0, unit = 0, port = 0, dev = 0, slot = 0, sslot = 0, lport = 0, core = 0;
    int32_t count = 0; // members of the split port it belongs to; 1 (or 0) for any other port
};

struct ModUnit {
    int32_t unit = 0;
    std::vector<uint32_t> ids;
};

// A module table (u_intf.pmx_mod_tbl) of dev/slot/sslot.
struct ModTable {
    std::string key;
    int32_t dev = 0, slot = 0, sslot = 0;
    int32_t status = 0; // u_intf.slot_modid_st_e
    int32_t card_type = 0;
    uint32_t id_num = 0;
    std::vector<uint32_t> ids;
    std::vector<ModUnit> units;
};

// A card record (p_dev.card_info): the card type the library takes from it, and its node type.
struct CardRecord {
    std::string key;
    int32_t t_mod = 0, dev = 0, slot = 0, sslot = 0;
    int32_t card_type = 0, node_type = 0;
};

// A card-address record (u_intf.pmx_card_address_id).
struct CardAddress {
    std::string key;
    int32_t card_type = 0, subcard_type = 0, cid = 0, scid = 0;
};

struct Snapshot {
    std::map<uint32_t, PortRecord> interfaces; // by the ifx of the key
    std::map<uint32_t, PortRecord> phys;       // by the phyid of the key
    std::vector<ModTable> mod_tables;
    std::vector<CardRecord> cards;
    std::vector<CardAddress> card_addresses;
    std::map<int32_t, int32_t> alloc_type; // card type -> p_dev.alloc_type of its static attributes
    std::vector<RecordRef> unpackable;     // values that did not unpack, with their kind and key
    size_t records = 0;                    // every key read, unpackable ones included
    size_t kinds = 0;                      // kinds scanned
};

// Progress of a long read on standard error: shown when `show` and once the read has gone on
// for a while or holds many records, so a small database prints nothing.
struct ReadProgress {
    bool show = false;
};

// Reads every followed kind from the attached store (opened with url) into *out. 0, or the
// client's code of the scan that failed, with *error naming the kind, the database and the reason.
int read_snapshot(const std::string &url, Snapshot *out, const ReadProgress &progress, std::string *error);

} // namespace pmx_tool

#endif // PMX_TOOL_CHECK_SNAPSHOT_H
