# The panel's ARMv5 processor: Debian armel (soft float, ARM mode), emulated as
# the ARM926EJ-S, which has no floating-point unit and no ARMv6+ instructions.
# Debian builds armel for ARMv5TE; the panel's processor and its C library are
# ARMv5TEJ (platform code 5), and so are the objects built here, which links
# them with Debian's ARMv5TE libraries unchanged.
set(OPX_ARM_ARCH armel)
set(OPX_ARM_TRIPLET arm-linux-gnueabi)
set(OPX_ARM_FLAGS "-march=armv5tej -mfloat-abi=soft -marm")
set(OPX_ARM_CPU arm926)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-arm.cmake")
