// Record schema: the wire layout of the records the library reads or keys by, checked
// through the exported descriptors, and pack/unpack behaviour through the protobuf-c runtime.
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

// Fields as "number:name:type[:referenced full name]", a leading '*' marks a repeated field.
struct MessageLayout {
    const ProtobufCMessageDescriptor *desc;
    const char *full_name;
    const char *fields;
};

// The interface and physical-port tables share their data fields.
#define PORT_TBL_FIELDS                                                                            \
    "6:ifx:uint32 7:gphyid:uint32 8:lphyid:uint32 9:user_phyid:uint32 10:modid:int32 "             \
    "11:mport:int32 12:unit:int32 13:port:int32 14:dev:int32 15:slot:int32 16:lport:int32 "        \
    "17:vid:int32 18:llcbtype:int32 19:is_valid:int32 20:count:int32 21:core:int32 22:sslot:int32"

const MessageLayout kMessages[] = {
    {&u_intf__ifx_index__descriptor, "u_intf.ifx_index", "1:ifx:uint32"},
    {&u_intf__pmx_ifx_tbl__descriptor, "u_intf.pmx_ifx_tbl",
     "5:index:msg:u_intf.ifx_index " PORT_TBL_FIELDS},
    {&u_intf__phy_index__descriptor, "u_intf.phy_index", "1:phyid:uint32"},
    {&u_intf__pmx_phy_tbl__descriptor, "u_intf.pmx_phy_tbl",
     "5:index:msg:u_intf.phy_index " PORT_TBL_FIELDS},
    {&u_intf__pmx_sub_ap_intf__descriptor, "u_intf.pmx_sub_ap_intf",
     "5:index:msg:u_intf.ifx_index 6:phyid:uint32 7:evlan:uint32 8:trunk:uint32 "
     "9:master_phyid:uint32"},
    {&u_intf__pmx_sub_route_intf__descriptor, "u_intf.pmx_sub_route_intf",
     "5:index:msg:u_intf.ifx_index 6:phyid:uint32 7:evlan:uint32 8:master_phyid:uint32"},
    {&u_intf__mod_index__descriptor, "u_intf.mod_index",
     "1:devid:int32 2:slotid:int32 3:sslotid:int32"},
    {&u_intf__pmx_mod_tbl__descriptor, "u_intf.pmx_mod_tbl",
     "5:index:msg:u_intf.mod_index 6:status:enum:u_intf.slot_modid_st_e 7:gslot:int32 "
     "8:card_type:int32 9:idnum_per_unit:uint32 10:id_num:uint32 *11:id:uint32 "
     "*12:fuid_info:msg:u_intf.pmx_fuid_info"},
    {&u_intf__pmx_fuid_info__descriptor, "u_intf.pmx_fuid_info",
     "1:unit:int32 *2:id:uint32 3:fuid_type:enum:u_intf.pmx_fuid_type_e"},
    {&u_intf__card_address_id_index__descriptor, "u_intf.card_address_id_index",
     "1:card_type:int32 2:subcard_type:int32"},
    {&u_intf__pmx_card_address_id__descriptor, "u_intf.pmx_card_address_id",
     "5:index:msg:u_intf.card_address_id_index 6:card_pmx_id:int32 7:subcard_pmx_id:int32"},
    {&p_dev__local_port_info__descriptor, "p_dev.local_port_info",
     "5:lport_num:int32 *6:online_lport:int32"},
    {&p_dev__dp_lib_my_info__descriptor, "p_dev.dp_lib_my_info",
     "5:dm_my_node_type:enum:p_dev.dm_node_type_e 6:slotid:int32 7:sslotid:int32 8:cpu_num:int32 "
     "9:local_peer_slotid:int32 10:card_type:int32 11:cpuid:int32 12:prod_serial:bytes "
     "13:my_card_mac_addr:bytes 14:card_nodeid:int32 15:actual_card_type:int32"},
    // Own chassis: a singleton record (no key field) carrying this member's device id.
    {&p_dev__dp_lib_my_chss__descriptor, "p_dev.dp_lib_my_chss",
     "5:devid:int32 6:chss_num:int32 7:is_master:bool"},
    {&p_dev__dp_lib_complete__descriptor, "p_dev.dp_lib_complete",
     "5:all_is_complete:bool 6:pre_instl_has_conflict:bool 7:local_mb_is_complete:bool "
     "8:local_lc_is_complete:bool 9:global_mb_is_complete:bool 10:local_card_is_complete:bool "
     "11:dp_is_complete:bool"},
    {&p_dev__dm_stattr_complete__descriptor, "p_dev.dm_stattr_complete", "5:all_complete:bool"},
    {&p_dev__dm_card_stattr_index__descriptor, "p_dev.dm_card_stattr_index", "1:type:int32"},
    {&p_dev__lport_index__descriptor, "p_dev.lport_index", "1:lport:int32"},
    {&p_dev__lport_info__descriptor, "p_dev.lport_info",
     "5:index:msg:p_dev.lport_index 6:unit:int32 7:cport:int32"},
    {&p_dev__unit_cport_index__descriptor, "p_dev.unit_cport_index", "1:unit:int32 2:cport:int32"},
    {&p_dev__unit_cport_info__descriptor, "p_dev.unit_cport_info",
     "5:index:msg:p_dev.unit_cport_index 6:static_info:msg:p_dev.dm_port_attr_t "
     "7:owner_card_type:int32"},
    {&p_dev__card_info_index__descriptor, "p_dev.card_info_index",
     "1:t_mod:int32 2:devid:int32 3:slotid:int32 4:sslotid:int32"},
    {&p_dev__card_info__descriptor, "p_dev.card_info",
     "5:index:msg:p_dev.card_info_index 6:config_dev_type:int32 7:is_online:bool 8:cpu_num:int32 "
     "9:is_mboard:bool 11:sw_status:int32 12:name:string 13:ex_sw_st_is_cns:bool "
     "14:static_info:msg:p_dev.card_static_info 15:user_slot:int32 16:user_sslot:int32 "
     "17:card_nodeid:int32 18:port_num:int32 19:is_pre_insl:bool 20:serial:bytes 21:mac_addr:bytes "
     "22:card_tipc_nodeid:int32"},
    {&p_dev__card_static_info__descriptor, "p_dev.card_static_info",
     "5:index:msg:p_dev.card_static_info_index 6:node_type:int32 7:sub_slot_num:int32 "
     "8:name:string"},
    {&p_dev__local_card_info_index__descriptor, "p_dev.local_card_info_index",
     "1:t_mod:int32 2:devid:int32 3:slotid:int32 4:sslotid:int32"},
    {&p_dev__local_card_port_ready__descriptor, "p_dev.local_card_port_ready",
     "5:index:msg:p_dev.local_card_info_index 6:local_port_ready:bool 7:card_type:int32"},
    {&s_cluster__ixn_lport_to_upt_index__descriptor, "s_cluster.ixn_lport_to_upt_index",
     "1:lport:uint32"},
    {&s_cluster__ixn_lport_to_upt__descriptor, "s_cluster.ixn_lport_to_upt",
     "5:index:msg:s_cluster.ixn_lport_to_upt_index 6:unit:uint32 7:port:uint32"},
    {&s_cluster__ixn_lport_info__descriptor, "s_cluster.ixn_lport_info",
     "5:lport_base:uint32 6:lport_num:uint32"},
};

