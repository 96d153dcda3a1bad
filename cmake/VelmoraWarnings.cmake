# Compiler settings every target of the project shares.
function(velmora_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(VELMORA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
    # GCC's flow analysis under the sanitizers' instrumentation reports std::regex's own
    # members as maybe uninitialized; that one warning stays a warning there.
    if(VELMORA_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${target} PRIVATE -Wno-error=maybe-uninitialized)
    endif()
  endif()
endfunction()

# Sanitizers apply to everything built here, libraries and tests alike.
if(VELMORA_SANITIZE)
  add_compile_options(-fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELMORA_SANITIZE})
endif()
