// Layout of a record fuzz input, shared by the fuzz target and the seed maker:
//   selector (1 byte, 2 when there are more than 256 kinds): record kind = selector % kinds
//   buffer size (2 bytes, little-endian, taken modulo 1024)
//   the packed record
#ifndef PMX_FUZZ_RECORD_INPUT_H
#define PMX_FUZZ_RECORD_INPUT_H

#include <cstddef>
#include <cstdint>

#include "libpmx_protoc_fmt.h"

namespace pmx_fuzz
{

inline constexpr size_t kBufferSizeLimit = 1024;

inline size_t selector_width(size_t kinds)
{
    return kinds > 256 ? 2 : 1;
}

struct RecordInput {
    const ProtobufCMessageDescriptor *desc;
    size_t buffer_size;
    const uint8_t *packed;
    size_t packed_len;
};

// False when the input is too short to hold the header.
inline bool split_record_input(const uint8_t *data, size_t size, RecordInput *out)
{
    size_t kinds = libpmx_protoc_message_count();
    size_t sel_width = selector_width(kinds);
    if (kinds == 0 || size < sel_width + 2) return false;
    size_t selector = sel_width == 1 ? data[0] : (data[0] | size_t{data[1]} << 8);
    out->desc = libpmx_protoc_message_at(selector % kinds);
    out->buffer_size = (data[sel_width] | size_t{data[sel_width + 1]} << 8) % kBufferSizeLimit;
    out->packed = data + sel_width + 2;
    out->packed_len = size - sel_width - 2;
    return out->desc != nullptr;
}

} // namespace pmx_fuzz

#endif // PMX_FUZZ_RECORD_INPUT_H