ProtobufCType TypeOf(const std::string &name)
{
    static const struct {
        const char *name;
        ProtobufCType type;
    } kTypes[] = {{"int32", PROTOBUF_C_TYPE_INT32},   {"uint32", PROTOBUF_C_TYPE_UINT32},
                  {"int64", PROTOBUF_C_TYPE_INT64},   {"bool", PROTOBUF_C_TYPE_BOOL},
                  {"string", PROTOBUF_C_TYPE_STRING}, {"bytes", PROTOBUF_C_TYPE_BYTES},
                  {"msg", PROTOBUF_C_TYPE_MESSAGE},   {"enum", PROTOBUF_C_TYPE_ENUM}};
    for (const auto &t : kTypes)
        if (name == t.name) return t.type;
    ADD_FAILURE() << "bad type in table: " << name;
    return PROTOBUF_C_TYPE_INT32;
}

std::vector<std::string> Split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    std::stringstream in(s);
    std::string part;
    while (std::getline(in, part, sep))
        if (!part.empty()) out.push_back(part);
    return out;
}

TEST(ProtoSchema, ReadAndKeyMessagesHaveTheirExactLayout)
{
    for (const auto &m : kMessages) {
        SCOPED_TRACE(m.full_name);
        ASSERT_EQ(m.desc->magic, PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC);
        EXPECT_STREQ(m.desc->name, m.full_name);
        const auto fields = Split(m.fields, ' ');
        ASSERT_EQ(m.desc->n_fields, fields.size());
        for (size_t i = 0; i < fields.size(); ++i) {
            std::string entry = fields[i];
            SCOPED_TRACE(entry);
            const bool repeated = entry[0] == '*';
            if (repeated) entry.erase(0, 1);
            const auto parts = Split(entry, ':');
            ASSERT_GE(parts.size(), 3u);
            const auto *f =
                protobuf_c_message_descriptor_get_field_by_name(m.desc, parts[1].c_str());
            ASSERT_NE(f, nullptr);
            EXPECT_EQ(f, &m.desc->fields[i]) << "fields out of the listed order";
            EXPECT_EQ(f->id, static_cast<uint32_t>(std::stoul(parts[0])));
            EXPECT_EQ(protobuf_c_message_descriptor_get_field(m.desc, f->id), f);
            EXPECT_EQ(f->label, repeated ? PROTOBUF_C_LABEL_REPEATED : PROTOBUF_C_LABEL_NONE);
            EXPECT_EQ(f->type, TypeOf(parts[2]));
            if (f->type == PROTOBUF_C_TYPE_MESSAGE) {
                ASSERT_EQ(parts.size(), 4u);
                EXPECT_STREQ(static_cast<const ProtobufCMessageDescriptor *>(f->descriptor)->name,
                             parts[3].c_str());
            } else if (f->type == PROTOBUF_C_TYPE_ENUM) {
                ASSERT_EQ(parts.size(), 4u);
                EXPECT_STREQ(static_cast<const ProtobufCEnumDescriptor *>(f->descriptor)->name,
                             parts[3].c_str());
            }
        }
    }
    // The descriptor's C name is what the database client calls the record's "proto".
    EXPECT_STREQ(u_intf__pmx_ifx_tbl__descriptor.c_name, "UIntf__PmxIfxTbl");
    EXPECT_STREQ(p_dev__dm_card_stattr_index__descriptor.c_name, "PDev__DmCardStattrIndex");
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
