#include "map_page.h"

namespace pmx_tool
{
namespace
{

// map_page.html as one string literal, made by map_embed.cmake.
constexpr char kTemplate[] =
#include "map_page.html.inc"
    ;

void replace_once(std::string *text, const std::string &mark, const std::string &with)
{
    const size_t at = text->find(mark);
    if (at != std::string::npos) text->replace(at, mark.size(), with);
}

std::string html_escape(const std::string &s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

} // namespace

std::string render_map_page(const nlohmann::json &data)
{
    std::string json = data.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    for (size_t at = 0; (at = json.find("</", at)) != std::string::npos; at += 3) json.replace(at, 2, "<\\/");
    std::string page = kTemplate;
    replace_once(&page, "@TITLE@", html_escape(data.value("title", std::string())));
    replace_once(&page, "@DATA@", json);
    return page;
}

} // namespace pmx_tool
