# Compiler settings of the fuzz build (VELMORA_FUZZ): libFuzzer with AddressSanitizer and
# UndefinedBehaviorSanitizer, under clang. Any sanitizer report ends the run as a crash.
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "VELMORA_FUZZ needs clang: configure with -DCMAKE_CXX_COMPILER=clang++")
endif()

set(VELMORA_FUZZ_SANITIZERS address,undefined)
set(VELMORA_FUZZ_COMPILE_OPTIONS -fno-omit-frame-pointer -fno-sanitize-recover=all)

# A library under fuzzing: coverage instrumentation for the fuzzer without its main, and the
# sanitizers, whose runtime the fuzz executable brings.
function(velmora_fuzz_instrument target)
  target_compile_options(${target} PRIVATE
    -fsanitize=fuzzer-no-link,${VELMORA_FUZZ_SANITIZERS} ${VELMORA_FUZZ_COMPILE_OPTIONS})
  target_link_options(${target} PRIVATE -fsanitize=${VELMORA_FUZZ_SANITIZERS})
endfunction()

# One fuzz target: a source file with LLVMFuzzerTestOneInput, linked with libFuzzer's main.
function(velmora_fuzz_target target source)
  add_executable(${target} ${source})
  target_compile_options(${target} PRIVATE
    -fsanitize=fuzzer,${VELMORA_FUZZ_SANITIZERS} ${VELMORA_FUZZ_COMPILE_OPTIONS})
  target_link_options(${target} PRIVATE -fsanitize=fuzzer,${VELMORA_FUZZ_SANITIZERS})
  velmora_target_defaults(${target})
endfunction()
