// Record codec. The hash form is cut out of the packed message by walking its wire format, so
// every field value is exactly what protobuf-c packs for that field.
#include "codec.h"

#include "qv_mom.h"

#include <cstdint>
#include <map>

namespace qv::mom {
namespace {

// Reads a varint at *pos; false when it runs past the end or is longer than ten bytes.
bool skip_varint(const std::string &buf, size_t *pos, uint64_t *value)
{
    uint64_t v = 0;
    for (unsigned i = 0; i < 10 && *pos < buf.size(); ++i) {
        auto byte = static_cast<uint8_t>(buf[(*pos)++]);
        v |= static_cast<uint64_t>(byte & 0x7f) << (7 * i);
        if ((byte & 0x80) == 0) {
            *value = v;
            return true;
        }
    }
    return false;
}

// Splits packed bytes into the wire encoding of each field number, in order of appearance.
bool split_fields(const std::string &packed, std::map<uint32_t, std::string> *out)
{
    size_t pos = 0;
    while (pos < packed.size()) {
        size_t start = pos;
        uint64_t tag = 0;
        uint64_t len = 0;
        if (!skip_varint(packed, &pos, &tag)) return false;
        switch (tag & 7) {
        case 0:
            if (!skip_varint(packed, &pos, &len)) return false;
            break;
        case 1:
            pos += 8;
            break;
        case 2:
            if (!skip_varint(packed, &pos, &len) || len > packed.size() - pos) return false;
            pos += static_cast<size_t>(len);
            break;
        case 5:
            pos += 4;
            break;
        default:
            return false;
        }
        if (pos > packed.size()) return false;
        (*out)[static_cast<uint32_t>(tag >> 3)].append(packed, start, pos - start);
    }
    return true;
}

} // namespace

std::string pack_record(const ProtobufCMessage *record)
{
    std::string out(protobuf_c_message_get_packed_size(record), '\0');
    if (!out.empty()) protobuf_c_message_pack(record, reinterpret_cast<uint8_t *>(out.data()));
    return out;
}

int hash_fields(const ProtobufCMessage *record, const char *const *names, size_t n, HashFields *out,
                std::string *bad)
{
    const ProtobufCMessageDescriptor *desc = record->descriptor;
    std::map<uint32_t, std::string> wire;
    if (!split_fields(pack_record(record), &wire)) return QV_MOM_E_INVAL;
    out->clear();
    if (names == nullptr) {
        for (unsigned i = 0; i < desc->n_fields; ++i)
            out->emplace_back(desc->fields[i].name, wire[desc->fields[i].id]);
        return QV_MOM_OK;
    }
    for (size_t i = 0; i < n; ++i) {
        const ProtobufCFieldDescriptor *f =
            names[i] == nullptr ? nullptr : protobuf_c_message_descriptor_get_field_by_name(desc, names[i]);
        if (f == nullptr) {
            *bad = names[i] == nullptr ? "(null)" : names[i];
            return QV_MOM_E_INVAL;
        }
        out->emplace_back(f->name, wire[f->id]);
    }
    return QV_MOM_OK;
}

MessagePtr unpack_record(const ProtobufCMessageDescriptor *desc, const std::string &packed)
{
    return MessagePtr(protobuf_c_message_unpack(desc, nullptr, packed.size(),
                                                reinterpret_cast<const uint8_t *>(packed.data())));
}

MessagePtr unpack_hash(const ProtobufCMessageDescriptor *desc, const HashFields &fields)
{
    std::string joined;
    for (const auto &f : fields) joined += f.second;
    return unpack_record(desc, joined);
}

MessagePtr unpack_stored(const ProtobufCMessageDescriptor *desc, const StoredValue &value)
{
    switch (value.kind) {
    case StoredValue::Kind::Plain:
        return unpack_record(desc, value.plain);
    case StoredValue::Kind::Hash:
        return unpack_hash(desc, value.hash);
    default:
        return nullptr;
    }
}

} // namespace qv::mom
