# The decimal arithmetic (target `decnumber`): an installed decNumber where the system has one, otherwise the three
# files that are needed out of the source tarball that Debian's package gdb-source installs.
set(KELPD_GDB_TARBALL "" CACHE FILEPATH "gdb source tarball that holds libdecnumber (found by itself when empty)")

find_path(DECNUMBER_INCLUDE_DIR NAMES decDouble.h PATH_SUFFIXES decNumber decnumber libdecnumber)
find_library(DECNUMBER_LIBRARY NAMES decNumber decnumber)
if(DECNUMBER_INCLUDE_DIR AND DECNUMBER_LIBRARY)
  message(STATUS "decNumber: ${DECNUMBER_LIBRARY}")
  add_library(decnumber INTERFACE)
  target_include_directories(decnumber SYSTEM INTERFACE $<BUILD_INTERFACE:${DECNUMBER_INCLUDE_DIR}>)
  target_link_libraries(decnumber INTERFACE ${DECNUMBER_LIBRARY})
  set(KELPD_DECNUMBER_OBJECTS "")
  set(KELPD_DECNUMBER_LIBS "${DECNUMBER_LIBRARY}")
else()
  set(tarball ${KELPD_GDB_TARBALL})
  if(NOT tarball)
    file(GLOB tarball /usr/src/gdb.tar.*)
    if(tarball)
      list(GET tarball 0 tarball)
    endif()
  endif()
  if(NOT tarball OR NOT EXISTS "${tarball}")
    message(FATAL_ERROR "decNumber is missing: install Debian's package gdb-source (scripts/setup does), "
                        "or set KELPD_GDB_TARBALL to a gdb source tarball")
  endif()
  set(dec_root ${CMAKE_CURRENT_BINARY_DIR}/decnumber)
  set(dec_src ${dec_root}/gdb/libdecnumber)
  if(NOT EXISTS ${dec_src}/decQuad.c)
    message(STATUS "decNumber: unpacking libdecnumber from ${tarball}")
    file(ARCHIVE_EXTRACT INPUT ${tarball} DESTINATION ${dec_root} PATTERNS "gdb/libdecnumber/*")
  endif()
  # What its configure script would have made; the formats are little-endian and the integer types standard.
  file(CONFIGURE OUTPUT ${dec_root}/gen/config.h CONTENT "#define HAVE_STDINT_H 1\n#define HAVE_STRING_H 1\n")
  file(CONFIGURE OUTPUT ${dec_root}/gen/gstdint.h CONTENT "#include <stdint.h>\n")
  add_library(decnumber OBJECT ${dec_src}/decContext.c ${dec_src}/decDouble.c ${dec_src}/decQuad.c)
  target_include_directories(decnumber SYSTEM PUBLIC
    $<BUILD_INTERFACE:${dec_src}> $<BUILD_INTERFACE:${dec_src}/dpd> $<BUILD_INTERFACE:${dec_root}/gen>)
  # Its version 3.61 reads a buffer after the block that declared it (decFinalize, a number padded with zeros down from
  # an exponent that is too large), so the compiler must not give the buffer's place to another variable.
  target_compile_options(decnumber PRIVATE -w -ffunction-sections -fdata-sections
    $<$<C_COMPILER_ID:GNU>:-fstack-reuse=none> $<$<C_COMPILER_ID:Clang>:-Xclang;-disable-lifetime-markers>)
  if(KELPD_SANITIZE)
    # Not this project's code: its alignment habits and shifts are its own business.
    target_compile_options(decnumber PRIVATE -fno-sanitize=undefined,alignment -fno-sanitize-address-use-after-scope)
  endif()
  set(KELPD_DECNUMBER_OBJECTS $<TARGET_OBJECTS:decnumber>)
  set(KELPD_DECNUMBER_LIBS "")
endif()
