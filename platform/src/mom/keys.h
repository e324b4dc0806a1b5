// Key text of records: "<record full name>|<key field values in field order, joined by '|'>",
// or the record name alone for a singleton (a record that is its own key message).
#ifndef QV_MOM_KEYS_H
#define QV_MOM_KEYS_H

#include <protobuf-c/protobuf-c.h>

#include <string>

namespace qv::mom {

// True when messages of this kind can key records: only scalar, string, bytes and enum fields,
// none repeated, nested, floating-point or in a oneof.
bool key_kind_ok(const ProtobufCMessageDescriptor *key);

// The key text of `key` naming a `record`; a singleton when key is itself a `record`.
// QV_MOM_OK, or QV_MOM_E_INVAL when the key message cannot key records.
int make_key_text(const ProtobufCMessage *key, const ProtobufCMessageDescriptor *record, std::string *out);

// The record name part of a key text.
std::string key_kind(const std::string &key_text);

// A new key message of kind `key` holding the values of `key_text` (a key of a non-singleton
// record); null when the text does not match the kind. Free with protobuf_c_message_free_unpacked.
ProtobufCMessage *parse_key_text(const std::string &key_text, const ProtobufCMessageDescriptor *key);

} // namespace qv::mom

#endif // QV_MOM_KEYS_H
