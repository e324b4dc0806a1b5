// Interface records against physical-port records: the gphyid of an interface names a physical
// port, which must name the interface back, at the same position, with the same split count.
#include <cstdio>

#include "check_rules.h"
#include "hex.h"
#include "u_intf.pb-c.h"

namespace pmx_tool
{
namespace
{

RecordRef interface_ref(const PortRecord &r)
{
    return RecordRef{&u_intf__pmx_ifx_tbl__descriptor, r.key};
}

RecordRef phy_ref(const PortRecord &r)
{
    return RecordRef{&u_intf__pmx_phy_tbl__descriptor, r.key};
}

// "slot 3 here, 4 there; lport 1 here, 2 there" over the fields of the position that differ.
std::string position_differences(const PortRecord &here, const PortRecord &there)
{
    std::string out;
    auto field = [&out](const char *name, const std::string &a, const std::string &b) {
        if (a == b) return;
        out += (out.empty() ? "" : "; ") + std::string(name) + " " + a + " here, " + b + " there";
    };
    auto num = [](int32_t v) { return std::to_string(v); };
    field("gphyid", hex32(here.gphyid), hex32(there.gphyid));
    field("lphyid", hex32(here.lphyid), hex32(there.lphyid));
    field("modid", num(here.modid), num(there.modid));
    field("mport", num(here.mport), num(there.mport));
    field("unit", num(here.unit), num(there.unit));
    field("port", num(here.port), num(there.port));
    field("core", num(here.core), num(there.core));
    field("dev", num(here.dev), num(there.dev));
    field("slot", num(here.slot), num(there.slot));
    field("sslot", num(here.sslot), num(there.sslot));
    field("lport", num(here.lport), num(there.lport));
    return out;
}

// A record is a split member when its count says its panel port has more than one member.
bool split_member(const PortRecord &r)
{
    return r.count > 1;
}

void check_split_pair(const PortRecord &intf, const PortRecord &phy, Report *report)
{
    if (!split_member(intf) && !split_member(phy)) return;
    if (intf.count == phy.count) return;
    const std::string counts = "count " + std::to_string(intf.count) + " here, " + std::to_string(phy.count) + " in " +
                               phy_ref(phy).text();
    if (split_member(intf) && split_member(phy)) {
        report->add(Rule::SplitOneWay, interface_ref(intf), "split port of another size: " + counts, {phy_ref(phy)});
    } else if (split_member(intf)) {
        report->add(Rule::SplitOneWay, interface_ref(intf),
                    "split member in the interface table only (the split maps, filled from the physical-port "
                    "table, miss it): " + counts,
                    {phy_ref(phy)});
    } else {
        report->add(Rule::SplitOneWay, phy_ref(phy),
                    "split member in the physical-port table only: count " + std::to_string(phy.count) + " here, " +
                        std::to_string(intf.count) + " in " + interface_ref(intf).text(),
                    {interface_ref(intf)});
    }
}

} // namespace

void check_port_tables(const Snapshot &s, Report *report)
{
    for (const auto &[ifx, intf] : s.interfaces) {
        const RecordRef want = record_ref(&u_intf__pmx_phy_tbl__descriptor, {intf.gphyid});
        const auto phy = s.phys.find(intf.gphyid);
        if (phy == s.phys.end()) {
            report->add(Rule::InterfacePhy, interface_ref(intf),
                        "gphyid " + hex32(intf.gphyid) + " has no physical-port record (" + want.text() + " is absent)",
                        {want});
            continue;
        }
        std::string diff = position_differences(intf, phy->second);
        if (phy->second.ifx != ifx)
            diff = "it names ifx " + std::to_string(phy->second.ifx) + (diff.empty() ? "" : "; " + diff);
        if (!diff.empty()) {
            report->add(Rule::InterfacePhy, interface_ref(intf),
                        "disagrees with " + phy_ref(phy->second).text() + ": " + diff, {phy_ref(phy->second)});
            continue;
        }
        check_split_pair(intf, phy->second, report);
    }
    // The other way: each physical port names an interface whose gphyid is that port. Other
    // differences of a pair that names each other were reported above.
    for (const auto &[phyid, phy] : s.phys) {
        const RecordRef want = record_ref(&u_intf__pmx_ifx_tbl__descriptor, {phy.ifx});
        const auto intf = s.interfaces.find(phy.ifx);
        if (intf == s.interfaces.end())
            report->add(Rule::InterfacePhy, phy_ref(phy),
                        "names ifx " + std::to_string(phy.ifx) + ", which has no interface record (" + want.text() +
                            " is absent)",
                        {want});
        else if (intf->second.gphyid != phyid)
            report->add(Rule::InterfacePhy, phy_ref(phy),
                        "names ifx " + std::to_string(phy.ifx) + ", whose interface record " +
                            interface_ref(intf->second).text() + " has gphyid " + hex32(intf->second.gphyid),
                        {interface_ref(intf->second)});
    }
}

} // namespace pmx_tool
