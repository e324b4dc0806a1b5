// Record formatter: exact texts of both forms for every field type, presence rules, the buffer
// sink, set-up errors and the record kind registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fmt_test.pb-c.h"
#include "libpmx_errno.h"
#include "libpmx_protoc_fmt.h"
#include "log_capture.h"
#include "u_intf.pb-c.h"

namespace
{

const ProtobufCMessage *base(const void *msg) { return static_cast<const ProtobufCMessage *>(msg); }

std::string format(const void *msg, int32_t flags)
{
    std::vector<char> buf(8192, 'x');
    EXPECT_EQ(libpmx_protoc_format_message_to_buffer(buf.data(), buf.size(), flags, base(msg)), 0);
    return buf.data();
}

uint8_t kBytes[] = {0x01, 0xAB};
char kEth0[] = "eth0";
char kX[] = "x";

struct Scalars {
    FmtTest__Inner sub = FMT_TEST__INNER__INIT;
    FmtTest__Scalars msg = FMT_TEST__SCALARS__INIT;
    Scalars()
    {
        sub.a = 1;
        sub.s = kX;
        msg.i32 = -5;
        msg.s32 = -7;
        msg.sf32 = -9;
        msg.u32 = 4000000000u;
        msg.f32 = 7;
        msg.i64 = -9000000000LL;
        msg.s64 = -2;
        msg.sf64 = 3;
        msg.u64 = 18000000000000000000ULL;
        msg.f64 = 1;
        msg.fl = 1.5f;
        msg.db = 0.25;
        msg.b = 1;
        msg.str = kEth0;
        msg.by = {sizeof kBytes, kBytes};
        msg.color = FMT_TEST__COLOR_E__BLUE;
        msg.sub = &sub;
    }
};

} // namespace

TEST(ProtocFmt, EveryScalarTypeInBothFormsAndToTheConsole)
{
    Scalars s;
    const std::string compact =
        "FmtTest__Scalars-{i32:-5,s32:-7,sf32:-9,u32:4000000000,f32:7,i64:-9000000000,s64:-2,"
        "sf64:3,u64:18000000000000000000,f64:1,fl:1.5,db:0.25,b:true,str:\"eth0\","
        "by:2-bytes-01AB,color:5-BLUE,sub:FmtTest__Inner-{a:1,s:\"x\"}}";
    EXPECT_EQ(format(&s.msg, LIBPMX_FMT_COMPACT), compact);
    // Values print alike in both forms; the indented form pads names and indents each level.
    const std::string indented = format(&s.msg, 0);
    EXPECT_EQ(indented.rfind("FmtTest__Scalars-{\n    i32        : -5,\n    s32        : -7,\n", 0), 0u);
    const std::string end = ",\n    sub        : FmtTest__Inner-{\n        a          : 1,\n"
                            "        s          : \"x\"\n    }\n}";
    ASSERT_GT(indented.size(), end.size());
    EXPECT_EQ(indented.substr(indented.size() - end.size()), end);
    EXPECT_EQ(std::count(indented.begin(), indented.end(), '\n'), 21); // a line a field

    testing::internal::CaptureStdout();
    const int rc = libpmx_protoc_format_message_to_console(LIBPMX_FMT_COMPACT, base(&s.msg));
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), compact + "\n");
    EXPECT_EQ(rc, 0);

    // Null string and message, empty bytes.
    s.msg.str = nullptr;
    s.msg.sub = nullptr;
    s.msg.by = {0, nullptr};
    const std::string text = format(&s.msg, LIBPMX_FMT_COMPACT);
    EXPECT_NE(text.find(",str:<null>,by:0-bytes,color:5-BLUE,sub:<null>}"), std::string::npos) << text;
}

