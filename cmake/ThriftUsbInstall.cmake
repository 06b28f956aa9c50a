# Installs the library and its cipher library, their headers, the CMake package
# ThriftUsb (targets ThriftUsb::thriftusb and ThriftUsb::sm4-cipher) and the
# pkg-config file thriftusb.pc.
#
# Two install components, which the Debian packages follow (ThriftUsbPackage.cmake):
# "runtime", the shared libraries a program loads (libthriftusb.so.0 and
# libsm4-cipher.so.0 with their real files), and "development", everything needed to
# build against them (headers, the .so links, CMake package and pkg-config files).
include(CMakePackageConfigHelpers)

set(THRIFTUSB_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/ThriftUsb")

install(TARGETS thriftusb sm4-cipher EXPORT ThriftUsbTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
                COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/src/thriftusb"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        COMPONENT development
        FILES_MATCHING PATTERN "*.h")
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
