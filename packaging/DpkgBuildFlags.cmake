# The flags Debian builds its packages with (hardening, source paths mapped to "."), so the tested
# binary is the packaged one. The sanitizer preset turns them off: fortify and ASan do not mix.
if(NOT VELNORA_DPKG_BUILDFLAGS)
  return()
endif()
find_program(DPKG_BUILDFLAGS dpkg-buildflags)
if(NOT DPKG_BUILDFLAGS)
  message(WARNING "dpkg-buildflags not found (dpkg-dev): building without the hardening flags")
  return()
endif()
foreach(kind CPPFLAGS CXXFLAGS LDFLAGS)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=hardening=+all ${DPKG_BUILDFLAGS} --get ${kind}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE dpkg_${kind} OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endforeach()
# The build folder's name is mapped too (GCC tries the last map first): generated sources and
# debug info then read the same from any build folder, and so does the build ID that hashes them.
string(APPEND CMAKE_CXX_FLAGS " ${dpkg_CPPFLAGS} ${dpkg_CXXFLAGS} -ffile-prefix-map=${PROJECT_BINARY_DIR}=.")
string(APPEND CMAKE_EXE_LINKER_FLAGS " ${dpkg_LDFLAGS}")
string(APPEND CMAKE_SHARED_LINKER_FLAGS " ${dpkg_LDFLAGS}")
string(APPEND CMAKE_MODULE_LINKER_FLAGS " ${dpkg_LDFLAGS}")
