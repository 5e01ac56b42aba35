# cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm64.cmake: see debian-cross.cmake.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(DAXO_CROSS_TRIPLET aarch64-linux-gnu)
set(DAXO_QEMU_ARCH aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
