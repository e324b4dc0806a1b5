// Key text and record forms of the database client, below its interface.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "mom/codec.h"
#include "mom/keys.h"
#include "mom_test.pb-c.h"
#include "qv_mom.h"
#include "u_intf.pb-c.h"

namespace
{

using qv::mom::MessagePtr;

std::string Text(const ProtobufCMessage *key, const ProtobufCMessageDescriptor *record)
{
    std::string out;
    return qv::mom::make_key_text(key, record, &out) == QV_MOM_OK ? out : "<refused>";
}

TEST(MomKeys, EveryFieldKindSurvivesTheKeyTextAndBadTextIsRefused)
{
    MomTest__WideIndex k;
    protobuf_c_message_init(&mom_test__wide_index__descriptor, &k);
    k.i64 = INT64_MIN;
    k.u64 = UINT64_MAX;
    k.s32 = -7;
    k.flag = 1;
    k.mode = MOM_TEST__MODE_E__MODE_ON;
    char name[] = "a|b%c\x01\xc3\xa9 z";
    k.name = name;
    uint8_t raw[] = {0x00, 0xab, 0x7f};
    k.raw = {sizeof raw, raw};
    k.sf64 = -1;
    const std::string text = Text(&k.base, &mom_test__wide_rec__descriptor);
    EXPECT_EQ(text, "mom_test.wide_rec|-9223372036854775808|18446744073709551615|-7|1|3|a%7Cb%25c%01%C3%A9 z|00ab7f|-1");

    MessagePtr back(qv::mom::parse_key_text(text, &mom_test__wide_index__descriptor));
    ASSERT_TRUE(back);
    EXPECT_EQ(Text(back.get(), &mom_test__wide_rec__descriptor), text);
    // protobuf-c allocates the whole message, so its base pointer is aligned for the full type.
    auto *w = static_cast<MomTest__WideIndex *>(static_cast<void *>(back.get()));
    EXPECT_STREQ(w->name, name);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(w->raw.data), w->raw.len),
              std::string(reinterpret_cast<char *>(raw), sizeof raw));
    EXPECT_EQ(qv::mom::key_kind(text), "mom_test.wide_rec");

    const std::string good_tail = "|1|2|3|0|0|x|ff|4";
    EXPECT_TRUE(MessagePtr(qv::mom::parse_key_text("r" + good_tail, &mom_test__wide_index__descriptor)));
    for (const char *bad : {"r|1|2|3|0|0|x|ff",          // a value missing
                            "r|1|2|3|0|0|x|ff|4|5",      // one too many
                            "r|1|-2|3|0|0|x|ff|4",       // negative unsigned
                            "r|1|2|3|2|0|x|ff|4",        // bool other than 0/1
                            "r|1|2|3 |0|0|x|ff|4",       // trailing junk
                            "r|1|2||0|0|x|ff|4",         // empty number
                            "r|1|2|3|0|0|x%4|ff|4",      // short escape
                            "r|1|2|3|0|0|x%zz|ff|4",     // bad escape
                            "r|1|2|3|0|0|x|fff|4",       // odd hex
                            "r|1|2|3|0|0|x|fg|4",        // not hex
                            "r|99999999999999999999|2|3|0|0|x|ff|4"}) // out of range
        EXPECT_FALSE(MessagePtr(qv::mom::parse_key_text(bad, &mom_test__wide_index__descriptor))) << bad;
    EXPECT_FALSE(MessagePtr(qv::mom::parse_key_text("u_intf.pmx_ifx_tbl|4294967296", &u_intf__ifx_index__descriptor)));

    // Nested, repeated and floating fields cannot key records; a singleton is its own key.
    for (auto *d :
         {&u_intf__pmx_ifx_tbl__descriptor, &u_intf__pmx_mod_tbl__descriptor, &mom_test__float_index__descriptor})
        EXPECT_FALSE(qv::mom::key_kind_ok(d)) << d->name;
    UIntf__PmxModTbl mod = U_INTF__PMX_MOD_TBL__INIT;
    EXPECT_EQ(Text(&mod.base, &u_intf__pmx_sub_ap_intf__descriptor), "<refused>");
    EXPECT_EQ(Text(&mod.base, nullptr), "<refused>");
    EXPECT_EQ(Text(&mod.base, &u_intf__pmx_mod_tbl__descriptor), "u_intf.pmx_mod_tbl");
}

