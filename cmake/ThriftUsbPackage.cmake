# Debian packages of the library, made by CPack from the install rules of
# ThriftUsbInstall.cmake (components "runtime", "development" and "testkit"):
#
#   libthriftusb      libthriftusb.so.0 and libsm4-cipher.so.0 (with their real files)
#   libthriftusb-dev  the headers, the .so links, the CMake package ThriftUsb and
#                     thriftusb.pc
#   libthriftusb-testkit-dev
#                     the test kit, all a test needs to build against it: its
#                     libraries with their links, headers, CMake components and
#                     pkg-config files (like the test libraries Debian ships, one
#                     package for building and running tests)
#
#   cmake -S . -B build/package -G Ninja -DCMAKE_INSTALL_PREFIX=/usr \
#         -DTHRIFTUSB_THRIFT_PREFIX=/usr -DCMAKE_BUILD_TYPE=RelWithDebInfo
#   cmake --build build/package --target package      # build/package/*.deb
#
# The packages install under /usr (the DEB generator's packaging prefix) whatever
# CMAKE_INSTALL_PREFIX is; configuring with
# CMAKE_INSTALL_PREFIX=/usr puts the libraries in Debian's multiarch directory
# (/usr/lib/x86_64-linux-gnu), any other prefix in /usr/lib.
#
# Dependencies follow the Thrift release the library was built against:
# - Thrift 0.17 from Debian 12 (THRIFTUSB_THRIFT_PREFIX=/usr; any Thrift of the
#   system's packages): the runtime package depends on libthrift-0.17.0 and the -dev
#   package on libthrift-dev 0.17 and Boost's headers (which Thrift's headers
#   include), so apt brings in everything. These are the packages to hand to other
#   Debian 12 machines.
# - Thrift 0.13 (the default build, from .deps/): Debian 12 has no Thrift 0.13 package
#   to depend on, so the packages name none. The library then finds Thrift through
#   the run path it was built with (the .deps/ directory of the build machine), and
#   the CMake package and thriftusb.pc look for it there too: such packages work on
#   machines that have Thrift 0.13 at that same place, such as the build machine or
#   an image made from it.
# The other dependencies are those dpkg-shlibdeps finds for the two libraries on
# Debian 12 (C and C++ runtimes, OpenSSL 3 for the cipher, libusb, libcups).

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "thriftusb")
set(CPACK_PACKAGE_VENDOR "thriftusb developers")
set(CPACK_PACKAGE_CONTACT "thriftusb developers")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
# Empty, so that each package's description below brings its own summary line.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")

# `package_source` (a tarball of the sources) leaves out build trees, .deps/ and git.
set(CPACK_SOURCE_GENERATOR "TGZ")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_SOURCE_IGNORE_FILES "/\\.git/" "/\\.deps/" "/build[^/]*/" "/out/" "\\.swp$")

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development testkit)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Every package CPack makes has its dependencies written out below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
# A shlibs file for the libraries (only the runtime package has any), so that
# packages built against them depend on libthriftusb of this version or later.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(_thriftusb_thrift_line
    "Built against Apache Thrift ${THRIFTUSB_THRIFT_VERSION}: programs using it must use\nthat release.")

# --- libthriftusb ------------------------------------------------------------------
set(_thriftusb_runtime_depends
    "libc6 (>= 2.34)" "libstdc++6 (>= 11)" "libgcc-s1 (>= 3.0)" "libssl3 (>= 3.0.0)"
    "libusb-1.0-0 (>= 2:1.0.8)" "libcups2 (>= 1.4.0)")
if(THRIFTUSB_SM4_LIBGCRYPT)
  list(APPEND _thriftusb_runtime_depends "libgcrypt20 (>= 1.9)")
endif()
set(_thriftusb_dev_depends "pkgconf | pkg-config")
if(THRIFTUSB_THRIFT_PCDIR MATCHES "^/usr/lib/")
  # The system's Thrift, from Debian's packages: libthrift-<version> holds the
  # runtime library, libthrift-dev the headers and thrift.pc of the same release.
  math(EXPR _thriftusb_next_minor "${THRIFTUSB_THRIFT_VERSION_MINOR} + 1")
  list(APPEND _thriftusb_runtime_depends "libthrift-${THRIFTUSB_THRIFT_VERSION}")
  list(APPEND _thriftusb_dev_depends
       "libthrift-dev (>= ${THRIFTUSB_THRIFT_VERSION})"
       "libthrift-dev (<< ${THRIFTUSB_THRIFT_VERSION_MAJOR}.${_thriftusb_next_minor}~)"
       "libboost-dev")
else()
  string(APPEND _thriftusb_thrift_line
         " No Debian package provides it here, so none is a dependency:\n"
         "the library and its CMake package look for it where it was at build\n"
         "time, ${THRIFTUSB_THRIFT_PREFIX}.")
