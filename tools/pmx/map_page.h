// The page of pmx map: map_page.html (embedded at build time) with the model's data inside.
#ifndef PMX_TOOL_MAP_PAGE_H
#define PMX_TOOL_MAP_PAGE_H

#include <nlohmann/json.hpp>

#include <string>

namespace pmx_tool
{

// The whole page: the template with the title (HTML-escaped) and the data (JSON, with "</"
// written "<\/" so that no text of it ends the script element holding it).
std::string render_map_page(const nlohmann::json &data);

} // namespace pmx_tool

#endif // PMX_TOOL_MAP_PAGE_H
