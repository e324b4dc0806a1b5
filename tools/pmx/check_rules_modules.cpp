// Module tables and card-address records: who claims each module id and card id, and whether a
// slot's module ids are those its card type may take.
#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "check_rules.h"
#include "libpmx_cap.h"
#include "libpmx_errno.h"
#include "libpmx_mod.h"
#include "p_dev.pb-c.h"
#include "u_intf.pb-c.h"

namespace pmx_tool
{
namespace
{

RecordRef table_ref(const ModTable &t)
{
    return RecordRef{&u_intf__pmx_mod_tbl__descriptor, t.key};
}

std::string id_list(const std::vector<uint32_t> &ids)
{
    std::string s;
    for (uint32_t id : ids) s += (s.empty() ? "" : " ") + std::to_string(id);
    return s.empty() ? "none" : s;
}

// "module id 600 lies" / "module ids 600 601 lie": the ids with the verb in their number.
std::string ids_verb(const std::vector<uint32_t> &ids, const char *one, const char *many)
{
    return (ids.size() == 1 ? "module id " : "module ids ") + id_list(ids) + " " + (ids.size() == 1 ? one : many);
}

// The ids a table claims: its id list and the ids of its units, each once, in order.
std::vector<uint32_t> claimed_ids(const ModTable &t)
{
    std::set<uint32_t> all(t.ids.begin(), t.ids.end());
    for (const ModUnit &u : t.units) all.insert(u.ids.begin(), u.ids.end());
    return {all.begin(), all.end()};
}

// The card record of the table's slot, t_mod 0 first; null when there is none.
const CardRecord *card_of(const Snapshot &s, const ModTable &t)
{
    const CardRecord *found = nullptr;
    for (const CardRecord &c : s.cards)
        if (c.dev == t.dev && c.slot == t.slot && c.sslot == t.sslot && (found == nullptr || c.t_mod == 0))
            found = &c;
    return found;
}

// The table's own lists: no id twice, every unit id among the table's ids, id_num their count.
void check_lists(const ModTable &t, Report *report)
{
    std::vector<uint32_t> twice;
    std::set<uint32_t> seen;
    for (uint32_t id : t.ids)
        if (!seen.insert(id).second) twice.push_back(id);
    if (!twice.empty())
        report->add(Rule::ModidRange, table_ref(t), ids_verb(twice, "is", "are") + " listed more than once");
    if (t.id_num != t.ids.size())
        report->add(Rule::ModidRange, table_ref(t),
                    "id_num is " + std::to_string(t.id_num) + ", but it lists " + std::to_string(t.ids.size()) + " ids");
    for (const ModUnit &u : t.units) {
        std::vector<uint32_t> stray;
        for (uint32_t id : u.ids)
            if (seen.count(id) == 0) stray.push_back(id);
        if (!stray.empty())
            report->add(Rule::ModidRange, table_ref(t),
                        "unit " + std::to_string(u.unit) + " has " + ids_verb(stray, "", "") +
                            "not among the table's ids (" + id_list(t.ids) + ")");
    }
}

// The ids against the capability data of the card type and node type of the slot's card.
void check_capabilities(const Snapshot &s, const ModTable &t, const CardRecord &card, Report *report)
{
    const RecordRef card_ref{&p_dev__card_info__descriptor, card.key};
    const std::string type_key = "modid-info/" + std::to_string(card.card_type);
    int32_t min = 0, max = 0, per_slot = 0;
    if (libpmx_cap_get_modid_info(card.card_type, &min, &max, &per_slot) != LIBPMX_OK) {
        report->add(Rule::ModidRange, table_ref(t),
                    "card type " + std::to_string(card.card_type) + " of " + card_ref.text() +
                        " has no module-id range in the capability data (" + type_key + ")",
                    {card_ref});
        return;
    }
    const std::vector<uint32_t> ids = claimed_ids(t);
    std::vector<uint32_t> outside, invalid;
    for (uint32_t id : ids) {
        if (static_cast<int64_t>(id) < min || static_cast<int64_t>(id) > max) outside.push_back(id);
        if (libpmx_cap_is_invalid_modid(static_cast<int32_t>(id)) != 0) invalid.push_back(id);
    }
    if (!outside.empty())
        report->add(Rule::ModidRange, table_ref(t),
                    ids_verb(outside, "lies", "lie") + " outside " + std::to_string(min) + ".." +
                        std::to_string(max) + ", the range of card type " + std::to_string(card.card_type) + " (" +
                        type_key + ") of " + card_ref.text(),
                    {card_ref});
    if (!invalid.empty())
        report->add(Rule::ModidRange, table_ref(t),
                    ids_verb(invalid, "is", "are") + " declared invalid in the capability data (invalid-modids)");
    int32_t node_ids = 0;
    const bool has_count = libpmx_cap_get_cap_of_node(card.node_type, &node_ids) == LIBPMX_OK;
    if (has_count && t.ids.size() > static_cast<size_t>(std::max(node_ids, 0)))
        report->add(Rule::ModidRange, table_ref(t),
                    "lists " + std::to_string(t.ids.size()) + " module ids; node type " +
                        std::to_string(card.node_type) + " of " + card_ref.text() + " takes " +
                        std::to_string(node_ids) + " (node-type-cap-id-num/" + std::to_string(card.node_type) + ")",
                    {card_ref});
    // Card types of static allocation take the ids of the slot position, as the library computes
    // them for its own card.
    const auto alloc = s.alloc_type.find(card.card_type);
    if (!has_count || t.sslot != 0 || alloc == s.alloc_type.end() || alloc->second != P_DEV__ALLOC_TYPE__STATIC)
        return;
    std::vector<uint32_t> want(64, 0);
    int32_t n = 0;
    if (libpmx_mod_alloc_id_static(card.node_type, t.dev, t.slot, card.card_type, want.data(),
                                   static_cast<int32_t>(want.size()), &n) != LIBPMX_OK)
        return; // a node type without a slot position: nothing to compare with
    want.resize(static_cast<size_t>(n));
    if (want != t.ids)
        report->add(Rule::ModidRange, table_ref(t),
                    "module ids " + id_list(t.ids) + ", but static allocation gives card type " +
                        std::to_string(card.card_type) + " (node type " + std::to_string(card.node_type) +
                        ") in this slot " + id_list(want),
                    {card_ref});
}

} // namespace

void check_module_tables(const Snapshot &s, Report *report)
{
    std::vector<const ModTable *> tables;
    for (const ModTable &t : s.mod_tables) tables.push_back(&t);
    std::sort(tables.begin(), tables.end(), [](const ModTable *a, const ModTable *b) {
        return std::tie(a->dev, a->slot, a->sslot) < std::tie(b->dev, b->slot, b->sslot);
    });
    // A table taken back (MODID_NONE) holds no ids for the library.
    std::map<uint32_t, std::vector<const ModTable *>> owners;
    for (const ModTable *t : tables)
        if (t->status != U_INTF__SLOT_MODID_ST_E__MODID_NONE)
            for (uint32_t id : claimed_ids(*t)) owners[id].push_back(t);
    for (const auto &[id, by] : owners) {
        if (by.size() < 2) continue;
        std::string others;
        std::vector<RecordRef> related;
        for (size_t i = 1; i < by.size(); ++i) {
            related.push_back(table_ref(*by[i]));
            others += (i == 1 ? "" : ", ") + related.back().text();
        }
        report->add(Rule::ModidShared, table_ref(*by[0]),
                    "module id " + std::to_string(id) + " is also listed by " + others, related);
    }
    for (const ModTable *t : tables) {
        check_lists(*t, report);
        const CardRecord *card = card_of(s, *t);
        const RecordRef want = record_ref(&p_dev__card_info__descriptor, {0, t->dev, t->slot, t->sslot});
        if (card == nullptr) {
            report->add(Rule::ModidRange, table_ref(*t),
                        "no card record for its slot (" + want.text() + " is absent), so no card type to check against",
                        {want});
            continue;
        }
        const RecordRef card_ref{&p_dev__card_info__descriptor, card->key};
        if (card->card_type != t->card_type)
            report->add(Rule::ModidRange, table_ref(*t),
                        "card type " + std::to_string(t->card_type) + " here, " + std::to_string(card->card_type) +
                            " in " + card_ref.text(),
                        {card_ref});
        check_capabilities(s, *t, *card, report);
    }
}

void check_card_addresses(const Snapshot &s, Report *report)
{
    std::vector<const CardAddress *> records;
    for (const CardAddress &a : s.card_addresses) records.push_back(&a);
    std::sort(records.begin(), records.end(), [](const CardAddress *a, const CardAddress *b) {
        return std::tie(a->card_type, a->subcard_type) < std::tie(b->card_type, b->subcard_type);
    });
    // The card id of a record is its card type's, or with a subcard type its subcard type's.
    std::map<int32_t, std::map<int32_t, const CardAddress *>> owners; // cid -> type -> first record
    for (const CardAddress *a : records) owners[a->cid].emplace(a->subcard_type != 0 ? a->subcard_type : a->card_type, a);
    for (const auto &[cid, by_type] : owners) {
        if (by_type.size() < 2) continue;
        const auto &[first_type, first] = *by_type.begin();
        const RecordRef first_ref{&u_intf__pmx_card_address_id__descriptor, first->key};
        for (auto it = std::next(by_type.begin()); it != by_type.end(); ++it)
            report->add(Rule::CidShared, RecordRef{&u_intf__pmx_card_address_id__descriptor, it->second->key},
                        "card id " + std::to_string(cid) + " of type " + std::to_string(it->first) +
                            " is also the card id of type " + std::to_string(first_type) + " in " + first_ref.text(),
                        {first_ref});
    }
}

} // namespace pmx_tool
