// Ids on the command line and in answers: parsing, phyids decoded, result codes explained.
#include "phyid_text.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "hex.h"
#include "libpmx_errno.h"
#include "libpmx_intf.h"

namespace pmx_tool
{

std::optional<uint32_t> parse_id(const std::string &text, std::string *why)
{
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || errno != 0 || v < INT32_MIN || v > UINT32_MAX) {
        *why = "'" + text + "' is not a 32-bit id (decimal, or hex with 0x)";
        return std::nullopt;
    }
    return static_cast<uint32_t>(v);
}

nlohmann::ordered_json phyid_json(uint32_t phyid)
{
    const std::string value = hex32(phyid);
    const uint32_t type = phyid >> 24;
    nlohmann::ordered_json j = {{"value", value}, {"type", type}};
    std::string kind;
    char fields[96] = "";
    switch (type) {
    case LIBPMX_PHYID_GLOBAL:
    case LIBPMX_PHYID_POWER:
        kind = type == LIBPMX_PHYID_GLOBAL ? "global port" : "power-module or virtual-unit port";
        j["cid"] = (phyid >> 19) & 0x1f;
        j["modid"] = (phyid >> 8) & 0x7ff;
        j["port"] = phyid & 0xff;
        std::snprintf(fields, sizeof fields, "cid %" PRIu32 ", modid %" PRIu32 ", port %" PRIu32, (phyid >> 19) & 0x1f,
                      (phyid >> 8) & 0x7ff, phyid & 0xff);
        break;
    case LIBPMX_PHYID_LOCAL:
        kind = "local port";
        j["scid"] = (phyid >> 16) & 0xff;
        j["unit"] = (phyid >> 8) & 0xff;
        j["port"] = phyid & 0xff;
        std::snprintf(fields, sizeof fields, "scid %" PRIu32 ", unit %" PRIu32 ", port %" PRIu32, (phyid >> 16) & 0xff,
                      (phyid >> 8) & 0xff, phyid & 0xff);
        break;
    case LIBPMX_PHYID_BACKPLANE:
        kind = "back-plane port";
        j["unit"] = (phyid >> 10) & 0x3f;
        j["port"] = phyid & 0x3ff;
        std::snprintf(fields, sizeof fields, "unit %" PRIu32 ", port %" PRIu32, (phyid >> 10) & 0x3f, phyid & 0x3ff);
        break;
    case LIBPMX_PHYID_SUB_ROUTE:
    case LIBPMX_PHYID_SUB_AP:
        kind = type == LIBPMX_PHYID_SUB_AP ? "sub-AP" : "sub-route";
        j["ifx"] = phyid & 0xffffff;
        std::snprintf(fields, sizeof fields, "ifx %" PRIu32, phyid & 0xffffff);
        break;
    case LIBPMX_PHYID_TUNNEL:
        kind = "tunnel id";
        break;
    default:
        kind = "type " + std::to_string(type);
        break;
    }
    j["text"] = value + " (" + kind + (fields[0] != '\0' ? std::string(": ") + fields : "") + ")";
    return j;
}

std::string describe_id(const std::string &query, uint32_t id)
{
    if (query == "ifx" || query == "ifx-block" || query == "sub-ap" || query == "sub-route" || query == "convert")
        return phyid_json(id)["text"];
    if (query == "cid" || query == "scid" || query == "modid") return std::to_string(static_cast<int32_t>(id));
    return std::to_string(id);
}

std::string result_name(int rc)
{
    switch (rc) {
    case LIBPMX_E_NOMEM: return "LIBPMX_E_NOMEM";
    case LIBPMX_E_INVAL: return "LIBPMX_E_INVAL";
    case LIBPMX_E_BUF_FULL: return "LIBPMX_E_BUF_FULL";
    case LIBPMX_E_NOT_FOUND: return "LIBPMX_E_NOT_FOUND";
    case LIBPMX_E_FAIL: return "LIBPMX_E_FAIL";
    case LIBPMX_E_SPLIT_IGNORED: return "LIBPMX_E_SPLIT_IGNORED";
    case LIBPMX_E_PORT_RANGE: return "LIBPMX_E_PORT_RANGE";
    case LIBPMX_E_NO_DB: return "LIBPMX_E_NO_DB";
    default: return "code " + std::to_string(rc);
    }
}

std::string result_text(int rc, const std::string &query, uint32_t id, int mode)
{
    const uint32_t type = id >> 24;
    std::string why;
    if (rc == LIBPMX_E_INVAL && query == "phyid" && id == 0)
        why = "ifx 0 is no interface";
    else if (rc == LIBPMX_E_INVAL && query == "sub-ap")
        why = "not a sub-AP phyid: its type is " + std::to_string(type) + ", a sub-AP phyid has type 20";
    else if (rc == LIBPMX_E_INVAL && query == "sub-route")
        why = "not a sub-route phyid: its type is " + std::to_string(type) + ", a sub-route phyid has type 19";
    else if (rc == LIBPMX_E_NOT_FOUND && query == "ifx" && id == 0)
        why = "phyid 0 is no port";
    else if (rc == LIBPMX_E_NOT_FOUND && query == "ifx-block" && type != 7 && type != 25)
        why = "the blocking lookup takes only global port ids (types 7 and 25), this one has type " +
              std::to_string(type);
    else if (rc == LIBPMX_E_FAIL && query == "ifx-block")
        why = "the phyid's module and port name no present card whose cid is the phyid's cid field " +
              std::to_string(id >> 19 & 31) + " (see the log)";
    else if (rc == LIBPMX_E_INVAL && query == "modid")
        why = "a module id is not negative";
    else if (rc == LIBPMX_E_FAIL && query == "cid" && static_cast<int32_t>(id) == -1)
        why = "card type -1 is no card type";
    else if (rc == LIBPMX_E_NOT_FOUND)
        why = mode == 0 ? "not in the caches of this process (mode 0 does not read the database)"
                        : "not found, in the caches or in the database";
    else if (rc == LIBPMX_E_NO_DB)
        why = "no database context or connection";
    else if (rc == LIBPMX_E_FAIL)
        why = "failed read";
    else
        why = "failed";
    return why + " (" + std::to_string(rc) + " " + result_name(rc) + ")";
}

} // namespace pmx_tool
