// What pmx check found: each finding names its record (kind and database key) and the records
// it was compared with, grouped by the rule it breaks, printed as a table or as one JSON object.
#ifndef PMX_TOOL_CHECK_FINDINGS_H
#define PMX_TOOL_CHECK_FINDINGS_H

#include <protobuf-c/protobuf-c.h>

#include <nlohmann/json.hpp>

#include <array>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace pmx_tool
{

// The rules, in the order the report lists them (docs/check.md describes each).
enum class Rule {
    InterfacePhy,  // interface and physical-port records disagree
    ModidShared,   // one module id in the tables of two slots
    ModidRange,    // a module table against its card and the capability data
    CidShared,     // one card-address id for two card types
    SplitOneWay,   // a split member in one of the two port tables only
    Unpackable,    // a stored value that is not a record of its kind
    Count
};
inline constexpr size_t kRuleCount = static_cast<size_t>(Rule::Count);

// The rule's name in the report and in JSON ("interface-phy"), and what it means.
const char *rule_name(Rule rule);
const char *rule_title(Rule rule);

// A record by its kind and its database key text ("u_intf.pmx_ifx_tbl|301"); it need not exist.
struct RecordRef {
    const ProtobufCMessageDescriptor *kind = nullptr;
    std::string key; // the database key text

    // The key as the tools print it: the key message in the compact form
    // ("UIntf__IfxIndex-{ifx:301}"); empty for a singleton, the raw text if it does not parse.
    std::string key_compact() const;
    // "u_intf.pmx_ifx_tbl UIntf__IfxIndex-{ifx:301}"
    std::string text() const;
};

// The key text of a record kind from its key field values, as the database client makes it.
RecordRef record_ref(const ProtobufCMessageDescriptor *kind, const std::vector<long long> &key_values);

struct Finding {
    Rule rule;
    RecordRef record;              // the record the finding is about
    std::string what;              // what disagrees with what; names the related records
    std::vector<RecordRef> related; // the records it was compared with
};

class Report
{
  public:
    void add(Rule rule, RecordRef record, std::string what, std::vector<RecordRef> related = {});

    size_t total() const { return findings_.size(); }
    size_t count(Rule rule) const { return counts_[static_cast<size_t>(rule)]; }
    const std::vector<Finding> &findings() const { return findings_; }

    // The table: one line per rule with its count and meaning, its findings under it, the total.
    void print_table(std::FILE *out, const std::string &summary) const;
    nlohmann::ordered_json to_json() const;

  private:
    std::vector<Finding> findings_;
    std::array<size_t, kRuleCount> counts_{};
};

} // namespace pmx_tool

#endif // PMX_TOOL_CHECK_FINDINGS_H
