// Fuzzes unpacking of every record kind and the buffer form of the formatter: each record that
// unpacks is formatted, indented and compact, into a heap buffer of exactly the chosen size, so
// the address sanitizer sees any write past its end. The text must then be the leading part of
// what a large buffer receives, cut where the buffer-full rule says.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "libpmx_dbg.h"
#include "libpmx_errno.h"
#include "libpmx_protoc_fmt.h"
#include "record_input.h"

namespace
{

[[noreturn]] void broken(const char *what, const ProtobufCMessage *msg, int32_t flags, size_t size,
                         int rc)
{
    std::fprintf(stderr, "fuzz_records: %s (kind %s, flags %d, buffer %zu, result %d)\n", what,
                 msg->descriptor->name, flags, size, rc);
    std::abort();
}

// The whole text of msg, through a buffer large enough for any input the fuzzer makes; false
// when it still does not fit.
bool reference_text(const ProtobufCMessage *msg, int32_t flags, std::string_view *text)
{
    static std::vector<char> big(1 << 20);
    int rc = libpmx_protoc_format_message_to_buffer(big.data(), big.size(), flags, msg);
    if (rc == LIBPMX_E_BUF_FULL) return false;
    if (rc != 0) broken("formatting into a large buffer failed", msg, flags, big.size(), rc);
    *text = std::string_view(big.data(), std::strlen(big.data()));
    return true;
}

void format_exact(const ProtobufCMessage *msg, int32_t flags, size_t size)
{
    std::unique_ptr<char[]> buf(new char[size]);
    // No stray zero byte: termination must come from the formatter.
    std::memset(buf.get(), 'Z', size);
    int rc = libpmx_protoc_format_message_to_buffer(buf.get(), size, flags, msg);
    if (size < 2) {
        // Too small to hold any text: refused, and a one-byte buffer is left terminated.
        if (rc >= 0) broken("a buffer under 2 bytes was accepted", msg, flags, size, rc);
        if (size == 1 && buf[0] != '\0')
            broken("a 1-byte buffer was left unterminated", msg, flags, size, rc);
        return;
    }
    if (rc != 0 && rc != LIBPMX_E_BUF_FULL) broken("unexpected result", msg, flags, size, rc);
    const char *end = static_cast<const char *>(std::memchr(buf.get(), '\0', size));
    if (end == nullptr) broken("text not terminated inside the buffer", msg, flags, size, rc);
    std::string_view got(buf.get(), static_cast<size_t>(end - buf.get()));

    std::string_view full;
    if (!reference_text(msg, flags, &full)) return;
    // The buffer is full once fewer than 2 bytes remain: a text of size - 1 characters or more
    // is cut to its first size - 1.
    bool fits = full.size() <= size - 2;
    if (fits != (rc == 0))
        broken("buffer-full result disagrees with the text length", msg, flags, size, rc);
    if (got != full.substr(0, size - 1))
        broken("text differs from the large-buffer text", msg, flags, size, rc);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // The log category stays closed here, so nothing is written, but every log statement's
    // text is still built and so fuzzed along.
    g_libpmx_zlog_level = 5;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    pmx_fuzz::RecordInput in;
    if (!pmx_fuzz::split_record_input(data, size, &in)) return 0;
    ProtobufCMessage *msg = protobuf_c_message_unpack(in.desc, nullptr, in.packed_len, in.packed);
    if (msg == nullptr) return 0;
    for (int32_t flags : {0, LIBPMX_FMT_COMPACT})
        format_exact(msg, flags, in.buffer_size);
    protobuf_c_message_free_unpacked(msg, nullptr);
    return 0;
}
