# The layer demo at a small size: status 0, the passing verdict, and a trace
# of valid JSON holding one complete event per launch that the demo counted;
# then command lines that it must refuse with status 2, running nothing.
#
#   cmake -DDEMO=<layer_demo> -DWORK_DIR=<scratch directory> -P layer_demo_test.cmake
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

set(trace ${WORK_DIR}/trace.json)
execute_process(COMMAND ${DEMO} --tokens 3,17 --decode-steps 2 --seed 7 --trace ${trace}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the demo exited with ${rc}:\n${out}\n${err}")
endif()
if(NOT out MATCHES "\nverdict: PASS: [0-9]+ operator calls, ([0-9]+) launches")
  message(FATAL_ERROR "no passing verdict:\n${out}")
endif()
set(verdict_launches ${CMAKE_MATCH_1})
if(NOT out MATCHES "\ndevice launches: ([0-9]+)\n")
  message(FATAL_ERROR "no launch count:\n${out}")
endif()
set(launches ${CMAKE_MATCH_1})
if(launches LESS 1 OR NOT launches EQUAL verdict_launches)
  message(FATAL_ERROR "launch counts ${launches} and ${verdict_launches} in:\n${out}")
endif()
if(NOT out MATCHES "runs synchronously")
  message(FATAL_ERROR "a traced run must time each launch on its own:\n${out}")
endif()

file(READ ${trace} json)
string(JSON events ERROR_VARIABLE json_error LENGTH "${json}" traceEvents)
if(json_error)
  message(FATAL_ERROR "the trace is not the expected JSON: ${json_error}")
endif()
if(NOT events EQUAL launches)
  message(FATAL_ERROR "${events} trace events for ${launches} launches")
endif()
math(EXPR last "${events} - 1")
foreach(i RANGE ${last})
  foreach(field name ph ts dur)
    string(JSON ${field} GET "${json}" traceEvents ${i} ${field})
  endforeach()
  string(JSON grid GET "${json}" traceEvents ${i} args grid)
  string(JSON op GET "${json}" traceEvents ${i} args operator)
  if(NOT ph STREQUAL "X" OR NOT name MATCHES "^tsu3::" OR NOT ts MATCHES "^[0-9]+(\\.[0-9]+)?$"
     OR NOT dur MATCHES "^[0-9]+(\\.[0-9]+)?$" OR NOT grid MATCHES "^[1-9][0-9]*x[1-9][0-9]*$"
     OR NOT out MATCHES "\n[a-z]+ +${op} ")
    message(FATAL_ERROR "event ${i} is not a launch of a listed operator: ${name} ${ph} ${ts} ${dur} ${grid} ${op}")
  endif()
endforeach()

# Each refused command line names a trace file that must not appear.
set(refused
  "--bogus"
  "--tokens 0"
  "--tokens 3,,4"
  "--tokens 3,x"
  "--tokens 2049"
  "--decode-steps 257"
  "--decode-steps -1"
  "--seed"
  "--threads 0")
foreach(line IN LISTS refused)
  separate_arguments(args UNIX_COMMAND "${line}")
  set(unwritten ${WORK_DIR}/refused.json)
  execute_process(COMMAND ${DEMO} --trace ${unwritten} ${args}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 2 OR NOT err MATCHES "usage: layer_demo" OR out MATCHES "verdict" OR EXISTS ${unwritten})
    message(FATAL_ERROR "'${line}' gave status ${rc}:\n${out}\n${err}")
  endif()
endforeach()
