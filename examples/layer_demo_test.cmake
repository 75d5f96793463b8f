# The layer demo at a small size: status 0, the passing verdict, a trace of
# valid JSON holding one complete event per launch that the demo counted, and
# the same tokens on one thread; its own checks caught out by injected faults;
# and command lines that it must refuse with status 2, running nothing.
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
if(NOT out MATCHES "\nverdict: PASS: ([0-9]+) operator calls, ([0-9]+) launches")
  message(FATAL_ERROR "no passing verdict:\n${out}")
endif()
set(calls ${CMAKE_MATCH_1})
set(verdict_launches ${CMAKE_MATCH_2})
if(NOT out MATCHES "\ndevice launches: ([0-9]+)\n")
  message(FATAL_ERROR "no launch count:\n${out}")
endif()
set(launches ${CMAKE_MATCH_1})
# Every operator of the layer launches at least one kernel per call.
if(launches LESS calls OR NOT launches EQUAL verdict_launches)
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

# The same run on one thread draws the same tokens: nothing the demo or the
# library computes depends on how the work is split.
string(REGEX MATCH "\nsampled tokens[^\n]*\n(  sequence [^\n]*\n)+" tokens "${out}")
execute_process(COMMAND ${DEMO} --tokens 3,17 --decode-steps 2 --seed 7 --threads 1
  RESULT_VARIABLE rc OUTPUT_VARIABLE one ERROR_VARIABLE err)
string(REGEX MATCH "\nsampled tokens[^\n]*\n(  sequence [^\n]*\n)+" one_tokens "${one}")
if(NOT rc EQUAL 0 OR tokens STREQUAL "" OR NOT tokens STREQUAL one_tokens)
  message(FATAL_ERROR "one thread (status ${rc}) drew${one_tokens}where two drew${tokens}")
endif()

# The demo's own checks, through LAYER_DEMO_FAULT: a flipped bit where the
# documentation allows none fails the run and names the element; one ulp
# where swiglu's documentation allows it passes and says so; a failed launch
# stops the run.
function(expect_fault fault want_rc want)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LAYER_DEMO_FAULT=${fault} ${DEMO} --tokens 3,17 --decode-steps 1
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL want_rc OR NOT out MATCHES "${want}")
    message(FATAL_ERROR "LAYER_DEMO_FAULT=${fault} gave status ${rc}:\n${out}\n${err}")
  endif()
endfunction()
expect_fault(rms_layer_norm:flip 1
  "\nMISMATCH rms_layer_norm \\(prefill, call 1\\): h differs in 1 of 20480 elements \\(largest 1 ulp\\); first at 0: .*\nverdict: FAIL: 1 of 18 operator calls")
expect_fault(swiglu:flip 0
  "\nprefill +swiglu +1 +1 [^\n]* within 1 ulp \\(allowed\\)\n.*\nverdict: PASS: [^\n]* within what")
expect_fault(moe_ffn_pre_sorted:launch 1
  "\nverdict: FAIL: moe_ffn_pre_sorted \\(prefill\\) returned status 2 on the device")

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
