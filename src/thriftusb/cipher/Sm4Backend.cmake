# The optional faster backend of libsm4-cipher.so (target sm4-cipher), included after
# that target is defined.
#
# OpenSSL 3.0's SM4 runs at about 120-135 MB/s on one x86-64 core, in every mode and
# direction. libgcrypt 1.10 (Debian 12) deciphers SM4-CBC with AES-NI/AVX2 several
# blocks at a time, five to six times faster; it is no faster for ECB or for CBC
# encryption, whose chain runs block after block. With this option CBC decryption
# goes through libgcrypt and everything else stays with OpenSSL. The bytes are the
# same either way (SM4 is SM4), so either build talks to the other.
option(THRIFTUSB_SM4_LIBGCRYPT
       "Decipher SM4-CBC in libsm4-cipher with libgcrypt (faster, same output)" OFF)

if(THRIFTUSB_SM4_LIBGCRYPT)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(thriftusb_libgcrypt REQUIRED IMPORTED_TARGET GLOBAL libgcrypt>=1.9)
  target_link_libraries(sm4-cipher PRIVATE PkgConfig::thriftusb_libgcrypt)
  target_compile_definitions(sm4-cipher PRIVATE THRIFTUSB_SM4_LIBGCRYPT=1)
endif()
