// Arguments of a debug command (internal): blank-separated name=value words, values in decimal
// or with 0x in hex, each name at most once and only the names the command knows.
#ifndef LIBPMX_DBG_ARGS_HPP
#define LIBPMX_DBG_ARGS_HPP

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "libpmx_errno.h"
#include "ssat.h"

namespace pmx
{

class DbgArgs
{
public:
    DbgArgs(const char *args, std::initializer_list<std::string_view> known)
    {
        std::string_view rest = args != nullptr ? args : "";
        while (error_.empty()) {
            const size_t start = rest.find_first_not_of(" \t");
            if (start == std::string_view::npos) break;
            rest.remove_prefix(start);
            const std::string_view word = rest.substr(0, rest.find_first_of(" \t"));
            rest.remove_prefix(word.size());
            parse(word, known);
        }
    }

    // Empty when every word was understood, else what was wrong (with the word).
    const std::string &error() const { return error_; }

    // Whether name was given.
    bool has(std::string_view name) const
    {
        for (const auto &[n, v] : values_)
            if (n == name) return true;
        return false;
    }

    // The value of name, or fallback when it was not given.
    int64_t get(std::string_view name, int64_t fallback) const
    {
        for (const auto &[n, v] : values_)
            if (n == name) return v;
        return fallback;
    }

private:
    void parse(std::string_view word, std::initializer_list<std::string_view> known)
    {
        const size_t eq = word.find('=');
        const std::string_view name = word.substr(0, eq);
        bool is_known = false;
        for (std::string_view k : known) is_known = is_known || k == name;
        if (eq == std::string_view::npos || !is_known) {
            error_ = "unknown argument '" + std::string(word) + "'";
            return;
        }
        for (const auto &nv : values_)
            if (nv.first == name) {
                error_ = "argument '" + std::string(name) + "' given twice";
                return;
            }
        const std::string text(word.substr(eq + 1));
        char *end = nullptr;
        errno = 0;
        const long long v = std::strtoll(text.c_str(), &end, 0);
        if (text.empty() || *end != '\0' || errno != 0 || v < INT32_MIN || v > UINT32_MAX) {
            error_ = "bad value '" + text + "' of " + std::string(name);
            return;
        }
        values_.emplace_back(std::string(name), v);
    }

    std::vector<std::pair<std::string, int64_t>> values_;
    std::string error_;
};

// A command's refused arguments: prints what was wrong and its usage line; the result is -4.
inline int dbg_usage(const char *cmd, const char *form, const std::string &why)
{
    ssat_printf("%s: %s\nusage: %s %s\n", cmd, why.c_str(), cmd, form);
    return LIBPMX_E_INVAL;
}

} // namespace pmx

#endif // LIBPMX_DBG_ARGS_HPP
