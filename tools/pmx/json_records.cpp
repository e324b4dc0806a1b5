#include "json_records.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string_view>

#include "hex.h"
#include "libpmx_mom.h"
#include "record_kinds.h"

namespace pmx_tool
{
namespace
{

using nlohmann::json;
using nlohmann::ordered_json;

[[noreturn]] void fail_at(const std::string &path, const std::string &text)
{
    throw FieldError{path, text};
}

std::string join_path(const std::string &prefix, const std::string &name)
{
    return prefix.empty() ? name : prefix + "." + name;
}

char *field_at(ProtobufCMessage *msg, unsigned offset)
{
    return reinterpret_cast<char *>(msg) + offset;
}

const char *field_at(const ProtobufCMessage *msg, unsigned offset)
{
    return reinterpret_cast<const char *>(msg) + offset;
}

template <typename T> void store(char *p, T v)
{
    std::memcpy(p, &v, sizeof v);
}

template <typename T> T load(const char *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

size_t element_size(ProtobufCType type)
{
    switch (type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
    case PROTOBUF_C_TYPE_FLOAT:
    case PROTOBUF_C_TYPE_ENUM:
        return 4;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
    case PROTOBUF_C_TYPE_DOUBLE:
        return 8;
    case PROTOBUF_C_TYPE_BOOL:
        return sizeof(protobuf_c_boolean);
    case PROTOBUF_C_TYPE_STRING:
        return sizeof(char *);
    case PROTOBUF_C_TYPE_BYTES:
        return sizeof(ProtobufCBinaryData);
    case PROTOBUF_C_TYPE_MESSAGE:
        return sizeof(ProtobufCMessage *);
    }
    return 0;
}


// An integer of any width: its sign and magnitude.
struct Integer {
    bool negative;
    std::uint64_t magnitude;
};

// A JSON integer, or a string "0x..." for values that read better in hex.
Integer json_integer(const json &v, const std::string &path)
{
    if (v.is_number_unsigned()) return {false, v.get<std::uint64_t>()};
    if (v.is_number_integer()) {
        auto i = v.get<std::int64_t>();
        return {i < 0, i < 0 ? 0 - static_cast<std::uint64_t>(i) : static_cast<std::uint64_t>(i)};
    }
    if (v.is_string()) {
        const auto &s = v.get_ref<const std::string &>();
        if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
            std::uint64_t x = 0;
            const char *end = s.data() + s.size();
            auto r = std::from_chars(s.data() + 2, end, x, 16);
            if (r.ec == std::errc::result_out_of_range)
                fail_at(path, s + " is out of range for 64 bits");
            if (r.ec == std::errc() && r.ptr == end) return {false, x};
        }
        fail_at(path, "expected an integer (or a \"0x...\" string), got \"" + s + "\"");
    }
    fail_at(path, "expected an integer, got " + json_kind(v));
}

std::int64_t signed_in(const json &v, std::int64_t lo, std::int64_t hi, const char *type,
                       const std::string &path)
{
    Integer x = json_integer(v, path);
    // A negative value has a magnitude of at least 1.
    bool ok = x.negative ? lo < 0 && x.magnitude - 1 <= static_cast<std::uint64_t>(-(lo + 1))
                         : x.magnitude <= static_cast<std::uint64_t>(hi);
    if (!ok) fail_at(path, v.dump() + " is out of range for " + type);
    return x.negative ? -static_cast<std::int64_t>(x.magnitude - 1) - 1
                      : static_cast<std::int64_t>(x.magnitude);
}

std::uint64_t unsigned_in(const json &v, std::uint64_t hi, const char *type,
                          const std::string &path)
{
    Integer x = json_integer(v, path);
    if ((x.negative && x.magnitude != 0) || x.magnitude > hi)
        fail_at(path, v.dump() + " is out of range for " + type);
    return x.magnitude;
}

std::int32_t enum_value(const json &v, const ProtobufCEnumDescriptor *ed, const std::string &path)
{
    if (v.is_string()) {
        const auto &name = v.get_ref<const std::string &>();
        const ProtobufCEnumValue *ev =
            protobuf_c_enum_descriptor_get_value_by_name(ed, name.c_str());
        if (ev == nullptr) fail_at(path, "'" + name + "' is not a value of " + ed->name);
        return ev->value;
    }
    auto n = static_cast<std::int32_t>(signed_in(v, INT32_MIN, INT32_MAX, "an enum", path));
    if (protobuf_c_enum_descriptor_get_value(ed, n) == nullptr)
        fail_at(path, std::to_string(n) + " is not a value of " + ed->name);
    return n;
}

char *copy_string(const std::string &s)
{
    auto *p = static_cast<char *>(std::malloc(s.size() + 1));
    if (p == nullptr) throw std::bad_alloc();
    std::memcpy(p, s.c_str(), s.size() + 1);
    return p;
}

void fill_at(const json &object, ProtobufCMessage *msg, const std::string &prefix);

// Stores one value of field f at p (a singular field, or an element of a repeated one).
void set_value(const json &v, const ProtobufCFieldDescriptor *f, char *p, const std::string &path)
{
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
        store(p, static_cast<std::int32_t>(signed_in(v, INT32_MIN, INT32_MAX, "int32", path)));
        return;
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        store(p, static_cast<std::uint32_t>(unsigned_in(v, UINT32_MAX, "uint32", path)));
        return;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        store(p, signed_in(v, INT64_MIN, INT64_MAX, "int64", path));
        return;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        store(p, unsigned_in(v, UINT64_MAX, "uint64", path));
        return;
    case PROTOBUF_C_TYPE_FLOAT:
    case PROTOBUF_C_TYPE_DOUBLE:
        if (!v.is_number()) fail_at(path, "expected a number, got " + json_kind(v));
        if (f->type == PROTOBUF_C_TYPE_FLOAT)
            store(p, v.get<float>());
        else
            store(p, v.get<double>());
        return;
    case PROTOBUF_C_TYPE_BOOL:
        if (!v.is_boolean()) fail_at(path, "expected true or false, got " + json_kind(v));
        store<protobuf_c_boolean>(p, v.get<bool>() ? 1 : 0);
        return;
    case PROTOBUF_C_TYPE_ENUM:
        store(p, enum_value(v, static_cast<const ProtobufCEnumDescriptor *>(f->descriptor), path));
        return;
    case PROTOBUF_C_TYPE_STRING:
        if (!v.is_string()) fail_at(path, "expected a string, got " + json_kind(v));
        store(p, copy_string(v.get_ref<const std::string &>()));
        return;
    case PROTOBUF_C_TYPE_BYTES: {
        if (!v.is_string()) fail_at(path, "expected hex bytes as a string, got " + json_kind(v));
        HexResult hex = parse_hex(v.get_ref<const std::string &>());
        if (!hex.ok()) fail_at(path, "bad hex: " + hex.error);
        ProtobufCBinaryData b{hex.bytes.size(), nullptr};
        if (b.len > 0) {
            b.data = static_cast<std::uint8_t *>(std::malloc(b.len));
            if (b.data == nullptr) throw std::bad_alloc();
            std::memcpy(b.data, hex.bytes.data(), b.len);
        }
        store(p, b);
        return;
    }
    case PROTOBUF_C_TYPE_MESSAGE: {
        if (!v.is_object()) fail_at(path, "expected an object, got " + json_kind(v));
        MessagePtr sub =
            new_message(static_cast<const ProtobufCMessageDescriptor *>(f->descriptor));
        fill_at(v, sub.get(), path);
        store(p, sub.release());
        return;
    }
    }
    fail_at(path, "fields of this type are not supported");
}

void set_field(const json &v, ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f,
               const std::string &path)
{
    if (f->label == PROTOBUF_C_LABEL_REPEATED) {
        if (!v.is_array()) fail_at(path, "expected an array, got " + json_kind(v));
        if (v.empty()) return;
        size_t width = element_size(f->type);
        void *elements = std::calloc(v.size(), width);
        if (elements == nullptr) throw std::bad_alloc();
        store(field_at(msg, f->offset), elements);
        // The count grows with each element stored, so a failure frees exactly those.
        char *count = field_at(msg, f->quantifier_offset);
        for (size_t i = 0; i < v.size(); ++i) {
            set_value(v[i], f, static_cast<char *>(elements) + i * width,
                      path + "[" + std::to_string(i) + "]");
            store<size_t>(count, i + 1);
        }
        return;
    }
    if ((f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0) {
        char *which = field_at(msg, f->quantifier_offset);
        auto set = load<std::uint32_t>(which);
        if (set != 0 && set != f->id) fail_at(path, "another field of the same oneof is set");
        set_value(v, f, field_at(msg, f->offset), path);
        store<std::uint32_t>(which, f->id);
        return;
    }
    set_value(v, f, field_at(msg, f->offset), path);
    bool has_flag = f->label == PROTOBUF_C_LABEL_OPTIONAL && f->type != PROTOBUF_C_TYPE_STRING &&
                    f->type != PROTOBUF_C_TYPE_MESSAGE;
    if (has_flag) store<protobuf_c_boolean>(field_at(msg, f->quantifier_offset), 1);
}

void fill_at(const json &object, ProtobufCMessage *msg, const std::string &prefix)
{
    if (!object.is_object()) fail_at(prefix, "expected an object, got " + json_kind(object));
    const ProtobufCMessageDescriptor *desc = msg->descriptor;
    for (const auto &[name, v] : object.items()) {
        std::string path = join_path(prefix, name);
        const ProtobufCFieldDescriptor *f =
            protobuf_c_message_descriptor_get_field_by_name(desc, name.c_str());
        if (f == nullptr) fail_at(path, std::string("no such field in ") + desc->name);
        set_field(v, msg, f, path);
    }
}

// The key message of record that `index` holds, or null.
const ProtobufCFieldDescriptor *index_field(const ProtobufCMessageDescriptor *record)
{
    const ProtobufCFieldDescriptor *f =
        protobuf_c_message_descriptor_get_field_by_name(record, "index");
    if (f == nullptr || f->type != PROTOBUF_C_TYPE_MESSAGE || f->label == PROTOBUF_C_LABEL_REPEATED)
        return nullptr;
    std::string_view key_name =
        static_cast<const ProtobufCMessageDescriptor *>(f->descriptor)->name;
    constexpr std::string_view suffix = "_index";
    if (key_name.size() < suffix.size() ||
        key_name.substr(key_name.size() - suffix.size()) != suffix)
        return nullptr;
    return f;
}

ordered_json value_json(const ProtobufCFieldDescriptor *f, const char *p)
{
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
        return load<std::int32_t>(p);
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        return load<std::uint32_t>(p);
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        return load<std::int64_t>(p);
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        return load<std::uint64_t>(p);
    case PROTOBUF_C_TYPE_FLOAT:
        return load<float>(p);
    case PROTOBUF_C_TYPE_DOUBLE:
        return load<double>(p);
    case PROTOBUF_C_TYPE_BOOL:
        return load<protobuf_c_boolean>(p) != 0;
    case PROTOBUF_C_TYPE_ENUM: {
        auto n = load<std::int32_t>(p);
        const ProtobufCEnumValue *ev = protobuf_c_enum_descriptor_get_value(
            static_cast<const ProtobufCEnumDescriptor *>(f->descriptor), n);
        return ev != nullptr ? ordered_json(ev->name) : ordered_json(n);
    }
    case PROTOBUF_C_TYPE_STRING: {
        const char *s = load<const char *>(p);
        return s != nullptr ? s : "";
    }
    case PROTOBUF_C_TYPE_BYTES: {
        auto b = load<ProtobufCBinaryData>(p);
        static constexpr char digits[] = "0123456789abcdef";
        std::string hex;
        for (size_t i = 0; i < b.len; ++i) {
            hex += digits[b.data[i] >> 4];
            hex += digits[b.data[i] & 15];
        }
        return hex;
    }
    case PROTOBUF_C_TYPE_MESSAGE: {
        const auto *sub = load<const ProtobufCMessage *>(p);
        return sub != nullptr ? message_to_json(sub) : ordered_json::object();
    }
    }
    return nullptr;
}

// Whether a singular field without a presence flag holds its default.
bool at_default(const ProtobufCFieldDescriptor *f, const char *p)
{
    switch (f->type) {
    case PROTOBUF_C_TYPE_STRING: {
        const char *s = load<const char *>(p);
        return s == nullptr || *s == '\0';
    }
    case PROTOBUF_C_TYPE_BYTES:
        return load<ProtobufCBinaryData>(p).len == 0;
    case PROTOBUF_C_TYPE_MESSAGE:
        return load<const ProtobufCMessage *>(p) == nullptr;
    default: {
        static constexpr char zeros[8] = {};
        return std::memcmp(p, zeros, element_size(f->type)) == 0;
    }
    }
}

// "1"/"true" and "0"/"false" for booleans, numbers for numeric fields, the word itself for the
// rest (enum names, strings, hex).
json word_json(const std::string &word, const ProtobufCFieldDescriptor *f)
{
    const char *end = word.data() + word.size();
    switch (f->type) {
    case PROTOBUF_C_TYPE_BOOL:
        if (word == "1" || word == "true") return true;
        if (word == "0" || word == "false") return false;
        return word;
    case PROTOBUF_C_TYPE_STRING:
    case PROTOBUF_C_TYPE_BYTES:
        return word;
    case PROTOBUF_C_TYPE_FLOAT:
    case PROTOBUF_C_TYPE_DOUBLE: {
        char *stop = nullptr;
        double d = std::strtod(word.c_str(), &stop);
        return !word.empty() && stop == end ? json(d) : json(word);
    }
    default: {
        std::int64_t i = 0;
        auto r = std::from_chars(word.data(), end, i);
        if (!word.empty() && r.ec == std::errc() && r.ptr == end) return i;
        std::uint64_t u = 0;
        r = std::from_chars(word.data(), end, u);
        if (!word.empty() && r.ec == std::errc() && r.ptr == end) return u;
        return word;
    }
    }
}

} // namespace

