// Ids on the command line and in answers: parsing, a phyid decoded into its fields, and the
// library's result codes named and explained.
#ifndef PMX_TOOL_PHYID_TEXT_H
#define PMX_TOOL_PHYID_TEXT_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace pmx_tool
{

// A 32-bit id in decimal or 0x hex (a negative decimal stands for its two's complement, as
// -1 for "no card type"); nothing, with *why, when it is not one.
std::optional<uint32_t> parse_id(const std::string &text, std::string *why);

// A phyid with its fields by type: {"value": "0x0710190c", "type": 7, "cid": .., "modid": ..,
// "port": .., "text": "0x0710190c (global port: cid 2, modid 25, port 12)"}.
nlohmann::ordered_json phyid_json(uint32_t phyid);

// The id of a query as the user reads it: a phyid decoded, anything else in decimal.
std::string describe_id(const std::string &query, uint32_t id);

// LIBPMX_E_NOT_FOUND for -7, and so on.
std::string result_name(int rc);
// What a result code of a query means for that query and id, with the code.
std::string result_text(int rc, const std::string &query, uint32_t id, int mode);

} // namespace pmx_tool

#endif // PMX_TOOL_PHYID_TEXT_H
