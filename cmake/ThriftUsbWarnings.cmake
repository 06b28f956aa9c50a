# Warning and sanitizer settings shared by every target of the project.
add_library(thriftusb_build_flags INTERFACE)
target_compile_options(thriftusb_build_flags INTERFACE -Wall -Wextra)
if(THRIFTUSB_WERROR)
  target_compile_options(thriftusb_build_flags INTERFACE -Werror)
endif()

if(THRIFTUSB_SANITIZE)
  add_compile_options(-fsanitize=${THRIFTUSB_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${THRIFTUSB_SANITIZE})
endif()
