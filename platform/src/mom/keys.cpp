// Key text: integers in decimal, bools 0/1, enums by number, strings percent-encoded ('|', '%'
// and non-printable bytes as %XX), bytes in hex.
#include "keys.h"

#include "qv_mom.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qv::mom {
namespace {

constexpr char kHex[] = "0123456789abcdef";
constexpr char kHexUpper[] = "0123456789ABCDEF";

const char *field_at(const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f)
{
    return reinterpret_cast<const char *>(msg) + f->offset;
}

char *field_at(ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f)
{
    return reinterpret_cast<char *>(msg) + f->offset;
}

template <typename T> T load(const char *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T> void store(char *p, T v) { std::memcpy(p, &v, sizeof v); }

bool field_ok(const ProtobufCFieldDescriptor *f)
{
    if (f->label == PROTOBUF_C_LABEL_REPEATED || (f->flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0) return false;
    switch (f->type) {
    case PROTOBUF_C_TYPE_MESSAGE:
    case PROTOBUF_C_TYPE_FLOAT:
    case PROTOBUF_C_TYPE_DOUBLE:
        return false;
    default:
        return true;
    }
}

void append_string(std::string *out, const char *s)
{
    for (; *s != '\0'; ++s) {
        auto c = static_cast<unsigned char>(*s);
        if (c == '|' || c == '%' || c < 0x20 || c >= 0x7f) {
            *out += '%';
            *out += kHexUpper[c >> 4];
            *out += kHexUpper[c & 15];
        } else {
            *out += static_cast<char>(c);
        }
    }
}

void append_value(std::string *out, const ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f)
{
    const char *p = field_at(msg, f);
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_ENUM:
        *out += std::to_string(load<int32_t>(p));
        break;
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        *out += std::to_string(load<uint32_t>(p));
        break;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        *out += std::to_string(load<int64_t>(p));
        break;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        *out += std::to_string(load<uint64_t>(p));
        break;
    case PROTOBUF_C_TYPE_BOOL:
        *out += load<protobuf_c_boolean>(p) ? '1' : '0';
        break;
    case PROTOBUF_C_TYPE_STRING: {
        const char *s = load<const char *>(p);
        if (s != nullptr) append_string(out, s);
        break;
    }
    case PROTOBUF_C_TYPE_BYTES: {
        auto b = load<ProtobufCBinaryData>(p);
        for (size_t i = 0; i < b.len; ++i) {
            *out += kHex[b.data[i] >> 4];
            *out += kHex[b.data[i] & 15];
        }
        break;
    }
    default:
        break;
    }
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

template <typename T> bool parse_int(const std::string &s, char *p)
{
    T v{};
    const char *end = s.data() + s.size();
    auto r = std::from_chars(s.data(), end, v);
    if (s.empty() || r.ec != std::errc() || r.ptr != end) return false;
    store<T>(p, v);
    return true;
}

bool parse_string(const std::string &s, char *p)
{
    std::string text;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '%') {
            text += s[i];
            continue;
        }
        if (i + 2 >= s.size()) return false;
        int hi = hex_digit(s[i + 1]);
        int lo = hex_digit(s[i + 2]);
        if (hi < 0 || lo < 0) return false;
        text += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    auto *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy == nullptr) return false;
    std::memcpy(copy, text.c_str(), text.size() + 1);
    store<char *>(p, copy);
    return true;
}

bool parse_bytes(const std::string &s, char *p)
{
    if (s.size() % 2 != 0) return false;
    ProtobufCBinaryData b{s.size() / 2, nullptr};
    if (b.len > 0) {
        b.data = static_cast<uint8_t *>(std::malloc(b.len));
        if (b.data == nullptr) return false;
        for (size_t i = 0; i < b.len; ++i) {
            int hi = hex_digit(s[2 * i]);
            int lo = hex_digit(s[2 * i + 1]);
            if (hi < 0 || lo < 0) {
                std::free(b.data);
                return false;
            }
            b.data[i] = static_cast<uint8_t>(hi * 16 + lo);
        }
    }
    store(p, b);
    return true;
}

bool parse_value(const std::string &s, ProtobufCMessage *msg, const ProtobufCFieldDescriptor *f)
{
    char *p = field_at(msg, f);
    switch (f->type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_ENUM:
        return parse_int<int32_t>(s, p);
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
        return parse_int<uint32_t>(s, p);
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
        return parse_int<int64_t>(s, p);
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
        return parse_int<uint64_t>(s, p);
    case PROTOBUF_C_TYPE_BOOL:
        if (s != "0" && s != "1") return false;
        store<protobuf_c_boolean>(p, s == "1");
        return true;
    case PROTOBUF_C_TYPE_STRING:
        return parse_string(s, p);
    case PROTOBUF_C_TYPE_BYTES:
        return parse_bytes(s, p);
    default:
        return false;
    }
}

} // namespace

bool key_kind_ok(const ProtobufCMessageDescriptor *key)
{
    if (key == nullptr) return false;
    for (unsigned i = 0; i < key->n_fields; ++i)
        if (!field_ok(&key->fields[i])) return false;
    return true;
}

int make_key_text(const ProtobufCMessage *key, const ProtobufCMessageDescriptor *record, std::string *out)
{
    if (key == nullptr || key->descriptor == nullptr || record == nullptr) return QV_MOM_E_INVAL;
    *out = record->name;
    if (key->descriptor == record) return QV_MOM_OK;
    if (!key_kind_ok(key->descriptor)) return QV_MOM_E_INVAL;
    for (unsigned i = 0; i < key->descriptor->n_fields; ++i) {
        *out += '|';
        append_value(out, key, &key->descriptor->fields[i]);
    }
    return QV_MOM_OK;
}

std::string key_kind(const std::string &key_text) { return key_text.substr(0, key_text.find('|')); }

ProtobufCMessage *parse_key_text(const std::string &key_text, const ProtobufCMessageDescriptor *key)
{
    if (!key_kind_ok(key)) return nullptr;
    std::vector<std::string> parts;
    size_t pos = key_text.find('|');
    while (pos != std::string::npos) {
        size_t next = key_text.find('|', pos + 1);
        parts.push_back(key_text.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos - 1));
        pos = next;
    }
    if (parts.size() != key->n_fields) return nullptr;

    auto *msg = static_cast<ProtobufCMessage *>(std::malloc(key->sizeof_message));
    if (msg == nullptr) return nullptr;
    key->message_init(msg);
    for (unsigned i = 0; i < key->n_fields; ++i) {
        const ProtobufCFieldDescriptor *f = &key->fields[i];
        if (!parse_value(parts[i], msg, f)) {
            protobuf_c_message_free_unpacked(msg, nullptr);
            return nullptr;
        }
        if (f->label == PROTOBUF_C_LABEL_OPTIONAL && f->quantifier_offset != 0)
            store<protobuf_c_boolean>(reinterpret_cast<char *>(msg) + f->quantifier_offset, 1);
    }
    return msg;
}

} // namespace qv::mom
