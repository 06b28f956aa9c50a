# Finds the Thrift runtime (and its compiler) in one chosen prefix, and nowhere else.
#
# THRIFTUSB_THRIFT_PREFIX names the prefix ("…/usr"). Its default is the Thrift 0.13
# tree that scripts/setup.sh unpacks into .deps/; pass /usr for the system's Thrift.
# pkg-config is pointed at that prefix alone and asked for the exact version found
# there, so a build can never fall back silently to another installed Thrift.
#
# Results: target PkgConfig::thrift, THRIFTUSB_THRIFT_VERSION (e.g. 0.13.0),
# THRIFTUSB_THRIFT_VERSION_MAJOR/_MINOR, THRIFTUSB_THRIFT_PCDIR and
# THRIFTUSB_THRIFT_COMPILER.

set(THRIFTUSB_THRIFT_PREFIX "${PROJECT_SOURCE_DIR}/.deps/thrift-0.13/usr" CACHE PATH
    "Prefix of the Thrift runtime to build against")

file(GLOB _thriftusb_pc
     "${THRIFTUSB_THRIFT_PREFIX}/lib/*/pkgconfig/thrift.pc"
     "${THRIFTUSB_THRIFT_PREFIX}/lib/pkgconfig/thrift.pc")
list(LENGTH _thriftusb_pc _thriftusb_pc_count)
if(NOT _thriftusb_pc_count EQUAL 1)
  message(FATAL_ERROR
    "No single thrift.pc under THRIFTUSB_THRIFT_PREFIX=${THRIFTUSB_THRIFT_PREFIX} "
    "(found: '${_thriftusb_pc}'). Run scripts/setup.sh, or pass the prefix of an installed Thrift.")
endif()

get_filename_component(THRIFTUSB_THRIFT_PCDIR "${_thriftusb_pc}" DIRECTORY)
file(STRINGS "${_thriftusb_pc}" _thriftusb_version_line REGEX "^Version:")
string(REGEX REPLACE "^Version:[ \t]*" "" THRIFTUSB_THRIFT_VERSION "${_thriftusb_version_line}")
string(REGEX MATCH "^([0-9]+)\\.([0-9]+)" _thriftusb_mm "${THRIFTUSB_THRIFT_VERSION}")
set(THRIFTUSB_THRIFT_VERSION_MAJOR "${CMAKE_MATCH_1}")
set(THRIFTUSB_THRIFT_VERSION_MINOR "${CMAKE_MATCH_2}")

# pkg-config looks at the chosen prefix alone while it finds Thrift; its variables are
# put back afterwards exactly as they were, unset ones unset again (an empty
# PKG_CONFIG_LIBDIR would hide every system package from later searches).
find_package(PkgConfig REQUIRED)
foreach(_thriftusb_var IN ITEMS PKG_CONFIG_LIBDIR PKG_CONFIG_PATH)
  if(DEFINED ENV{${_thriftusb_var}})
    set(_thriftusb_saved_${_thriftusb_var} "$ENV{${_thriftusb_var}}")
  else()
    unset(_thriftusb_saved_${_thriftusb_var})
  endif()
endforeach()
set(ENV{PKG_CONFIG_LIBDIR} "${THRIFTUSB_THRIFT_PCDIR}")
set(ENV{PKG_CONFIG_PATH} "")
pkg_check_modules(thrift REQUIRED IMPORTED_TARGET GLOBAL thrift=${THRIFTUSB_THRIFT_VERSION})
foreach(_thriftusb_var IN ITEMS PKG_CONFIG_LIBDIR PKG_CONFIG_PATH)
  if(DEFINED _thriftusb_saved_${_thriftusb_var})
    set(ENV{${_thriftusb_var}} "${_thriftusb_saved_${_thriftusb_var}}")
  else()
    unset(ENV{${_thriftusb_var}})
  endif()
endforeach()

# The IDL compiler must be the one of the same release as the runtime.
find_program(THRIFTUSB_THRIFT_COMPILER thrift
             PATHS "${THRIFTUSB_THRIFT_PREFIX}/bin" NO_DEFAULT_PATH)
if(THRIFTUSB_THRIFT_COMPILER)
  execute_process(COMMAND "${THRIFTUSB_THRIFT_COMPILER}" --version
                  OUTPUT_VARIABLE _thriftusb_compiler_version OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT _thriftusb_compiler_version MATCHES "${THRIFTUSB_THRIFT_VERSION}")
    message(FATAL_ERROR "Thrift compiler ${THRIFTUSB_THRIFT_COMPILER} says "
                        "'${_thriftusb_compiler_version}', runtime is ${THRIFTUSB_THRIFT_VERSION}")
  endif()
endif()

message(STATUS "Thrift ${THRIFTUSB_THRIFT_VERSION} from ${THRIFTUSB_THRIFT_PREFIX}"
               " (compiler: ${THRIFTUSB_THRIFT_COMPILER})")
