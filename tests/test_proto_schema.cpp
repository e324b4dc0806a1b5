// Record schema: descriptor names, enumerations, and pack/unpack behaviour of the records
// through the exported descriptors and the protobuf-c runtime.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "p_dev.pb-c.h"
#include "p_intf.pb-c.h"
#include "s_cluster.pb-c.h"
#include "s_intf.pb-c.h"
#include "u_intf.pb-c.h"

namespace
{

std::vector<std::string> Split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    std::stringstream in(s);
    std::string part;
    while (std::getline(in, part, sep))
        if (!part.empty()) out.push_back(part);
    return out;
}

TEST(ProtoSchema, DescriptorNamesAreWhatTheDatabaseAndFormatterUse)
{
    // Record kinds are found by full name; the C name is what logs and dumps call the "proto".
    EXPECT_STREQ(u_intf__pmx_ifx_tbl__descriptor.name, "u_intf.pmx_ifx_tbl");
    EXPECT_STREQ(u_intf__pmx_ifx_tbl__descriptor.c_name, "UIntf__PmxIfxTbl");
    EXPECT_STREQ(p_dev__dm_card_stattr_index__descriptor.c_name, "PDev__DmCardStattrIndex");
    // The own-chassis record is a singleton: no key message, the device id in field 5.
    const auto *devid = protobuf_c_message_descriptor_get_field(&p_dev__dp_lib_my_chss__descriptor, 5);
    ASSERT_NE(devid, nullptr);
    EXPECT_STREQ(devid->name, "devid");
}

TEST(ProtoSchema, EnumerationsKeepTheirValues)
{
    const struct {
        const ProtobufCEnumDescriptor *desc;
        const char *values;
    } kEnums[] = {
        {&u_intf__slot_modid_st_e__descriptor,
         "MODID_NONE=0 MODID_VALID=1 MODID_LIMIT=2 MODID_END=3"},
        {&p_dev__dm_node_type_e__descriptor,
         "DM_TYPE_UNKNOWN=0 DM_TYPE_BOX=1 DM_TYPE_MB=2 DM_TYPE_LC=3 DM_TYPE_SUB_LC=4 DM_TYPE_SFC=5 "
         "DM_TYPE_MSC=6 DM_TYPE_HPSC=7"},
        // The same value names in two packages, with different numbers.
        {&p_dev__pd_medium_type_e__descriptor, "FIBER=0 COPPER=1 FIBER_COPPER=2"},
        {&p_intf__medium_type_e__descriptor,
         "MEDIUM_UNKNOWN=0 AUTO_PRE_COPPER=1 AUTO_PRE_FIBER=2 COPPER=3 FIBER=4"},
    };
    for (const auto &e : kEnums) {
        SCOPED_TRACE(e.desc->name);
        const auto values = Split(e.values, ' ');
        ASSERT_EQ(e.desc->n_values, values.size());
        for (const auto &v : values) {
            const auto nv = Split(v, '=');
            const auto *ev = protobuf_c_enum_descriptor_get_value_by_name(e.desc, nv[0].c_str());
            ASSERT_NE(ev, nullptr) << nv[0];
            EXPECT_EQ(ev->value, std::stoi(nv[1])) << nv[0];
        }
    }

    // Interface kinds: 72 distinct values between UNKNOWN = 0 and SFG = 79.
    const auto &it = p_intf__intftype_e__descriptor;
    ASSERT_EQ(it.n_values, 72u);
    std::set<int> numbers;
    std::set<std::string> names;
    for (unsigned i = 0; i < it.n_values; ++i) {
        numbers.insert(it.values[i].value);
        names.insert(it.values[i].name);
    }
    EXPECT_EQ(numbers.size(), 72u);
    EXPECT_EQ(names.size(), 72u);
    EXPECT_EQ(*numbers.begin(), 0);
    EXPECT_EQ(*numbers.rbegin(), 79);
    EXPECT_STREQ(protobuf_c_enum_descriptor_get_value(&it, 0)->name, "UNKNOWN");
    EXPECT_STREQ(protobuf_c_enum_descriptor_get_value(&it, 79)->name, "SFG");
}

std::vector<uint8_t> Pack(const ProtobufCMessage *m)
{
    std::vector<uint8_t> buf(protobuf_c_message_get_packed_size(m));
    EXPECT_EQ(protobuf_c_message_pack(m, buf.data()), buf.size());
    return buf;
}

struct Unpacked {
    void operator()(void *m) const
    {
        protobuf_c_message_free_unpacked(static_cast<ProtobufCMessage *>(m), nullptr);
    }
};