TEST(MomCodec, HashFieldsAreEachFieldsOwnWireEncoding)
{
    UIntf__ModIndex idx = U_INTF__MOD_INDEX__INIT;
    idx.slotid = 2;
    uint32_t ids[] = {1, 200, 70000};
    UIntf__PmxFuidInfo f1 = U_INTF__PMX_FUID_INFO__INIT, f2 = U_INTF__PMX_FUID_INFO__INIT;
    f1.unit = 1;
    f2.unit = 2;
    UIntf__PmxFuidInfo *fuids[] = {&f1, &f2};
    UIntf__PmxModTbl mod = U_INTF__PMX_MOD_TBL__INIT;
    mod.index = &idx;
    mod.gslot = 5;
    mod.n_id = 3;
    mod.id = ids;
    mod.n_fuid_info = 2;
    mod.fuid_info = fuids;

    qv::mom::HashFields fields;
    std::string bad;
    ASSERT_EQ(qv::mom::hash_fields(&mod.base, nullptr, 0, &fields, &bad), QV_MOM_OK);
    ASSERT_EQ(fields.size(), u_intf__pmx_mod_tbl__descriptor.n_fields);
    // In field order the values are exactly the packed record, cut at field boundaries.
    std::string joined;
    for (unsigned i = 0; i < fields.size(); ++i) {
        EXPECT_EQ(fields[i].first, u_intf__pmx_mod_tbl__descriptor.fields[i].name);
        joined += fields[i].second;
    }
    EXPECT_EQ(joined, qv::mom::pack_record(&mod.base));
    EXPECT_EQ(fields[2].second, std::string("\x38\x05", 2)); // gslot
    // A repeated field's entries are together in its one value (fuid_info).
    MessagePtr alone = qv::mom::unpack_record(&u_intf__pmx_mod_tbl__descriptor, fields[7].second);
    ASSERT_TRUE(alone);
    EXPECT_EQ(qv::mom::pack_record(alone.get()), fields[7].second);
    EXPECT_EQ(reinterpret_cast<UIntf__PmxModTbl *>(alone.get())->n_fuid_info, 2u);
    // Any order of the fields unpacks to the record; fields at their default are empty.
    qv::mom::HashFields reversed(fields.rbegin(), fields.rend());
    MessagePtr back = qv::mom::unpack_hash(&u_intf__pmx_mod_tbl__descriptor, reversed);
    ASSERT_TRUE(back);
    EXPECT_EQ(qv::mom::pack_record(back.get()), qv::mom::pack_record(&mod.base));
    EXPECT_EQ(fields[1].second, ""); // status

    const char *names[] = {"gslot", "nope"};
    EXPECT_EQ(qv::mom::hash_fields(&mod.base, names, 1, &fields, &bad), QV_MOM_OK);
    ASSERT_EQ(fields.size(), 1u);
    EXPECT_EQ(fields[0].first, "gslot");
    EXPECT_EQ(qv::mom::hash_fields(&mod.base, names, 2, &fields, &bad), QV_MOM_E_INVAL);
    EXPECT_EQ(bad, "nope");

    qv::mom::StoredValue absent, garbage, empty_hash;
    garbage.kind = qv::mom::StoredValue::Kind::Plain;
    garbage.plain = std::string("\x0a\x05\x01", 3); // a length running past the end
    empty_hash.kind = qv::mom::StoredValue::Kind::Hash;
    empty_hash.hash = {{"gslot", ""}};
    EXPECT_FALSE(qv::mom::unpack_stored(&u_intf__pmx_mod_tbl__descriptor, absent));
    EXPECT_FALSE(qv::mom::unpack_stored(&u_intf__pmx_mod_tbl__descriptor, garbage));
    MessagePtr def = qv::mom::unpack_stored(&u_intf__pmx_mod_tbl__descriptor, empty_hash);
    ASSERT_TRUE(def);
    EXPECT_EQ(qv::mom::pack_record(def.get()), "");
}

} // namespace
