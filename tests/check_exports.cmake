cmake_minimum_required(VERSION 3.25)

# Fails unless the bridge exports exactly its 71 "Java_" natives
# and the two data objects, each with the symbol version "zav7" as its default version.
# Undefined imports and the version's own definition symbol are not exports.
#
#   cmake -DLIBRARY=<path of libzavkjni.so> -P check_exports.cmake

execute_process(COMMAND readelf --dyn-syms -W ${LIBRARY}
  RESULT_VARIABLE result OUTPUT_VARIABLE table ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "readelf failed: ${errors}")
endif()

string(REPLACE "\n" ";" rows "${table}")
set(bad "")
set(found "")
foreach(row IN LISTS rows)
  # "  12: 0000000000001234   42 FUNC    GLOBAL DEFAULT   12 name@@zav7"
  if(NOT row MATCHES "^ *[0-9]+: +[0-9a-f]+ +[0-9]+ +([A-Z_]+) +([A-Z_]+) +([A-Z_]+) +([A-Z0-9_]+) +(.*)$")
    continue()
  endif()
  set(type ${CMAKE_MATCH_1})
  set(bind ${CMAKE_MATCH_2})
  set(index ${CMAKE_MATCH_4})
  set(name ${CMAKE_MATCH_5})
  if(index STREQUAL "UND" OR bind STREQUAL "LOCAL")
    continue()
  endif()
  if(index STREQUAL "ABS" AND name MATCHES "^zav7(@@zav7)?$")
    continue()  # the definition of the version itself
  endif()
  if(type STREQUAL "FUNC" AND name MATCHES "^(Java_[A-Za-z0-9_]+)@@zav7$")
    list(APPEND found ${CMAKE_MATCH_1})
  elseif(type STREQUAL "OBJECT" AND name MATCHES "^(zavkjni_SCCSInfo|zavkjni_Copyright)@@zav7$")
    list(APPEND found ${CMAKE_MATCH_1})
  else()
    string(APPEND bad "  ${type} ${bind} ${name}\n")
  endif()
endforeach()

# The 71 natives of the six Java classes and the two data objects, each once.
list(REMOVE_DUPLICATES found)
list(LENGTH found count)
if(NOT count EQUAL 73 OR NOT "zavkjni_SCCSInfo" IN_LIST found OR NOT "zavkjni_Copyright" IN_LIST found)
  string(APPEND bad "  ${count} distinct exports instead of the 71 natives and the two data objects\n")
endif()

if(bad)
  message(FATAL_ERROR "${LIBRARY} exports what it should not, or lacks exports:\n${bad}")
endif()
message("${count} exports, all Java_ natives or the two data objects, all @@zav7")