std::string json_kind(const json &v)
{
    if (v.is_number_float()) return "a fractional number";
    if (v.is_number()) return "a number";
    if (v.is_string()) return "a string";
    if (v.is_boolean()) return "a boolean";
    if (v.is_array()) return "an array";
    if (v.is_object()) return "an object";
    return "null";
}

const char *form_name(Form form)
{
    return form == Form::Hash ? "hash" : "plain";
}

bool default_placement(const ProtobufCMessageDescriptor *record, int *db, Form *form)
{
    *form = Form::Plain;
    const libpmx_record_kind_t *kind = libpmx_record_kind_find(record->name);
    if (kind == nullptr) return false;
    *db = kind->db;
    *form = kind->hash != 0 ? Form::Hash : Form::Plain;
    return true;
}

const ProtobufCMessageDescriptor *key_descriptor(const ProtobufCMessageDescriptor *record)
{
    const ProtobufCFieldDescriptor *f = index_field(record);
    return f != nullptr ? static_cast<const ProtobufCMessageDescriptor *>(f->descriptor) : nullptr;
}

bool is_record_kind(const ProtobufCMessageDescriptor *desc)
{
    if (key_descriptor(desc) != nullptr) return true;
    for (const auto *kind : all_kinds()) {
        for (unsigned i = 0; i < kind->n_fields; ++i) {
            if (kind->fields[i].type == PROTOBUF_C_TYPE_MESSAGE &&
                kind->fields[i].descriptor == desc)
                return false;
        }
    }
    return true;
}

