# Android build for 32-bit ARM (armeabi-v7a) with the Android NDK.
# Set ANDROID_NDK (environment or -DANDROID_NDK=...) to the NDK's root:
#   cmake -S . -B build-android -DCMAKE_TOOLCHAIN_FILE=cmake/android-armv7.cmake \
#         -DANDROID_NDK=$HOME/android-ndk -DYAX_BUILD_TESTS=OFF -DYAX_BUILD_TOOLS=OFF
# The NDK's own toolchain file does the work; the library then links the
# NDK's log library (liblog) for its log output.
if(NOT ANDROID_NDK)
  if(DEFINED ENV{ANDROID_NDK})
    set(ANDROID_NDK $ENV{ANDROID_NDK})
  elseif(DEFINED ENV{ANDROID_NDK_HOME})
    set(ANDROID_NDK $ENV{ANDROID_NDK_HOME})
  elseif(DEFINED ENV{ANDROID_NDK_ROOT})
    set(ANDROID_NDK $ENV{ANDROID_NDK_ROOT})
  endif()
endif()
if(NOT ANDROID_NDK OR NOT EXISTS "${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
  message(FATAL_ERROR "Set ANDROID_NDK to the Android NDK's root directory")
endif()
# CMake reads this file again for each try-compile project, where only the
# variables listed here are passed on: the NDK's path must be among them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ANDROID_NDK)

set(ANDROID_ABI armeabi-v7a CACHE STRING "Android ABI")
set(ANDROID_ARM_NEON ON CACHE BOOL "Use NEON")
set(ANDROID_PLATFORM android-21 CACHE STRING "Minimum Android API level")
set(ANDROID_STL c++_static CACHE STRING "C++ runtime")

include("${ANDROID_NDK}/build/cmake/android.toolchain.cmake")
