# install.cmake - what `cmake --install` puts where, in three components, and the Debian packages
# CPack makes of them:
#   lib   -> libzav7km-gcc295: both libraries in lib/<multiarch>/, the docs in share/doc/
#   java  -> libtolvik-java:   the binding in share/java/tolvik.jar
#   tools -> tolvik:           bin/tolvik, its manual page, shell completions, manual and JSON
#                              schema
# Libraries go to lib/<multiarch> under any prefix, so that an i386 and an amd64 tree can sit side
# by side. The bridge finds the library beside it ($ORIGIN), tolvik finds it from bin/.
include(GNUInstallDirs)
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(ZAV_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
else()
  set(ZAV_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR})
endif()
set(ZAV_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc)

install(TARGETS zav7km zavkjni LIBRARY DESTINATION ${ZAV_INSTALL_LIBDIR} COMPONENT lib)
install(FILES README.md docs/key-management-library.md docs/return-codes.md
        DESTINATION ${ZAV_DOC_DIR}/libzav7km-gcc295 COMPONENT lib)
install_jar(tolvik_jar DESTINATION ${CMAKE_INSTALL_DATADIR}/java COMPONENT java)
set_target_properties(tolvik PROPERTIES INSTALL_RPATH "\$ORIGIN/../${ZAV_INSTALL_LIBDIR}")
install(TARGETS tolvik RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES docs/tolvik.md docs/tolvik.schema.json DESTINATION ${ZAV_DOC_DIR}/tolvik COMPONENT tools)
# The manual page and completions tolvik printed from its command definitions (cli/CMakeLists.txt),
# where man, bash-completion, zsh and fish look for them.
install(FILES ${ZAV_CLI_MAN_GZ} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
list(GET ZAV_CLI_COMPLETIONS 0 ZAV_CLI_BASH)
list(GET ZAV_CLI_COMPLETIONS 1 ZAV_CLI_ZSH)
list(GET ZAV_CLI_COMPLETIONS 2 ZAV_CLI_FISH)
install(FILES ${ZAV_CLI_BASH} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
install(FILES ${ZAV_CLI_ZSH} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
install(FILES ${ZAV_CLI_FISH} DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)

# Each package's doc directory holds its copyright file and a compressed changelog.
set(ZAV_CHANGELOG_GZ ${CMAKE_BINARY_DIR}/debian/changelog.gz)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/debian)
execute_process(COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/changelog
                OUTPUT_FILE ${ZAV_CHANGELOG_GZ})
foreach(pair lib:libzav7km-gcc295 java:libtolvik-java tools:tolvik)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES cmake/debian/copyright ${ZAV_CHANGELOG_GZ}
          DESTINATION ${ZAV_DOC_DIR}/${package} COMPONENT ${component})
endforeach()

# Debian packages: `cpack --config build/CPackConfig.cmake -B build/packages`.
execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE ZAV_DEB_ARCH
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(CMAKE_LIBRARY_ARCHITECTURE MATCHES "^i386")
  set(ZAV_DEB_ARCH i386)
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tolvik)
set(CPACK_PACKAGE_VENDOR Norvex)
set(CPACK_PACKAGE_CONTACT "Tolvik developers <tolvik@norvex.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "key management for Java and the shell")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib java tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ZAV_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${ZAV_LIB_DIR})
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libzav7km-gcc295)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
# p11-kit is opened with dlopen, so the shared-library scan does not see it.
set(CPACK_DEBIAN_LIB_PACKAGE_DEPENDS "libp11-kit0")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_LIB_DESCRIPTION "key-management library and its JNI bridge
 libzav7km_gcc295.so keeps keys and certificates in key database files
 and on PKCS#11 tokens; libzavkjni.so is the bridge the Java binding loads.")
set(CPACK_DEBIAN_JAVA_PACKAGE_NAME libtolvik-java)
set(CPACK_DEBIAN_JAVA_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_JAVA_PACKAGE_SECTION java)
set(CPACK_DEBIAN_JAVA_PACKAGE_DEPENDS "libzav7km-gcc295 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_JAVA_DESCRIPTION "Java binding of the tolvik key-management library
 The classes of com.norvex.zav.tolvik.basic and a demo program, in tolvik.jar.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tolvik)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libzav7km-gcc295 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "command-line key management
 tolvik manages key databases, certificates, requests, PKCS#12 files
 and PKCS#11 tokens from the shell.")
include(CPack)
