# Compiler settings of a fuzzing build (THRIFTUSB_BUILD_FUZZERS=ON). Included before
# the library is added, so that the library itself is built with coverage feedback
# for libFuzzer and with AddressSanitizer and UndefinedBehaviorSanitizer: a fault
# inside it is found and reported where it happens.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "THRIFTUSB_BUILD_FUZZERS needs clang (libFuzzer): configure with "
                      "-DCMAKE_CXX_COMPILER=clang++ (scripts/fuzz.sh does so).")
endif()
if(THRIFTUSB_SANITIZE)
  message(FATAL_ERROR "THRIFTUSB_BUILD_FUZZERS brings its own sanitizers: leave "
                      "THRIFTUSB_SANITIZE empty.")
endif()

set(THRIFTUSB_FUZZ_SANITIZERS "address,undefined")
add_compile_options(-fsanitize=fuzzer-no-link,${THRIFTUSB_FUZZ_SANITIZERS}
                    -fno-sanitize-recover=all -fno-omit-frame-pointer -g)
add_link_options(-fsanitize=${THRIFTUSB_FUZZ_SANITIZERS})

# clang warns of a private member that is stored and never read; TUSBSocket keeps one
# such constructor argument on purpose (its layout is fixed), which gcc does not flag.
target_compile_options(thriftusb_build_flags INTERFACE -Wno-unused-private-field)
