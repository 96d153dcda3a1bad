# cmake -P script: install, configure the consumer against the install, build, run.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(header Velmora.h Peltrix.h VelmoraPlatform.h)
  if(NOT EXISTS ${prefix}/include/${header})
    message(FATAL_ERROR "the install has no include/${header}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(MAKE_DIRECTORY ${WORK_DIR}/logs)
run(${CMAKE_COMMAND} -E env PELTRIX_LOG_FOLDER=${WORK_DIR}/logs ${WORK_DIR}/build/consumer)
if(NOT last_output MATCHES "consumer: \\[Debug\\] OMS_PEG")
  message(FATAL_ERROR "unexpected output of the consumer: ${last_output}")
endif()
message(STATUS "${last_output}")
