# Installs the library and its cipher library, their headers, the CMake package
# ThriftUsb (targets ThriftUsb::thriftusb and ThriftUsb::sm4-cipher) and the
# pkg-config file thriftusb.pc.
#
# Three install components, which the Debian packages follow (ThriftUsbPackage.cmake):
# "runtime", the shared libraries a program loads (libthriftusb.so.0 and
# libsm4-cipher.so.0 with their real files), "development", everything needed to
# build against them (headers, the .so links, CMake package and pkg-config files),
# and "testkit", the test kit's libraries with all that is needed to build tests
# against them (CMake components testkit and emulated_usb, thriftusb-testkit.pc and
# thriftusb-emulated-usb.pc).
include(CMakePackageConfigHelpers)

set(THRIFTUSB_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/ThriftUsb")

install(TARGETS thriftusb sm4-cipher EXPORT ThriftUsbTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
                COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/src/thriftusb"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        COMPONENT development
        FILES_MATCHING PATTERN "*.h"
        PATTERN "testing" EXCLUDE)
install(FILES "${PROJECT_BINARY_DIR}/include/thriftusb/util/ThriftVersion.h"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/thriftusb/util"
        COMPONENT development)

install(EXPORT ThriftUsbTargets NAMESPACE ThriftUsb::
        DESTINATION "${THRIFTUSB_CMAKE_DIR}"
        COMPONENT development)
configure_package_config_file(cmake/ThriftUsbConfig.cmake.in
  "${PROJECT_BINARY_DIR}/ThriftUsbConfig.cmake"
  INSTALL_DESTINATION "${THRIFTUSB_CMAKE_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/ThriftUsbConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/ThriftUsbConfig.cmake"
              "${PROJECT_BINARY_DIR}/ThriftUsbConfigVersion.cmake"
        DESTINATION "${THRIFTUSB_CMAKE_DIR}"
        COMPONENT development)

# The pkg-config file finds its prefix from its own place, so the installed tree can
# be moved (cmake --install --prefix, a package's staging directory).
set(_thriftusb_pc_up "..")
string(REPLACE "/" ";" _thriftusb_libdir_parts "${CMAKE_INSTALL_LIBDIR}")
foreach(_part IN LISTS _thriftusb_libdir_parts)
  string(APPEND _thriftusb_pc_up "/..")
endforeach()
set(THRIFTUSB_PC_PREFIX "\${pcfiledir}/${_thriftusb_pc_up}")
configure_file(cmake/thriftusb.pc.in "${PROJECT_BINARY_DIR}/thriftusb.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/thriftusb.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
        COMPONENT development)

# The test kit: each library with its headers, its own export file (which
# ThriftUsbConfig.cmake loads when its component is asked for) and its pkg-config file.
set(_thriftusb_kit_dir "${PROJECT_SOURCE_DIR}/src/thriftusb/testing")
set(_thriftusb_kit_parts testkit)
set(_thriftusb_kit_testkit_target thriftusb-testkit)
set(_thriftusb_kit_testkit_headers PtyDevice.h ServerRunner.h TempDir.h VirtualCable.h)
if(TARGET thriftusb-emulated-usb)
  list(APPEND _thriftusb_kit_parts emulated_usb)
  set(_thriftusb_kit_emulated_usb_target thriftusb-emulated-usb)
  set(_thriftusb_kit_emulated_usb_headers
      EmulatedGadgetTransport.h EmulatedUsbBus.h EmulatedUsbDevice.h)
endif()
foreach(_part IN LISTS _thriftusb_kit_parts)
  set(_target "${_thriftusb_kit_${_part}_target}")
  set(_headers "${_thriftusb_kit_${_part}_headers}")
  list(TRANSFORM _headers PREPEND "${_thriftusb_kit_dir}/")
  install(TARGETS ${_target} EXPORT ThriftUsb_${_part}
          LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT testkit)
  install(FILES ${_headers} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/thriftusb/testing"
          COMPONENT testkit)
  install(EXPORT ThriftUsb_${_part} NAMESPACE ThriftUsb:: FILE ThriftUsb_${_part}.cmake
          DESTINATION "${THRIFTUSB_CMAKE_DIR}" COMPONENT testkit)
  configure_file("cmake/${_target}.pc.in" "${PROJECT_BINARY_DIR}/${_target}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${_target}.pc"
          DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT testkit)
endforeach()