endif()
list(JOIN _thriftusb_runtime_depends ", " CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libthriftusb")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"Apache Thrift transports over USB links (shared libraries)
thriftusb lets Apache Thrift remote procedure calls travel over a USB link:
transports over USB gadget device nodes, libusb and the CUPS back channel,
a server transport for USB gadgets, and framed transports encrypted with SM4.

This package holds libthriftusb.so.0 and the SM4 cipher library
libsm4-cipher.so.0.

${_thriftusb_thrift_line}")

# --- libthriftusb-dev --------------------------------------------------------------
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME "libthriftusb-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
list(PREPEND _thriftusb_dev_depends
     "libthriftusb (= ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
list(JOIN _thriftusb_dev_depends ", " CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"Apache Thrift transports over USB links (development files)
thriftusb lets Apache Thrift remote procedure calls travel over a USB link.

This package holds the headers, the links to the shared libraries, the CMake
package ThriftUsb (find_package(ThriftUsb), target ThriftUsb::thriftusb) and
the pkg-config file thriftusb.pc.

${_thriftusb_thrift_line}")

# --- libthriftusb-testkit-dev ------------------------------------------------------
set(CPACK_DEBIAN_TESTKIT_PACKAGE_NAME "libthriftusb-testkit-dev")
set(CPACK_DEBIAN_TESTKIT_PACKAGE_SECTION libdevel)
set(_thriftusb_testkit_depends
    "libthriftusb-dev (= ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})"
    "libc6 (>= 2.34)" "libstdc++6 (>= 11)" "libgcc-s1 (>= 3.0)")
set(_thriftusb_testkit_emulated "")
if(TARGET thriftusb-emulated-usb)
  # umockdev holds the preload library every program of the emulation links.
  list(APPEND _thriftusb_testkit_depends "libumockdev0 (>= 0.17)" "umockdev (>= 0.17)"
       "libusb-1.0-0 (>= 2:1.0.8)" "libglib2.0-0 (>= 2.32)")
  set(_thriftusb_testkit_emulated
      "\n - an emulated USB bus and device that the real libusb finds\n   (ThriftUsb::emulated_usb, thriftusb-emulated-usb.pc).")
endif()
list(JOIN _thriftusb_testkit_depends ", " CPACK_DEBIAN_TESTKIT_PACKAGE_DEPENDS)
set(CPACK_DEBIAN_TESTKIT_DESCRIPTION
"Apache Thrift transports over USB links (test kit)
Stand-ins for USB hardware, to test Thrift services built on thriftusb
without a device:
 - a virtual cable of two FIFOs, a one-node device on a pseudo-terminal and a
   runner for Thrift servers (ThriftUsb::testkit, thriftusb-testkit.pc);${_thriftusb_testkit_emulated}

${_thriftusb_thrift_line}")

# Debian wants a copyright file in each package's documentation folder: the notice
# and the license's text (LICENSE). These files go only into the packages, not into
# a plain `cmake --install`.
file(READ "${PROJECT_SOURCE_DIR}/LICENSE" _thriftusb_license_text)
file(WRITE "${PROJECT_BINARY_DIR}/package/copyright"
"thriftusb ${PROJECT_VERSION}: ${PROJECT_DESCRIPTION}

Copyright 2026 the thriftusb developers

Licensed under the Apache License, Version 2.0, whose text follows.

${_thriftusb_license_text}")
foreach(_thriftusb_component IN ITEMS runtime development testkit)
  if(_thriftusb_component STREQUAL "runtime")
    set(_thriftusb_docdir "${CMAKE_INSTALL_DATAROOTDIR}/doc/libthriftusb")
    install(FILES "${PROJECT_SOURCE_DIR}/CHANGELOG.md" DESTINATION "${_thriftusb_docdir}"
            COMPONENT ${_thriftusb_component} EXCLUDE_FROM_ALL)
  elseif(_thriftusb_component STREQUAL "development")
    set(_thriftusb_docdir "${CMAKE_INSTALL_DATAROOTDIR}/doc/libthriftusb-dev")
  else()
    set(_thriftusb_docdir "${CMAKE_INSTALL_DATAROOTDIR}/doc/libthriftusb-testkit-dev")
  endif()
  install(FILES "${PROJECT_BINARY_DIR}/package/copyright" DESTINATION "${_thriftusb_docdir}"
          COMPONENT ${_thriftusb_component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_COMPONENT_RUNTIME_DISPLAY_NAME "libthriftusb")
set(CPACK_COMPONENT_DEVELOPMENT_DISPLAY_NAME "libthriftusb-dev")
set(CPACK_COMPONENT_TESTKIT_DISPLAY_NAME "libthriftusb-testkit-dev")

include(CPack)
