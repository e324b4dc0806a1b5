#include "check_findings.h"

#include <cstring>

#include "json_records.h"
#include "libpmx_protoc_fmt.h"

namespace pmx_tool
{
namespace
{

struct RuleText {
    const char *name;
    const char *title;
};

constexpr RuleText kRules[kRuleCount] = {
    {"interface-phy", "interface and physical-port records disagree"},
    {"modid-shared", "module id listed in the module tables of two slots"},
    {"modid-range", "module table against its card and the capability data"},
    {"cid-shared", "card-address id used by two card types"},
    {"split-one-way", "split member recorded in one port table only"},
    {"unpackable", "stored value that does not unpack as its record"},
};

// The key field words of a key text: what follows "<record name>|", split at '|'.
bool key_words(const RecordRef &ref, std::vector<std::string> *words)
{
    const size_t name_len = std::strlen(ref.kind->name);
    if (ref.key.compare(0, name_len, ref.kind->name) != 0) return false;
    if (ref.key.size() == name_len) return true;
    if (ref.key[name_len] != '|') return false;
    for (size_t at = name_len + 1;;) {
        const size_t bar = ref.key.find('|', at);
        words->push_back(ref.key.substr(at, bar == std::string::npos ? std::string::npos : bar - at));
        if (bar == std::string::npos) return true;
        at = bar + 1;
    }
}

} // namespace

const char *rule_name(Rule rule)
{
    return kRules[static_cast<size_t>(rule)].name;
}

const char *rule_title(Rule rule)
{
    return kRules[static_cast<size_t>(rule)].title;
}

std::string RecordRef::key_compact() const
{
    std::vector<std::string> words;
    if (!key_words(*this, &words)) return key;
    if (words.empty()) return "";
    try {
        MessagePtr msg = key_from_words(kind, words);
        char buf[512];
        if (libpmx_protoc_format_message_to_buffer(buf, sizeof buf, LIBPMX_FMT_COMPACT, msg.get()) == 0) return buf;
    } catch (const FieldError &) {
        // a key text that is no key of the kind: shown as stored
    }
    return key.substr(std::strlen(kind->name) + 1);
}

std::string RecordRef::text() const
{
    const std::string k = key_compact();
    return std::string(kind->name) + (k.empty() ? "" : " " + k);
}

RecordRef record_ref(const ProtobufCMessageDescriptor *kind, const std::vector<long long> &key_values)
{
    RecordRef ref{kind, kind->name};
    for (long long v : key_values) ref.key += "|" + std::to_string(v);
    return ref;
}

void Report::add(Rule rule, RecordRef record, std::string what, std::vector<RecordRef> related)
{
    ++counts_[static_cast<size_t>(rule)];
    findings_.push_back(Finding{rule, std::move(record), std::move(what), std::move(related)});
}

void Report::print_table(std::FILE *out, const std::string &summary) const
{
    std::fprintf(out, "%s\n%-14s %6s  %s\n", summary.c_str(), "finding", "count", "what");
    for (size_t r = 0; r < kRuleCount; ++r) {
        const auto rule = static_cast<Rule>(r);
        std::fprintf(out, "%-14s %6zu  %s\n", rule_name(rule), counts_[r], rule_title(rule));
        for (const Finding &f : findings_)
            if (f.rule == rule) std::fprintf(out, "  %s: %s\n", f.record.text().c_str(), f.what.c_str());
    }
    std::fprintf(out, "%-14s %6zu\n", "total", findings_.size());
}

nlohmann::ordered_json Report::to_json() const
{
    using Json = nlohmann::ordered_json;
    auto ref_json = [](const RecordRef &ref) {
        return Json{{"record", ref.kind->name}, {"key", ref.key_compact()}, {"db_key", ref.key}};
    };
    Json counts = Json::object();
    for (size_t r = 0; r < kRuleCount; ++r) counts[rule_name(static_cast<Rule>(r))] = counts_[r];
    Json list = Json::array();
    for (const Finding &f : findings_) {
        Json item = ref_json(f.record);
        item["finding"] = rule_name(f.rule);
        item["what"] = f.what;
        Json related = Json::array();
        for (const RecordRef &ref : f.related) related.push_back(ref_json(ref));
        item["related"] = std::move(related);
        list.push_back(std::move(item));
    }
    return Json{{"counts", counts}, {"total", findings_.size()}, {"findings", list}};
}

} // namespace pmx_tool
