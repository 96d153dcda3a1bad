# Compiler settings every target of the project shares.
function(velmora_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(VELMORA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Sanitizers apply to everything built here, libraries and tests alike.
if(VELMORA_SANITIZE)
  add_compile_options(-fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELMORA_SANITIZE})
endif()
