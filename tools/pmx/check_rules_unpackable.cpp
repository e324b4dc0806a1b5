// Values that are not records of their kind: the scan hands them over without a record.
#include <algorithm>

#include "check_rules.h"
#include "libpmx_mom.h"

namespace pmx_tool
{

void check_unpackable(const Snapshot &s, Report *report)
{
    // In key order: the store hands keys over in no set order.
    std::vector<RecordRef> refs = s.unpackable;
    std::sort(refs.begin(), refs.end(), [](const RecordRef &a, const RecordRef &b) { return a.key < b.key; });
    for (const RecordRef &ref : refs) {
        const libpmx_record_kind_t *kind = libpmx_record_kind_find(ref.kind->name);
        report->add(Rule::Unpackable, ref,
                    "the value stored in database " + std::to_string(kind != nullptr ? kind->db : -1) +
                        " does not unpack as " + ref.kind->name);
    }
}

} // namespace pmx_tool