TEST(ProtocFmt, RepeatedFieldsOfEveryKindAndEnumOutOfRange)
{
    LogCapture cap(5);
    int32_t ri32[] = {1, -2}, rs32[] = {-3}, rsf32[] = {4};
    uint32_t ru32[] = {4294967295u}, rf32[] = {6}, phyid_list[] = {1};
    int64_t ri64[] = {-9000000000LL, 9000000000LL}, rs64[] = {-1}, rsf64[] = {2};
    uint64_t ru64[] = {18446744073709551615ULL}, rf64[] = {5};
    float rfl[] = {0.5f, 2};
    double rdb[] = {1e100, -0.125};
    protobuf_c_boolean rb[] = {1, 0};
    char a[] = "a", bc[] = "bc";
    char *rstr[] = {a, nullptr, bc};
    uint8_t ff = 0xff;
    ProtobufCBinaryData rby[] = {{0, nullptr}, {1, &ff}};
    FmtTest__ColorE rcolor[] = {FMT_TEST__COLOR_E__RED, FMT_TEST__COLOR_E__GREEN, static_cast<FmtTest__ColorE>(7)};
    FmtTest__Inner in = FMT_TEST__INNER__INIT;
    in.a = 2;
    FmtTest__Inner *rsub[] = {&in, nullptr};

    FmtTest__Repeats m = FMT_TEST__REPEATS__INIT;
#define SET(f) (m.n_##f = sizeof f / sizeof f[0], m.f = f)
    SET(ri32), SET(rs32), SET(rsf32), SET(ru32), SET(rf32), SET(ri64), SET(rs64), SET(rsf64), SET(ru64);
    SET(rf64), SET(rfl), SET(rdb), SET(rb), SET(rstr), SET(rby), SET(rcolor), SET(rsub), SET(phyid_list);
#undef SET
    EXPECT_EQ(format(&m, LIBPMX_FMT_COMPACT),
              "FmtTest__Repeats-{ri32:[1,-2],rs32:[-3],rsf32:[4],ru32:[4294967295],rf32:[6],"
              "ri64:[-9000000000,9000000000],rs64:[-1],rsf64:[2],ru64:[18446744073709551615],"
              "rf64:[5],rfl:[0.5,2],rdb:[1e+100,-0.125],rb:[true,false],rstr:[\"a\",<null>,\"bc\"],"
              "rby:[0-bytes,1-bytes-FF],rcolor:[0-RED,1-GREEN,7-fmt_test.color_e],"
              "rsub:[FmtTest__Inner-{a:2},<null>],phyid_list:[0x00000001]}");
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "FmtTest__ColorE: 7 is out of range."));

    // The array walk takes the element width of the current field's C type.
    libpmx_fmter_t f;
    char buf[64];
    libpmx_fmt_buf_t st = {buf, sizeof buf, 0};
    ASSERT_EQ(libpmx_fmter_init_with_buffer(&f, &st, LIBPMX_FMT_COMPACT), 0);
    EXPECT_EQ(libpmx_protoc_format_array(&f, ri64, sizeof ri64[0], 2), LIBPMX_E_INVAL); // no field
    f.field = protobuf_c_message_descriptor_get_field_by_name(&fmt_test__repeats__descriptor, "ri64");
    EXPECT_EQ(libpmx_protoc_format_array(&f, ri64, sizeof(int32_t), 2), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_protoc_format_array(&f, ri64, sizeof ri64[0], 2), 0);
    EXPECT_STREQ(buf, "[-9000000000,9000000000]");
}

TEST(ProtocFmt, PresenceOneofHexAndIndexKey)
{
    FmtTest__Record r = FMT_TEST__RECORD__INIT;
    r.lphyid = 5;
    r.port = 5;
    // Nothing optional present: no stray comma, the empty array still prints.
    EXPECT_EQ(format(&r, LIBPMX_FMT_COMPACT), "FmtTest__Record-{lphyid:0x00000005,port:5,items:[]}");
    r.opt = 99; // without its presence flag
    r.choice_case = FMT_TEST__RECORD__CHOICE_CHOICE_NUM;
    r.choice_num = 3;
    EXPECT_EQ(format(&r, LIBPMX_FMT_COMPACT), "FmtTest__Record-{lphyid:0x00000005,port:5,choice_num:3,items:[]}");

    FmtTest__KeyIndex key = FMT_TEST__KEY_INDEX__INIT;
    key.id = 7;
    FmtTest__Inner i1 = FMT_TEST__INNER__INIT, i2 = FMT_TEST__INNER__INIT;
    i1.a = 1;
    i2.a = 2;
    char b[] = "b", up[] = "up";
    i2.s = b;
    FmtTest__Inner *items[] = {&i1, &i2};
    r.index = &key;
    r.has_opt = 1;
    r.opt = -1;
    r.choice_case = FMT_TEST__RECORD__CHOICE_CHOICE_TEXT;
    r.choice_text = up;
    r.n_items = 2;
    r.items = items;
    // The key message of "index" stays on one line in the indented form.
    EXPECT_EQ(format(&r, 0), "FmtTest__Record-{\n"
                             "    index      : FmtTest__KeyIndex-{id:7},\n"
                             "    lphyid     : 0x00000005,\n"
                             "    port       : 5,\n"
                             "    opt        : -1,\n"
                             "    choice_text : \"up\",\n"
                             "    items      : [\n"
                             "        FmtTest__Inner-{\n"
                             "            a          : 1\n"
                             "        },\n"
                             "        FmtTest__Inner-{\n"
                             "            a          : 2,\n"
                             "            s          : \"b\"\n"
                             "        }\n"
                             "    ]\n"
                             "}");
}

