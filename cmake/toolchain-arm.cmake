# What the two ARM cross toolchains have in common; toolchain-armhf.cmake and
# toolchain-armel.cmake set OPX_ARM_ARCH, OPX_ARM_TRIPLET, OPX_ARM_FLAGS and
# OPX_ARM_CPU and include this file.
#
# Compiles with Debian's cross compilers against build/sysroot-ARCH
# (tools/make-sysroot.sh ARCH), takes Qt's code generators from this machine's
# own Qt (the sysroot's are ARM programs), and runs what it builds, CTest's
# test programs included, under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

get_filename_component(OPX_SOURCE_ROOT "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(OPX_SYSROOT "${OPX_SOURCE_ROOT}/build/sysroot-${OPX_ARM_ARCH}" CACHE PATH "Target root of the ARM build")
if(NOT EXISTS "${OPX_SYSROOT}/.opx-sysroot")
    message(FATAL_ERROR "No sysroot at ${OPX_SYSROOT}: run tools/make-sysroot.sh ${OPX_ARM_ARCH}")
endif()

set(CMAKE_C_COMPILER ${OPX_ARM_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${OPX_ARM_TRIPLET}-g++)
set(CMAKE_C_FLAGS_INIT "${OPX_ARM_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${OPX_ARM_FLAGS}")
set(CMAKE_SYSROOT "${OPX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${OPX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(Qt5_DIR "${OPX_SYSROOT}/usr/lib/${OPX_ARM_TRIPLET}/cmake/Qt5" CACHE PATH "Qt 5 of the target")

# The test programs and everything they start (the package, its runtime updater,
# the tools) are ARM programs; see arm-emulator.sh.
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/arm-emulator.sh;${OPX_SYSROOT};${OPX_ARM_CPU}")

# Qt's own package files would import moc, uic and rcc from the sysroot, where
# they are ARM programs. Imported before Qt's package files run, the host's
# (the same Qt 5.15 from Debian, hence the same generated code) are used instead.
set(CMAKE_PROJECT_INCLUDE "${CMAKE_CURRENT_LIST_DIR}/qt-host-tools.cmake")
