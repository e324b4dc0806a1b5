// The chassis generator against the library: the sample chassis written into an embedded store
// through the tool's own writer, and every interface of its truth table asked back through the
// library's lookups (database reads, as a process that has cached nothing yet; the module
// tables it reads on the way are kept, as the lookups do).
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "db_session.h"
#include "libpmx_cap.h"
#include "libpmx_intf.h"
#include "libpmx_mod.h"
#include "libpmx_port.h"
#include "topology.h"
#include "u_intf.pb-c.h"

namespace
{

using pmx_tool::PortKind;

TEST(ChassisGen, LibraryAnswersAgreeWithTheTruthTable)
{
    pmx_tool::Chassis chassis;
    std::string error;
    ASSERT_TRUE(pmx_tool::generate_chassis(PMX_SOURCE_DIR "/examples/chassis/small.topo.json", {},
                                           &chassis, &error))
        << error;
    pmx_tool::DbSession session;
    pmx_tool::DbOptions db;
    db.url = "embedded:chassis-gen";
    ASSERT_TRUE(session.open(db));
    for (const pmx_tool::Record &r : chassis.records)
        ASSERT_EQ(session.write(r), QV_MOM_OK) << r.kind()->name;
    ASSERT_EQ(libpmx_cap_init(nullptr, "test_chassis_gen"), 0); // the subcard-id table
    libpmx_cap_set_block_times(2);

    // Which card owns each module id, from the module tables written.
    std::map<uint32_t, std::pair<int32_t, int32_t>> modid_owner;
    for (const pmx_tool::Record &r : chassis.records) {
        if (r.kind() != &u_intf__pmx_mod_tbl__descriptor) continue;
        const auto *mod = static_cast<const UIntf__PmxModTbl *>(static_cast<const void *>(r.value.get()));
        for (size_t i = 0; i < mod->n_id; ++i) {
            auto owner = std::make_pair(mod->index->devid, mod->index->slotid);
            EXPECT_TRUE(modid_owner.emplace(mod->id[i], owner).second)
                << "module id " << mod->id[i] << " in two module tables";
        }
    }

    std::set<PortKind> kinds;
    std::set<uint32_t> ifxs, phyids;
    for (const pmx_tool::TruthRow &row : chassis.truth) {
        SCOPED_TRACE(pmx_tool::truth_json(row).dump());
        kinds.insert(row.kind);
        EXPECT_TRUE(ifxs.insert(row.ifx).second) << "ifx given twice";
        EXPECT_TRUE(phyids.insert(row.gphyid).second) << "gphyid given twice";
        bool sub = row.kind == PortKind::SubAp || row.kind == PortKind::SubRoute;
        if (sub) {
            EXPECT_EQ(row.gphyid, (row.kind == PortKind::SubAp ? 20u : 19u) << 24 | row.ifx);
        } else {
            EXPECT_EQ(row.gphyid >> 24, row.kind == PortKind::Power ? 25u : 7u);
            EXPECT_EQ(static_cast<int32_t>(row.gphyid >> 19 & 31), row.cid);
            EXPECT_EQ(static_cast<int32_t>(row.gphyid >> 8 & 0x7ff), row.modid);
            EXPECT_EQ(static_cast<int32_t>(row.gphyid & 0xff), row.port);
            EXPECT_EQ(row.lphyid, 0x08000000u | static_cast<uint32_t>(row.scid) << 16 |
                                      static_cast<uint32_t>(row.unit) << 8 |
                                      static_cast<uint32_t>(row.port));
            auto owner = modid_owner.find(static_cast<uint32_t>(row.modid));
            ASSERT_NE(owner, modid_owner.end()) << "modid in no module table";
            EXPECT_EQ(owner->second, std::make_pair(row.dev, row.slot));
        }

        uint32_t gphyid = 0;
        EXPECT_EQ(libpmx_get_phyid_by_ifx_ext_db(row.ifx, &gphyid), 0);
        EXPECT_EQ(gphyid, row.gphyid);
        uint32_t ifx = 0;
        EXPECT_EQ(libpmx_get_ifx_by_phyid(row.gphyid, &ifx), 0);
        EXPECT_EQ(ifx, row.ifx);
        int32_t cid = -1;
        EXPECT_EQ(libpmx_get_cid_with_card_type(row.card_type, row.subcard_type, &cid, 1), 0);
        EXPECT_EQ(cid, row.cid);
        if (row.subcard_type != 0) {
            int32_t scid = -1;
            EXPECT_EQ(libpmx_get_scid_with_subcard_type(row.subcard_type, &scid, 1), 0);
            EXPECT_EQ(scid, row.scid);
        }

        if (!sub) {
            // Module side: the module table found by its modid, the card and subcard types of the
            // port's card, its cid, and the blocking lookup that checks that cid before it waits.
            int32_t dev = 0, slot = 0, unit = -1;
            EXPECT_EQ(libpmx_get_dev_slot_unit_by_modid(row.modid, &dev, &slot, &unit), 0);
            EXPECT_EQ(std::make_tuple(dev, slot, unit), std::make_tuple(row.dev, row.slot, row.unit));
            int32_t card_type = -1, subcard_type = -1;
            EXPECT_EQ(libpmx_get_card_type_by_modid_port(row.modid, row.port, &card_type, &subcard_type, 2), 0);
            EXPECT_EQ(std::make_pair(card_type, subcard_type), std::make_pair(row.card_type, row.subcard_type));
            cid = -1;
            EXPECT_EQ(libpmx_get_cid_by_modid_port(row.modid, row.port, &cid, 2), 0);
            EXPECT_EQ(cid, row.cid);
            ifx = 0;
            EXPECT_EQ(libpmx_get_ifx_by_phyid_block(row.gphyid, &ifx), 0);
            EXPECT_EQ(ifx, row.ifx);
            EXPECT_EQ(libpmx_is_local_modid(row.modid) != 0, row.dev == 1 && row.slot == 3);
            // The system port of the port's position, and back: a split port's members share it.
            uint32_t sysport = 0, back = 0;
            EXPECT_EQ(libpmx_get_sysport_by_phyid_detail(row.gphyid, &sysport, 1), 0);
            EXPECT_EQ(sysport, static_cast<uint32_t>(row.gslot) * 256 + static_cast<uint32_t>(row.lport));
            EXPECT_EQ(libpmx_get_phyid_by_sysport_detail(sysport, &back, 1), 0);
            if (row.member == 0) {
                EXPECT_EQ(back, row.gphyid);
            }
        }

        if (row.kind == PortKind::SubAp) {
            libpmx_sub_ap_info_t info{};
            ASSERT_EQ(libpmx_get_sub_ap_info_by_phyid_detail(row.gphyid, &info, 1), 0);
            EXPECT_EQ(info.ifx, row.ifx);
            EXPECT_EQ(info.phyid, row.gphyid);
            EXPECT_EQ(info.evlan, row.evlan);
            EXPECT_EQ(info.trunk, row.trunk);
            EXPECT_EQ(info.master_phyid, row.master_phyid);
            uint32_t master = 0;
            EXPECT_EQ(libpmx_get_ap_phyid_by_sub_ap_phyid(row.gphyid, &master, 1), 0);
            EXPECT_EQ(master, row.master_phyid);
        } else if (row.kind == PortKind::SubRoute) {
            libpmx_sub_route_info_t info{};
            ASSERT_EQ(libpmx_get_sub_route_info_by_phyid_detail(row.gphyid, &info, 1), 0);
            EXPECT_EQ(info.ifx, row.ifx);
            EXPECT_EQ(info.phyid, row.gphyid);
            EXPECT_EQ(info.evlan, row.evlan);
            EXPECT_EQ(info.master_phyid, row.master_phyid);
            uint32_t evlan = 0;
            EXPECT_EQ(libpmx_get_evlan_by_sub_route_phyid(row.gphyid, &evlan, 1), 0);
            EXPECT_EQ(evlan, row.evlan);
        }
        if (sub) {
            // The parent is an interface of the chassis, found by its gphyid.
            uint32_t parent = 0;
            EXPECT_EQ(libpmx_get_ifx_by_phyid(row.master_phyid, &parent), 0);
        }
    }
    // The sample chassis shows every kind of interface.
    EXPECT_EQ(kinds, (std::set<PortKind>{PortKind::Port, PortKind::Power, PortKind::SplitMember,
                                         PortKind::SubAp, PortKind::SubRoute}));
    EXPECT_EQ(chassis.local, "1/3/0");
}

// Every card of the sample chassis in turn as the local card (a fresh store each, the local state
// of the process reset between them): its chip ports answer the local port table, the subcard
// port queries and the module lookups as the truth table says.
TEST(ChassisGen, EachCardSeesItsOwnPorts)
{
    ASSERT_EQ(libpmx_cap_init(nullptr, "test_chassis_gen"), 0);
    libpmx_cap_set_block_times(2);
    size_t cards = 0, ports = 0;
    for (const char *card : {"1/2", "1/3", "1/4", "1/4/1", "1/5"}) {
        SCOPED_TRACE(card);
        pmx_tool::Chassis chassis;
        std::string error;
        pmx_tool::GenOptions opt;
        opt.card = card;
        ASSERT_TRUE(pmx_tool::generate_chassis(PMX_SOURCE_DIR "/examples/chassis/small.topo.json", opt, &chassis,
                                               &error))
            << error;
        pmx_tool::DbSession session;
        pmx_tool::DbOptions db;
        db.url = std::string("embedded:chassis-card-") + card;
        ASSERT_TRUE(session.open(db));
        for (const pmx_tool::Record &r : chassis.records)
            ASSERT_EQ(session.write(r), QV_MOM_OK) << r.kind()->name;
        // The local state is process-wide: back to unknown, as in a process of that card.
        libpmx_port_init();
        const int32_t unknown[5] = {-1, -1, -1, -1, -1};
        libpmx_cache_set_my_info(unknown);
        libpmx_cache_set_my_chss(-1);
        ++cards;
        // Line cards have two back-plane ports (lports 1001-1002 on unit 0, chip ports 30-31).
        const bool line_card = chassis.local == "1/2/0" || chassis.local == "1/3/0" || chassis.local == "1/4/0";
        EXPECT_EQ(libpmx_is_bp_lport(1002) != 0, line_card);
        EXPECT_FALSE(libpmx_is_bp_lport(1003));
        uint32_t bp_unit = 9, bp_port = 0;
        EXPECT_EQ(libpmx_get_bp_unit_port_by_lport(1002, &bp_unit, &bp_port, 1), line_card ? 0 : LIBPMX_E_NOT_FOUND);
        if (line_card) {
            EXPECT_EQ(std::make_pair(bp_unit, bp_port), std::make_pair(0u, 31u));
        }
        for (const pmx_tool::TruthRow &row : chassis.truth) {
            if (row.kind == PortKind::SubAp || row.kind == PortKind::SubRoute) continue;
            const bool mine = chassis.local == std::to_string(row.dev) + "/" + std::to_string(row.slot) + "/" +
                                                   std::to_string(row.sslot);
            const bool my_slot = chassis.local.rfind(std::to_string(row.dev) + "/" + std::to_string(row.slot) + "/", 0) == 0;
            SCOPED_TRACE(pmx_tool::truth_json(row).dump());
            if (!mine) {
                if (!my_slot) {
                    EXPECT_FALSE(libpmx_is_local_modid(row.modid)) << "a chip of another slot";
                }
                continue;
            }
            ++ports;
            int32_t lport = -1, core = -1, sct = -1, scid = -1;
            EXPECT_EQ(libpmx_get_lport_by_unit_port(row.unit, row.port, &lport), 0);
            EXPECT_EQ(lport, row.lport);
            EXPECT_EQ(libpmx_get_coreid_by_unit_port_detail(row.unit, row.port, &core, 0), 0) << "kept by the read";
            EXPECT_EQ(core, row.core);
            EXPECT_EQ(libpmx_get_subcard_type_scid_by_unit_port(row.unit, row.port, &sct, &scid, 2), 0);
            EXPECT_EQ(std::make_pair(sct, scid), std::make_pair(row.subcard_type, row.scid));
            // The conversions, each way, as the truth table says.
            uint32_t lphyid = 0, gphyid = 0, m = 0, p = 0, u = 0;
            EXPECT_EQ(libpmx_get_lphyid_by_unit_port(row.unit, row.port, &lphyid), 0);
            EXPECT_EQ(lphyid, row.lphyid);
            EXPECT_EQ(libpmx_get_unit_port_by_lphyid(row.lphyid, &u, &p), 0);
            EXPECT_EQ(std::make_pair(u, p), std::make_pair(static_cast<uint32_t>(row.unit), static_cast<uint32_t>(row.port)));
            EXPECT_EQ(libpmx_get_phyid_by_mod_port(row.modid, row.port, &gphyid), 0);
            EXPECT_EQ(gphyid, row.gphyid);
            if (row.sslot != 0) continue; // a subcard has no module table: its chips are its host's
            EXPECT_EQ(libpmx_get_mod_port_by_phyid(row.lphyid, &m, &p), 0);
            EXPECT_EQ(std::make_pair(m, p), std::make_pair(static_cast<uint32_t>(row.modid), static_cast<uint32_t>(row.port)));
            EXPECT_EQ(libpmx_get_gphyid_by_lphyid(row.lphyid, &gphyid), 0);
            EXPECT_EQ(gphyid, row.gphyid);
            EXPECT_EQ(libpmx_get_lphyid_by_gphyid(row.gphyid, &lphyid), 0);
            EXPECT_EQ(lphyid, row.lphyid);
            EXPECT_EQ(libpmx_get_unit_port_by_lphyid(row.gphyid, &u, &p), 0);
            EXPECT_EQ(u, static_cast<uint32_t>(row.unit));
            int32_t modid = -1, unit = -1;
            EXPECT_EQ(libpmx_get_lmodid_by_unit_core(static_cast<uint32_t>(row.unit), row.core, &modid), 0);
            EXPECT_EQ(modid, row.modid);
            EXPECT_TRUE(libpmx_is_local_modid(row.modid));
            EXPECT_EQ(libpmx_get_unit_by_chip(row.modid, &unit), 0);
            EXPECT_EQ(unit, row.unit);
        }
    }
    EXPECT_EQ(cards, 5u);
    EXPECT_GT(ports, 20u);
}

} // namespace
