cmake_minimum_required(VERSION 3.25)

# Runs a test program that starts a Java virtual machine, shows its whole output, and fails when
# the program fails or when the JVM reported any JNI error or warning, apart from exactly two
# advisories that our natives cause by design: the one after a Java callback whose exceptions
# are not checked, and the one about more than 32 local references live in one native.
#
#   cmake -DPROGRAM=<path> [-DARGS=<;-list>] -P run_jvm_test.cmake

if(NOT PROGRAM)
  message(FATAL_ERROR "run_jvm_test.cmake: PROGRAM is not set")
endif()

execute_process(
  COMMAND ${PROGRAM} ${ARGS}
  RESULT_VARIABLE result
  OUTPUT_VARIABLE output
  ERROR_VARIABLE output)
message("${output}")

# The JVM's JNI diagnostics: "WARNING in native method: ...", "FATAL ERROR in native method:
# ...", "WARNING: JNI local refs: ...", "Warning: Calling other JNI functions ...".
set(diagnostic_pattern
  "(WARNING in native method:|FATAL ERROR in native method:|WARNING: JNI|Warning: [^\n]*JNI)[^\n]*")
set(allowed_patterns
  "^WARNING in native method: JNI call made without checking exceptions when required to from [A-Za-z]+$"
  "^WARNING: JNI local refs: [0-9]+, exceeds capacity: [0-9]+$")

string(REGEX MATCHALL "${diagnostic_pattern}" diagnostics "${output}")
set(bad "")
foreach(line IN LISTS diagnostics)
  set(ok FALSE)
  foreach(pattern IN LISTS allowed_patterns)
    if(line MATCHES "${pattern}")
      set(ok TRUE)
    endif()
  endforeach()
  if(NOT ok)
    string(APPEND bad "  ${line}\n")
  endif()
endforeach()

if(bad)
  message(FATAL_ERROR "JNI errors or warnings in the JVM's output:\n${bad}")
endif()
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} failed: ${result}")
endif()
