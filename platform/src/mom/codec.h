// Stored form of records: a plain record is the packed message; a hash record holds one field
// per protobuf field name, each value that field's wire encoding (tag included, the entries of
// a repeated field together, empty at the default). A hash read concatenates and unpacks once.
#ifndef QV_MOM_CODEC_H
#define QV_MOM_CODEC_H

#include <protobuf-c/protobuf-c.h>

#include <cstddef>
#include <memory>
#include <string>

#include "backend.h"

namespace qv::mom {

struct MessageFree {
    void operator()(ProtobufCMessage *m) const { protobuf_c_message_free_unpacked(m, nullptr); }
};
using MessagePtr = std::unique_ptr<ProtobufCMessage, MessageFree>;

// The packed message.
std::string pack_record(const ProtobufCMessage *record);

// The hash fields of record: the named ones (n names) or, with names null, every field.
// QV_MOM_OK, or QV_MOM_E_INVAL with *bad set to a name the record does not have.
int hash_fields(const ProtobufCMessage *record, const char *const *names, size_t n, HashFields *out,
                std::string *bad);

// The record a stored value holds; null when absent or when it does not unpack.
MessagePtr unpack_record(const ProtobufCMessageDescriptor *desc, const std::string &packed);
MessagePtr unpack_hash(const ProtobufCMessageDescriptor *desc, const HashFields &fields);
MessagePtr unpack_stored(const ProtobufCMessageDescriptor *desc, const StoredValue &value);

} // namespace qv::mom

#endif // QV_MOM_CODEC_H
