cmake_minimum_required(VERSION 3.25)

# Fails unless every symbol the bridge defines in its dynamic symbol table is a "Java_" native
# or one of the two data objects, each with the symbol version "zav7" as its default version.
# Undefined imports and the version's own definition symbol are not exports.
#
#   cmake -DLIBRARY=<path of libzavkjni.so> -P check_exports.cmake

execute_process(COMMAND readelf --dyn-syms -W ${LIBRARY}
  RESULT_VARIABLE result OUTPUT_VARIABLE table ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "readelf failed: ${errors}")
endif()

# Natives and data objects that must be there.
set(required
  Java_com_norvex_zav_tolvik_basic_KMSystem_c_1IsUSSharedLibraryLoaded
  Java_com_norvex_zav_tolvik_basic_KMSystem_c_1enableFIPSMode
  Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug
  Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInit
  Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll
  Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ShowLibInfo
  Java_com_norvex_zav_tolvik_basic_CMSKeyDatabaseException_c_1BuildErrCodeNameTable
  zavkjni_SCCSInfo
  zavkjni_Copyright)

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

foreach(symbol IN LISTS required)
  if(NOT symbol IN_LIST found)
    string(APPEND bad "  missing: ${symbol}@@zav7\n")
  endif()
endforeach()

if(bad)
  message(FATAL_ERROR "${LIBRARY} exports what it should not, or lacks exports:\n${bad}")
endif()
list(LENGTH found count)
message("${count} exports, all Java_ natives or the two data objects, all @@zav7")
