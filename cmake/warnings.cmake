# The warnings of hand-written code, all of them errors, and the sanitizers of a preset. Targets link
# trellis::strict for the former; the latter apply to everything.
add_library(trellis_strict INTERFACE)
add_library(trellis::strict ALIAS trellis_strict)
target_compile_options(trellis_strict INTERFACE -Wall -Wextra -Wconversion -Werror)

if(TRELLIS_SANITIZE)
  add_compile_options(-fsanitize=${TRELLIS_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TRELLIS_SANITIZE})
endif()
