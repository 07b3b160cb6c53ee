# The libraries of the Windows build, as the targets the Linux build gets from pkg-config and
# find_package: qpdf (with libjpeg and zlib), FreeType and HarfBuzz as static libraries from
# QF_WINDOWS_DEPS (scripts/setup-windows.sh builds them from Debian's source packages) and
# the MinGW sysroot; Boost, nlohmann-json and valijson, which are headers only, from the
# build machine's Debian packages, through a folder that holds only them.
if(NOT QF_WINDOWS_DEPS OR NOT EXISTS "${QF_WINDOWS_DEPS}/lib/libqpdf.a")
  message(FATAL_ERROR "QF_WINDOWS_DEPS must name the prefix that scripts/setup-windows.sh "
                      "fills (build-windows/deps/prefix)")
endif()

function(qf_static_target target)
  cmake_parse_arguments(ARG "" "" "INCLUDES;LIBRARIES;SYSTEM_LIBRARIES" ${ARGN})
  set(paths)
  foreach(name IN LISTS ARG_LIBRARIES)
    find_library(QF_LIB_${name} NAMES lib${name}.a REQUIRED)
    list(APPEND paths ${QF_LIB_${name}})
  endforeach()
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} SYSTEM INTERFACE ${ARG_INCLUDES})
  target_link_libraries(${target} INTERFACE ${paths} ${ARG_SYSTEM_LIBRARIES})
endfunction()

qf_static_target(PkgConfig::QPDF
  INCLUDES ${QF_WINDOWS_DEPS}/include
  LIBRARIES qpdf jpeg z
  SYSTEM_LIBRARIES advapi32)
qf_static_target(PkgConfig::FREETYPE
  INCLUDES ${QF_WINDOWS_DEPS}/include/freetype2
  LIBRARIES freetype)
qf_static_target(PkgConfig::HARFBUZZ
  INCLUDES ${QF_WINDOWS_DEPS}/include/harfbuzz
  LIBRARIES harfbuzz-subset harfbuzz)

# Debian's headers of the header-only libraries, without the rest of /usr/include.
set(QF_HEADERS_ONLY ${CMAKE_BINARY_DIR}/headers-only)
foreach(dir boost nlohmann valijson)
  if(NOT EXISTS /usr/include/${dir})
    message(FATAL_ERROR "/usr/include/${dir} is missing: run scripts/setup-windows.sh")
  endif()
  file(MAKE_DIRECTORY ${QF_HEADERS_ONLY})
  file(CREATE_LINK /usr/include/${dir} ${QF_HEADERS_ONLY}/${dir} SYMBOLIC)
endforeach()
add_library(Boost::headers INTERFACE IMPORTED GLOBAL)
target_include_directories(Boost::headers SYSTEM INTERFACE ${QF_HEADERS_ONLY})
# Boost.Asio's sockets are Winsock's.
target_link_libraries(Boost::headers INTERFACE ws2_32 mswsock)
add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED GLOBAL)
target_include_directories(nlohmann_json::nlohmann_json SYSTEM INTERFACE ${QF_HEADERS_ONLY})
set(VALIJSON_INCLUDE_DIR ${QF_HEADERS_ONLY} CACHE PATH "valijson's headers")

# Every program and library in one folder, as Windows finds a program's DLLs beside it.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
