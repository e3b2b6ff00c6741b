# Cross build for the phone's 64-bit Arm CPUs with Debian's
# g++-aarch64-linux-gnu; test binaries run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(ZEBUSR_CROSS_TRIPLE aarch64-linux-gnu)
set(ZEBUSR_CROSS_SYSROOT /usr/${ZEBUSR_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${ZEBUSR_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ZEBUSR_CROSS_TRIPLE}-g++)

# Libraries and headers come from the cross sysroot only, so the host's
# amd64 GoogleTest is never picked up; programs still come from the host.
set(CMAKE_FIND_ROOT_PATH ${ZEBUSR_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# ctest and gtest_discover_tests start every test binary through this.
find_program(ZEBUSR_QEMU NAMES qemu-aarch64-static qemu-aarch64)
if(ZEBUSR_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZEBUSR_QEMU} -L ${ZEBUSR_CROSS_SYSROOT})
endif()
