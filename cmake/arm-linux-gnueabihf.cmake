# Cross build for 32-bit ARM (hard float) with Debian's arm-linux-gnueabihf
# toolchain. Test executables run under qemu-arm through CTest.
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(YAX_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${YAX_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${YAX_CROSS_TRIPLE}-g++)

set(YAX_CROSS_SYSROOT /usr/${YAX_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${YAX_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-arm finds the ARM loader and C library under -L.
find_program(YAX_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${YAX_QEMU_ARM} -L ${YAX_CROSS_SYSROOT})
