# Installs the build tree into a fresh prefix under WORK_DIR, then configures,
# builds and runs the consumer project against it. Any failing step fails.
#   BUILD_DIR      the library's build tree
#   CONSUMER_DIR   this directory
#   WORK_DIR       scratch space, emptied first
#   CONSUMER_CXX_COMPILER, CONSUMER_BUILD_TYPE, CONSUMER_CXX_FLAGS,
#   CONSUMER_LINK_FLAGS (optional) the toolchain settings of the library's build
foreach(var BUILD_DIR CONSUMER_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "run.cmake needs -D${var}=...")
  endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
set(build ${WORK_DIR}/build)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(step name)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install consumer: ${name} failed (${rc})\n${out}\n${err}")
  endif()
  message(STATUS "${name}: ok")
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

step(install ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(configure_args -S ${CONSUMER_DIR} -B ${build} -DCMAKE_PREFIX_PATH=${prefix})
if(CONSUMER_CXX_COMPILER)
  list(APPEND configure_args -DCMAKE_CXX_COMPILER=${CONSUMER_CXX_COMPILER})
endif()
if(CONSUMER_BUILD_TYPE)
  list(APPEND configure_args -DCMAKE_BUILD_TYPE=${CONSUMER_BUILD_TYPE})
endif()
if(CONSUMER_CXX_FLAGS)
  list(APPEND configure_args "-DCMAKE_CXX_FLAGS=${CONSUMER_CXX_FLAGS}")
endif()
if(CONSUMER_LINK_FLAGS)
  list(APPEND configure_args "-DCMAKE_EXE_LINKER_FLAGS=${CONSUMER_LINK_FLAGS}")
endif()
step(configure ${CMAKE_COMMAND} ${configure_args})
step(build ${CMAKE_COMMAND} --build ${build})

# The program must come from the fresh build and find the installed libraries.
if(NOT EXISTS ${build}/consumer)
  message(FATAL_ERROR "install consumer: no program was built")
endif()
step(run ${build}/consumer)
message(STATUS "${step_output}")
if(NOT step_output MATCHES "elements filled on the device")
  message(FATAL_ERROR "install consumer: unexpected output\n${step_output}")
endif()
