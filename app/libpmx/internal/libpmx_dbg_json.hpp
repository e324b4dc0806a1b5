// Tables of the debug commands as JSON (internal): a command given json=1 prints its table as
// one object, {"table":"<name>","rows":[{...},...],"total":<rows>}, on the same debug output.
#ifndef LIBPMX_DBG_JSON_HPP
#define LIBPMX_DBG_JSON_HPP

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "libpmx_dbg_args.hpp"
#include "ssat.h"

namespace pmx
{

inline thread_local bool t_dump_json = false;

// True while the running debug command was asked for JSON.
inline bool dump_json()
{
    return t_dump_json;
}

// Sets the format for the scope of one debug command.
class JsonScope
{
public:
    explicit JsonScope(bool on) : saved_(t_dump_json) { t_dump_json = on; }
    ~JsonScope() { t_dump_json = saved_; }
    JsonScope(const JsonScope &) = delete;
    JsonScope &operator=(const JsonScope &) = delete;

private:
    bool saved_;
};

// One field of a row: a number, a phyid-like value as "0x%08x", or a fixed text.
struct JsonField {
    enum class Kind { Num, Hex, Text };
    const char *name;
    Kind kind;
    int64_t num;
    const char *text;
};

inline JsonField num(const char *name, int64_t v)
{
    return {name, JsonField::Kind::Num, v, nullptr};
}

inline JsonField hex(const char *name, uint32_t v)
{
    return {name, JsonField::Kind::Hex, v, nullptr};
}

inline JsonField text(const char *name, const char *v)
{
    return {name, JsonField::Kind::Text, 0, v};
}

// The rows of one table, opened by the constructor and closed (with the total) by end().
class JsonTable
{
public:
    explicit JsonTable(const char *name) { ssat_printf("{\"table\":\"%s\",\"rows\":[", name); }
    void row(std::initializer_list<JsonField> fields)
    {
        ssat_printf(rows_++ == 0 ? "{" : ",{");
        bool first = true;
        for (const JsonField &f : fields) {
            ssat_printf(first ? "\"%s\":" : ",\"%s\":", f.name);
            first = false;
            if (f.kind == JsonField::Kind::Num)
                ssat_printf("%" PRId64, f.num);
            else if (f.kind == JsonField::Kind::Hex)
                ssat_printf("\"0x%08" PRIx32 "\"", static_cast<uint32_t>(f.num));
            else
                print_string(f.text);
        }
        ssat_printf("}");
    }
    void end() { ssat_printf("],\"total\":%u}\n", rows_); }

private:
    // A JSON string: quotes, backslashes and control characters escaped.
    static void print_string(const char *s)
    {
        std::string out = "\"";
        for (const char *p = s != nullptr ? s : ""; *p != '\0'; ++p) {
            const auto c = static_cast<unsigned char>(*p);
            if (c == '"' || c == '\\') {
                out += '\\';
                out += static_cast<char>(c);
            } else if (c < 0x20) {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", c);
                out += esc;
            } else {
                out += static_cast<char>(c);
            }
        }
        out += '"';
        ssat_printf("%s", out.c_str());
    }
    uint32_t rows_ = 0;
};

// A debug command that prints one whole table and takes no argument but json=1 (when the table
// has a JSON form).
inline int dbg_table_cmd(const char *name, const char *args, void (*dump)(), bool json_form = true)
{
    DbgArgs a = json_form ? DbgArgs(args, {"json"}) : DbgArgs(args, {});
    if (!a.error().empty()) return dbg_usage(name, json_form ? "[json=1]" : "", a.error());
    JsonScope json(a.get("json", 0) != 0);
    dump();
    return 0;
}

} // namespace pmx

#endif // LIBPMX_DBG_JSON_HPP
