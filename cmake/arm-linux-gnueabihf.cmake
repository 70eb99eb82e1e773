# 32-bit ARM Linux, hard float (ARMv7-A, Thumb-2: what Debian's compiler for armhf makes by itself). Links with what
# scripts/arm-sysroot and `scripts/deps arm` put into .deps, and with nothing of the machine that builds.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# 32-bit directory calls fail on large file systems, and on any under qemu-arm.
add_compile_definitions(_FILE_OFFSET_BITS=64)

get_filename_component(tavrik_deps "${CMAKE_CURRENT_LIST_DIR}/../.deps" ABSOLUTE)
set(tavrik_sysroot "${tavrik_deps}/arm-sysroot")
set(CMAKE_FIND_ROOT_PATH "${tavrik_sysroot}" "${tavrik_deps}/arm")
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# Here too, beside scripts/arm-env: ninja runs CMake again on its own, from whatever shell.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${tavrik_sysroot}")
set(ENV{PKG_CONFIG_LIBDIR} "${tavrik_sysroot}/usr/lib/arm-linux-gnueabihf/pkgconfig:${tavrik_sysroot}/usr/share/pkgconfig")

foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${tavrik_sysroot}/usr/lib/arm-linux-gnueabihf:${tavrik_sysroot}/lib/arm-linux-gnueabihf")
endforeach()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${tavrik_sysroot}")
