# Cross builds with Debian's cross toolchains (crossbuild-essential-ARCH) and
# the target's libraries installed beside the build machine's (multiarch:
# dpkg --add-architecture ARCH, then libfoo-dev:ARCH). Included by the
# toolchain-ARCH.cmake files, which set DAXO_CROSS_TRIPLET and the processor.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${DAXO_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${DAXO_CROSS_TRIPLET}-g++)
# Selects /usr/lib/TRIPLET wherever CMake looks for a library or a package.
set(CMAKE_LIBRARY_ARCHITECTURE ${DAXO_CROSS_TRIPLET})
# Only the target's .pc files: the build machine's would hand out its own
# libraries' paths, which the cross linker cannot use.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${DAXO_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
# Target programs (the test discovery at build time, ctest) run under
# qemu-user; the dynamic loader and libraries it loads are the multiarch ones.
find_program(DAXO_CROSS_EMULATOR qemu-${DAXO_QEMU_ARCH}-static qemu-${DAXO_QEMU_ARCH})
if(DAXO_CROSS_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DAXO_CROSS_EMULATOR})
endif()