// Packs a message, unpacks it again and checks that the copy packs to the same bytes.
template <class T> std::unique_ptr<T, Unpacked> RoundTrip(const T &msg)
{
    const auto *in = reinterpret_cast<const ProtobufCMessage *>(&msg);
    const auto bytes = Pack(in);
    auto *out = protobuf_c_message_unpack(in->descriptor, nullptr, bytes.size(), bytes.data());
    EXPECT_NE(out, nullptr);
    if (out) {
        EXPECT_EQ(Pack(out), bytes);
    }
    return std::unique_ptr<T, Unpacked>(reinterpret_cast<T *>(out));
}

TEST(ProtoSchema, RecordsRoundTripWithKeysAndRepeatedMessages)
{
    UIntf__IfxIndex key = U_INTF__IFX_INDEX__INIT;
    key.ifx = 12;
    // Field 1 as a varint: the key's wire form depends on its field number only.
    EXPECT_EQ(Pack(&key.base), (std::vector<uint8_t>{0x08, 0x0c}));
    UIntf__PmxIfxTbl rec = U_INTF__PMX_IFX_TBL__INIT;
    rec.index = &key;
    rec.ifx = 12;
    rec.gphyid = 0x07123405u;
    rec.lport = -1;
    rec.sslot = 2;
    auto ifx = RoundTrip(rec);
    ASSERT_TRUE(ifx && ifx->index);
    EXPECT_EQ(ifx->index->ifx, 12u);
    EXPECT_EQ(ifx->gphyid, 0x07123405u);
    EXPECT_EQ(ifx->lport, -1);
    EXPECT_EQ(ifx->sslot, 2);
    EXPECT_EQ(ifx->modid, 0);

    uint32_t ids[] = {4, 5, 6}, fu_ids[] = {6};
    UIntf__PmxFuidInfo fu0 = U_INTF__PMX_FUID_INFO__INIT, fu1 = U_INTF__PMX_FUID_INFO__INIT;
    fu0.n_id = 2;
    fu0.id = ids;
    fu1.unit = 1;
    fu1.n_id = 1;
    fu1.id = fu_ids;
    fu1.fuid_type = U_INTF__PMX_FUID_TYPE_E__PMX_POWER;
    UIntf__PmxFuidInfo *fuids[] = {&fu0, &fu1};
    UIntf__PmxModTbl mod = U_INTF__PMX_MOD_TBL__INIT;
    mod.status = U_INTF__SLOT_MODID_ST_E__MODID_VALID;
    mod.n_id = 3;
    mod.id = ids;
    mod.n_fuid_info = 2;
    mod.fuid_info = fuids;
    auto m = RoundTrip(mod);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->index, nullptr);
    EXPECT_EQ(m->status, U_INTF__SLOT_MODID_ST_E__MODID_VALID);
    EXPECT_EQ(std::vector<uint32_t>(m->id, m->id + m->n_id), (std::vector<uint32_t>{4, 5, 6}));
    ASSERT_EQ(m->n_fuid_info, 2u);
    EXPECT_EQ(m->fuid_info[0]->n_id, 2u);
    EXPECT_EQ(m->fuid_info[1]->unit, 1);
    ASSERT_EQ(m->fuid_info[1]->n_id, 1u);
    EXPECT_EQ(m->fuid_info[1]->id[0], 6u);
    EXPECT_EQ(m->fuid_info[1]->fuid_type, U_INTF__PMX_FUID_TYPE_E__PMX_POWER);
}

TEST(ProtoSchema, BytesThatDoNotUnpackGiveNoRecord)
{
    const auto &tbl = u_intf__pmx_ifx_tbl__descriptor;
    const struct {
        const char *what;
        std::vector<uint8_t> bytes;
    } kBad[] = {
        {"truncated varint", {0x30, 0x80}},
        {"key field sent as a varint", {0x28, 0x01}},
        {"integer field sent length-delimited", {0x32, 0x01, 0x00}},
        {"length beyond the buffer", {0x2a, 0x05, 0x08}},
        {"broken key inside a valid record", {0x2a, 0x02, 0x08, 0x80, 0x30, 0x01}},
    };
    for (const auto &b : kBad) {
        auto *msg = protobuf_c_message_unpack(&tbl, nullptr, b.bytes.size(), b.bytes.data());
        EXPECT_EQ(msg, nullptr) << b.what;
        Unpacked()(msg);
    }
    // Unknown fields are skipped, so a record from a newer schema still reads.
    const std::vector<uint8_t> newer = {0x30, 0x07, 0xf8, 0x07, 0x01}; // ifx 7, field 127 = 1
    std::unique_ptr<UIntf__PmxIfxTbl, Unpacked> ok(reinterpret_cast<UIntf__PmxIfxTbl *>(
        protobuf_c_message_unpack(&tbl, nullptr, newer.size(), newer.data())));
    ASSERT_NE(ok, nullptr);
    EXPECT_EQ(ok->ifx, 7u);
}

} // namespace
