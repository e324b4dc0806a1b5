# Compile settings shared by every target of the project.

if(PMX_SANITIZE)
  add_compile_options(-fsanitize=${PMX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${PMX_SANITIZE})
endif()

# Warnings as errors for the project's own code; generated code is compiled without them.
function(pmx_strict_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Werror -Wshadow -Wformat=2 -Wcast-align -Wpointer-arith
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast>)
endfunction()
