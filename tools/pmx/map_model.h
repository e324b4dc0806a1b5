// The chassis as the map draws it, built from the library's tables (map_tables.h): devices, the
// card in each slot with its subcards, and every port of each with its identities and state.
//
// Where each part comes from:
// - cards: the card-info table (dev/slot/sslot and card type; a subcard's type is its subcard
//   type), their cid from the card-id table, a subcard's scid from the subcard-id table, the
//   module ids from the per-slot module tables;
// - the ports a card has: its card type's chip ports and panel ports (global_sport, filled from
//   every card type's static attributes), each joined with the interface of that dev/slot/sslot
//   and unit/chip port; interfaces on chip ports the card type does not list (the further members
//   of a split port) are ports too. A listed port without an interface is drawn "absent";
//   sub-interfaces (phyid types 19 and 20) are no ports: they belong to the port whose gphyid is
//   their master phyid and show in its details;
// - split members: the library's split-port table (gslot, unit, chip port), numbered within
//   their panel port in chip-port order;
// - back-plane ports: the library knows those of its own card alone (its port table), so they
//   appear on the local card only, found by its module ids, and by their lports alone (no dump
//   gives their unit and chip port); they are no front-panel ports.
#ifndef PMX_TOOL_MAP_MODEL_H
#define PMX_TOOL_MAP_MODEL_H

#include <nlohmann/json.hpp>

#include <string>

#include "map_tables.h"

namespace pmx_tool
{

struct MapCounts {
    size_t devices = 0;
    size_t cards = 0;          // cards and subcards
    size_t ports = 0;          // front-panel ports, split members and power ports, absent ones included
    size_t backplane = 0;      // back-plane ports of the local card
    size_t interfaces = 0;     // rows of the interface table, sub-interfaces included
    size_t sub_interfaces = 0; // sub-AP and sub-route interfaces
};

struct MapModel {
    nlohmann::json data; // what the page reads (format in map_page.html)
    MapCounts counts;
};

// Builds the model; title and source are shown on the page. False with *why when a table lacks
// a field the map needs (the table, the row and the field named).
bool build_map_model(const MapTables &tables, const std::string &title, const std::string &source, MapModel *out,
                     std::string *why);

} // namespace pmx_tool

#endif // PMX_TOOL_MAP_MODEL_H
