# Writes the page template IN as a C++ raw string literal into OUT (included by map_page.cpp).
file(READ "${IN}" content)
file(WRITE "${OUT}" "// Made from map_page.html by map_embed.cmake.\nR\"PMXPAGE(${content})PMXPAGE\"\n")
