// The rules of pmx check, each comparing records of a snapshot and adding what disagrees to a
// report. docs/check.md states what each compares with what.
#ifndef PMX_TOOL_CHECK_RULES_H
#define PMX_TOOL_CHECK_RULES_H

#include "check_findings.h"
#include "check_snapshot.h"

namespace pmx_tool
{

// Interface records against physical-port records, both ways (interface-phy), and the split
// member count of each matched pair (split-one-way).
void check_port_tables(const Snapshot &s, Report *report);
// Module tables: one module id in two slots' tables (modid-shared); each table against its
// slot's card record and the capability data of the process (modid-range).
void check_module_tables(const Snapshot &s, Report *report);
// Card-address records: one card id for two card types (cid-shared).
void check_card_addresses(const Snapshot &s, Report *report);
// Values that did not unpack (unpackable).
void check_unpackable(const Snapshot &s, Report *report);

} // namespace pmx_tool

#endif // PMX_TOOL_CHECK_RULES_H
