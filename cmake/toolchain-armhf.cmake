# cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake: see debian-cross.cmake.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(DAXO_CROSS_TRIPLET arm-linux-gnueabihf)
set(DAXO_QEMU_ARCH arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
