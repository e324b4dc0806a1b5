// Record files: database records written as JSON, read into protobuf-c messages through their
// descriptors (and written back the same way). The format is described in
// examples/chassis/README.md.
#ifndef PMX_TOOL_JSON_RECORDS_H
#define PMX_TOOL_JSON_RECORDS_H

#include <protobuf-c/protobuf-c.h>

#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

namespace pmx_tool
{

struct MessageFree {
    void operator()(ProtobufCMessage *m) const { protobuf_c_message_free_unpacked(m, nullptr); }
};
using MessagePtr = std::unique_ptr<ProtobufCMessage, MessageFree>;

// How a record is stored: a hash of its fields, or one packed string.
enum class Form { Hash, Plain };

const char *form_name(Form form);

// Where the library reads a record kind: its database and form, from the library's record
// catalogue. False when the library does not read the kind (it then needs an explicit database,
// and is plain unless told otherwise).
bool default_placement(const ProtobufCMessageDescriptor *record, int *db, Form *form);

// The key message of a record kind: the type of its message field `index` when that type's
// name ends in "_index"; null for a singleton, which is keyed by its name alone.
const ProtobufCMessageDescriptor *key_descriptor(const ProtobufCMessageDescriptor *record);

// Whether a kind is stored on its own: it has a key, or no other kind holds it as a field (key
// messages and the parts of records are not records).
bool is_record_kind(const ProtobufCMessageDescriptor *desc);

// What a JSON value is, for messages: "a number", "a string", "an object", ...
std::string json_kind(const nlohmann::json &v);

// A new message of the kind with every field at its default.
MessagePtr new_message(const ProtobufCMessageDescriptor *desc);

// A value that does not fit its field: the path of the field ("chip_attr_array[0].lport") and
// what is wrong.
struct FieldError {
    std::string path;
    std::string text;
};

// One record of a file, ready to write: the record itself with its `index` set, and the key
// the database client takes (the `index`, or the record for a singleton).
struct Record {
    MessagePtr value;
    const ProtobufCMessage *key = nullptr;
    int db = 0;
    Form form = Form::Plain;

    const ProtobufCMessageDescriptor *kind() const { return value->descriptor; }
};

// Reads a record file; on failure returns false with the reason in *error, naming the file, the
// record's position (from 1) and the field. Nothing is returned from a file with any error.
bool read_record_file(const std::string &path, std::vector<Record> *records, std::string *error);

// The JSON of a message, fields in field order: those at their default left out unless
// `all_fields`.
nlohmann::ordered_json message_to_json(const ProtobufCMessage *msg, bool all_fields = false);
// One entry of a record file for the record (with "db" and "form" when they differ from the
// defaults).
nlohmann::ordered_json record_to_json(const ProtobufCMessage *record, int db, Form form);

// The key message of a record kind from command-line words, one per key field in field order.
// Throws FieldError (path: the key field) on a bad word or a wrong number of words.
MessagePtr key_from_words(const ProtobufCMessageDescriptor *record,
                          const std::vector<std::string> &words);

// "ifx=12", "devid=1 slotid=3 sslotid=0": a key message's fields for messages.
std::string key_fields_text(const ProtobufCMessage *key);

} // namespace pmx_tool

#endif // PMX_TOOL_JSON_RECORDS_H
