# The panel's ARMv7-A processor: Debian armhf (hard float, VFPv3-D16, Thumb-2).
set(OPX_ARM_ARCH armhf)
set(OPX_ARM_TRIPLET arm-linux-gnueabihf)
set(OPX_ARM_FLAGS "-march=armv7-a+fp -mfloat-abi=hard -mthumb")
set(OPX_ARM_CPU cortex-a7)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-arm.cmake")