TEST(ProtocFmt, BufferSinkFillsAndStops)
{
    LogCapture cap(5);
    Scalars s;
    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(libpmx_protoc_format_message_to_buffer(buf, sizeof buf, LIBPMX_FMT_COMPACT, base(&s.msg)),
              LIBPMX_E_BUF_FULL);
    EXPECT_STREQ(buf, "FmtTest__Scalar");
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "buffer is full."));
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "format message failed: -6"));

    // Sink bookkeeping: the last byte is the terminator's, and a full buffer takes nothing more.
    char small[8];
    libpmx_fmt_buf_t st = {small, sizeof small, 0};
    libpmx_fmter_t f;
    ASSERT_EQ(libpmx_fmter_init_with_buffer(&f, &st, 0), 0);
    EXPECT_EQ(libpmx_snprintf(&f, "%s", "abc"), 0);
    EXPECT_EQ(st.written, 3u);
    EXPECT_EQ(st.len, 5u);
    EXPECT_EQ(libpmx_snprintf(&f, "%s", "defgh"), LIBPMX_E_BUF_FULL);
    EXPECT_EQ(st.written, 7u);
    EXPECT_EQ(st.pos, small + 7);
    cap.clear();
    EXPECT_EQ(libpmx_snprintf(&f, "%s", "z"), LIBPMX_E_BUF_FULL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "invalid buffer, or not enough buffer"));
    EXPECT_STREQ(small, "abcdefg");

    // A one-byte buffer holds just the terminator.
    char one = 'x';
    EXPECT_EQ(libpmx_protoc_format_message_to_buffer(&one, 1, 0, base(&s.msg)), LIBPMX_E_BUF_FULL);
    EXPECT_EQ(one, '\0');
}

TEST(ProtocFmt, SetUpErrors)
{
    LogCapture cap(5);
    libpmx_fmter_t f;
    char buf[32] = "junk";
    libpmx_fmt_buf_t st = {buf, sizeof buf, 0}, no_pos = {nullptr, 8, 0}, no_len = {buf, 0, 0};
    EXPECT_EQ(libpmx_fmter_init_with_printf(nullptr, 0), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_fmter_init_with_buffer(nullptr, &st, 0), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_fmter_init_with_buffer(&f, nullptr, 0), LIBPMX_E_INVAL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "null param"));
    cap.clear();
    EXPECT_EQ(libpmx_fmter_init_with_buffer(&f, &no_pos, 0), LIBPMX_E_INVAL);
    EXPECT_EQ(libpmx_fmter_init_with_buffer(&f, &no_len, 0), LIBPMX_E_INVAL);
    EXPECT_EQ(cap.lines().size(), 2u);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "invalid buff"));

    FmtTest__KeyIndex key = FMT_TEST__KEY_INDEX__INIT;
    EXPECT_EQ(libpmx_protoc_format_message_to_buffer(nullptr, 10, 0, base(&key)), LIBPMX_E_INVAL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "invalid buffer (nil) len 10."));
    EXPECT_EQ(libpmx_protoc_format_message_to_buffer(buf, sizeof buf, 0, nullptr), LIBPMX_E_INVAL);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(libpmx_protoc_format_message_to_console(0, nullptr), LIBPMX_E_INVAL);
    EXPECT_TRUE(cap.has(LIBPMX_ZLOG_ERROR, "null msg"));
}

TEST(ProtocFmt, RecordKindRegistry)
{
    EXPECT_EQ(libpmx_protoc_find_message("u_intf.pmx_ifx_tbl"), &u_intf__pmx_ifx_tbl__descriptor);
    EXPECT_EQ(libpmx_protoc_find_message("u_intf.no_such_tbl"), nullptr);
    EXPECT_EQ(libpmx_protoc_find_message("pmx_ifx_tbl"), nullptr); // short names do not match
    EXPECT_EQ(libpmx_protoc_find_message(nullptr), nullptr);
    // Every kind in the table is found by its name.
    const size_t n = libpmx_protoc_message_count();
    ASSERT_GT(n, 0u);
    EXPECT_EQ(libpmx_protoc_message_at(n), nullptr);
    for (size_t i = 0; i < n; ++i) {
        const ProtobufCMessageDescriptor *d = libpmx_protoc_message_at(i);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(libpmx_protoc_find_message(d->name), d) << d->name;
    }
}