MessagePtr new_message(const ProtobufCMessageDescriptor *desc)
{
    auto *msg = static_cast<ProtobufCMessage *>(std::malloc(desc->sizeof_message));
    if (msg == nullptr) throw std::bad_alloc();
    protobuf_c_message_init(desc, msg);
    return MessagePtr(msg);
}

namespace
{

// The line (1-based) on which each element of the top-level "records" array starts, found by a
// scan of the text that follows strings, so that errors can name the line of their record.
std::vector<size_t> record_lines(const std::string &text)
{
    std::vector<size_t> lines;
    size_t line = 1, depth = 0;
    bool in_string = false, escaped = false, in_records = false, want_value = false;
    std::string last_key, current;
    for (char c : text) {
        if (c == '\n') ++line;
        if (in_string) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                in_string = false;
            else
                current += c;
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
        if (in_records && depth == 2 && want_value && c != ']') {
            lines.push_back(line);
            want_value = false;
        }
        switch (c) {
        case '"':
            in_string = true;
            current.clear();
            break;
        case ':':
            if (depth == 1) last_key = current;
            break;
        case '{':
        case '[':
            ++depth;
            if (depth == 2 && c == '[' && last_key == "records") {
                in_records = true;
                want_value = true;
            }
            break;
        case '}':
        case ']':
            if (depth == 2 && in_records && c == ']') in_records = false;
            if (depth > 0) --depth;
            break;
        case ',':
            if (depth == 2 && in_records) want_value = true;
            break;
        default:
            break;
        }
    }
    return lines;
}

// A record file's text; `name` stands for the file in errors.
bool parse_records(const std::string &text, const std::string &name, std::vector<Record> *records,
                   std::string *error)
{
    json doc;
    try {
        doc = json::parse(text);
    } catch (const json::exception &e) { // a syntax error, or a number too large for a double
        std::string what = e.what();
        // Drop the library's "[json.exception.parse_error.101] " tag.
        size_t tag_end = what.find("] ");
        if (what.starts_with("[json.") && tag_end != std::string::npos) what.erase(0, tag_end + 2);
        *error = name + ": not valid JSON: " + what;
        return false;
    }
    if (!doc.is_object() || !doc.contains("records") || !doc["records"].is_array()) {
        *error = name + ": expected an object {\"records\": [...]}";
        return false;
    }
    for (const auto &[k, v] : doc.items()) {
        if (k != "records" && k != "comment") {
            *error = name + ": unknown member '" + k + "' (expected \"records\")";
            return false;
        }
    }

    std::vector<Record> out;
    const json &list = doc["records"];
    const std::vector<size_t> lines = record_lines(text);
    for (size_t i = 0; i < list.size(); ++i) {
        const json &entry = list[i];
        std::string where = name + (i < lines.size() ? ":" + std::to_string(lines[i]) : std::string()) +
                            ": record " + std::to_string(i + 1);
        try {
            if (!entry.is_object()) fail_at("", "expected an object, got " + json_kind(entry));
            for (const auto &[k, v] : entry.items()) {
                if (k != "record" && k != "db" && k != "form" && k != "key" && k != "value" &&
                    k != "comment")
                    fail_at(k, "unknown member (expected record, db, form, key, value)");
            }
            if (!entry.contains("record") || !entry["record"].is_string())
                fail_at("record", "the full record name is missing");
            const auto &kind_name = entry["record"].get_ref<const std::string &>();
            const ProtobufCMessageDescriptor *desc = find_kind(kind_name);
            if (desc == nullptr) fail_at("record", unknown_kind_error(kind_name));
            if (!is_record_kind(desc))
                fail_at("record", kind_name + " is a part of other records, not a record");
            where += " (" + kind_name +
                     (entry.contains("key") ? ", key " + entry["key"].dump() : std::string()) + ")";

            Record r;
            bool has_db = default_placement(desc, &r.db, &r.form);
            if (entry.contains("db")) {
                r.db = static_cast<int>(
                    signed_in(entry["db"], 0, QV_MOM_DB_COUNT - 1, "a database number", "db"));
            } else if (!has_db) {
                fail_at("db", std::string(desc->name) + " is not a record the library reads: give its database");
            }
            if (entry.contains("form")) {
                const json &form = entry["form"];
                if (form == "hash")
                    r.form = Form::Hash;
                else if (form == "plain")
                    r.form = Form::Plain;
                else
                    fail_at("form", "expected \"hash\" or \"plain\", got " + form.dump());
            }

            r.value = new_message(desc);
            const ProtobufCFieldDescriptor *index = index_field(desc);
            if (entry.contains("value")) {
                const json &value = entry["value"];
                if (index != nullptr && value.is_object() && value.contains("index"))
                    fail_at("value.index", "the key goes in \"key\"");
                fill_at(value, r.value.get(), "value");
            }
            if (index == nullptr) {
                if (entry.contains("key"))
                    fail_at("key", std::string(desc->name) + " is a singleton: it has no key");
                r.key = r.value.get();
            } else {
                if (!entry.contains("key"))
                    fail_at("key",
                            std::string("missing: ") + desc->name + " is keyed by " +
                                static_cast<const ProtobufCMessageDescriptor *>(index->descriptor)
                                    ->name);
                set_field(entry["key"], r.value.get(), index, "key");
                r.key = load<const ProtobufCMessage *>(field_at(r.value.get(), index->offset));
            }
            out.push_back(std::move(r));
        } catch (const FieldError &e) {
            *error = where + ": " + (e.path.empty() ? "" : e.path + ": ") + e.text;
            return false;
        }
    }
    *records = std::move(out);
    return true;
}

} // namespace

