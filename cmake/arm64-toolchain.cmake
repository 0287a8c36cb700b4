# Cross build for 64-bit ARM with Debian's cross compiler and the arm64 packages (script/bootstrap
# arm64).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# The arm64 libraries lie beside the host's, in the multiarch directories.
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config)
if(NOT EXISTS /usr/bin/${PKG_CONFIG_EXECUTABLE})
  set(PKG_CONFIG_EXECUTABLE /usr/bin/pkg-config)
  set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# What a build or ctest runs of its own programs, it runs emulated.
find_program(QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64)
if(QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QEMU_AARCH64})
endif()
