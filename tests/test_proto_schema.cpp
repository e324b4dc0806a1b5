// Record schema: the packed form of records is what other processes store, so field numbers,
// types, packing of repeated fields and enum numbers must not move. (The interface record's
// form is checked by the pmx tool's decode test.)
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "p_dev.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{

std::vector<uint8_t> Pack(const ProtobufCMessage *m)
{
    std::vector<uint8_t> buf(protobuf_c_message_get_packed_size(m));
    protobuf_c_message_pack(m, buf.data());
    return buf;
}

TEST(ProtoSchema, StoredFormOfKeyedNestedAndSingletonRecords)
{
    UIntf__ModIndex idx = U_INTF__MOD_INDEX__INIT;
    idx.devid = 1;
    idx.slotid = 3;
    uint32_t ids[] = {4, 5, 6}, fu_ids[] = {6};
    UIntf__PmxFuidInfo fu = U_INTF__PMX_FUID_INFO__INIT;
    fu.unit = 1;
    fu.n_id = 1;
    fu.id = fu_ids;
    fu.fuid_type = U_INTF__PMX_FUID_TYPE_E__PMX_POWER;
    UIntf__PmxFuidInfo *fuids[] = {&fu};
    UIntf__PmxModTbl mod = U_INTF__PMX_MOD_TBL__INIT;
    mod.index = &idx;
    mod.status = U_INTF__SLOT_MODID_ST_E__MODID_VALID;
    mod.gslot = 4;
    mod.n_id = 3;
    mod.id = ids;
    mod.n_fuid_info = 1;
    mod.fuid_info = fuids;
    // index = 5 {1, 3}, status = 6, gslot = 7, id = 11 packed, fuid_info = 12 {unit, id, type}.
    EXPECT_EQ(Pack(&mod.base), (std::vector<uint8_t>{0x2a, 0x04, 0x08, 0x01, 0x10, 0x03, 0x30, 0x01,
                                                     0x38, 0x04, 0x5a, 0x03, 0x04, 0x05, 0x06, 0x62,
                                                     0x07, 0x08, 0x01, 0x12, 0x01, 0x06, 0x18, 0x02}));

    // A singleton has no key message: its own fields start at 5.
    PDev__DpLibMyChss me = P_DEV__DP_LIB_MY_CHSS__INIT;
    me.devid = 2;
    me.is_master = 1;
    EXPECT_EQ(Pack(&me.base), (std::vector<uint8_t>{0x28, 0x02, 0x38, 0x01}));
}

} // namespace
