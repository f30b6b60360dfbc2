# Cross build for 64-bit ARM Linux with Debian's cross compiler and the
# arm64 multiarch packages; CTest runs the test programs under qemu-user.
#
#   cmake -S . -B build/aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(TOVAD_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${TOVAD_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TOVAD_CROSS_TRIPLE}-g++)

# Libraries and headers come from the multiarch folders of the arm64
# packages; programs (python3, the code generators) from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${TOVAD_CROSS_TRIPLE})
set(CMAKE_LIBRARY_ARCHITECTURE ${TOVAD_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# pkg-config must answer for arm64, not for the host.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${TOVAD_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# The arm64 loader and runtime libraries (libc6:arm64, libstdc++6:arm64)
# live in the host's multiarch folders, where qemu-user finds them.
find_program(TOVAD_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${TOVAD_QEMU_AARCH64})