bool read_record_file(const std::string &path, std::vector<Record> *records, std::string *error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    if (in.bad()) {
        *error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    return parse_records(text.str(), path, records, error);
}

ordered_json message_to_json(const ProtobufCMessage *msg, bool all_fields)
{
    ordered_json out = ordered_json::object();
    const ProtobufCMessageDescriptor *desc = msg->descriptor;
    for (unsigned i = 0; i < desc->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &desc->fields[i];
        const char *p = field_at(msg, f->offset);
        if (f->label == PROTOBUF_C_LABEL_REPEATED) {
            auto n = load<size_t>(field_at(msg, f->quantifier_offset));
            if (n == 0 && !all_fields) continue;
            ordered_json list = ordered_json::array();
            const char *elements = load<const char *>(p);
            for (size_t k = 0; k < n; ++k)
                list.push_back(value_json(f, elements + k * element_size(f->type)));
            out[f->name] = std::move(list);
            continue;
        }
        if ((f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0) {
            if (load<std::uint32_t>(field_at(msg, f->quantifier_offset)) != f->id) continue;
        } else if (f->label == PROTOBUF_C_LABEL_OPTIONAL && f->type != PROTOBUF_C_TYPE_STRING &&
                   f->type != PROTOBUF_C_TYPE_MESSAGE) {
            if (load<protobuf_c_boolean>(field_at(msg, f->quantifier_offset)) == 0) continue;
        } else if (!all_fields && at_default(f, p)) {
            continue;
        }
        out[f->name] = value_json(f, p);
    }
    return out;
}

ordered_json record_to_json(const ProtobufCMessage *record, int db, Form form)
{
    ordered_json entry = ordered_json::object();
    entry["record"] = record->descriptor->name;
    int default_db = -1;
    Form default_form = Form::Plain;
    if (!default_placement(record->descriptor, &default_db, &default_form) || db != default_db)
        entry["db"] = db;
    if (form != default_form) entry["form"] = form_name(form);
    ordered_json value = message_to_json(record);
    if (const ProtobufCFieldDescriptor *index = index_field(record->descriptor)) {
        const auto *key = load<const ProtobufCMessage *>(field_at(record, index->offset));
        entry["key"] = key != nullptr ? message_to_json(key, true) : ordered_json::object();
        value.erase("index");
    }
    entry["value"] = std::move(value);
    return entry;
}

MessagePtr key_from_words(const ProtobufCMessageDescriptor *record,
                          const std::vector<std::string> &words)
{
    const ProtobufCMessageDescriptor *key = key_descriptor(record);
    if (key == nullptr) {
        if (!words.empty())
            fail_at("", std::string(record->name) + " is a singleton: it takes no key values");
        return new_message(record);
    }
    if (words.size() != key->n_fields) {
        std::string names;
        for (unsigned i = 0; i < key->n_fields; ++i)
            names += std::string(i == 0 ? "" : " ") + key->fields[i].name;
        fail_at("", std::string(record->name) + " is keyed by " + names + ": give " +
                        std::to_string(key->n_fields) +
                        (key->n_fields == 1 ? " value" : " values"));
    }
    json object = json::object();
    for (unsigned i = 0; i < key->n_fields; ++i)
        object[key->fields[i].name] = word_json(words[i], &key->fields[i]);
    MessagePtr msg = new_message(key);
    fill_at(object, msg.get(), "");
    return msg;
}

std::string key_fields_text(const ProtobufCMessage *key)
{
    ordered_json fields = message_to_json(key, true);
    std::string text;
    const ProtobufCMessageDescriptor *desc = key->descriptor;
    for (unsigned i = 0; i < desc->n_fields; ++i) {
        const ordered_json &v = fields[desc->fields[i].name];
        text += std::string(i == 0 ? "" : " ") + desc->fields[i].name + "=" +
                (v.is_string() ? v.get<std::string>() : v.dump());
    }
    return text;
}

} // namespace pmx_tool
