# The toolchain file of the presets arm64, armhf and i386, which build on an amd64 Debian for ZQU_ARCHITECTURE, a name of
# Debian's; scripts/install-dependencies --architecture brings what it needs. See cmake-toolchains(7).
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZQU_ARCHITECTURE)

# processor, compiler and emulator; programs for i386 need none
set(arm64 aarch64 aarch64-linux-gnu qemu-aarch64)
set(armhf armv7l arm-linux-gnueabihf qemu-arm)
set(i386 i686 i686-linux-gnu "")

list(GET ${ZQU_ARCHITECTURE} 0 CMAKE_SYSTEM_PROCESSOR)
list(GET ${ZQU_ARCHITECTURE} 1 prefix)
list(GET ${ZQU_ARCHITECTURE} 2 emulator)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${prefix}-g++)
set(CMAKE_STRIP ${prefix}-strip)
set(PKG_CONFIG_EXECUTABLE ${prefix}-pkg-config)

# Where the kernel cannot run the programs by itself (binfmt_misc), ctest does.
find_program(ZQU_EMULATOR ${emulator}-static)
if(ZQU_EMULATOR AND NOT EXISTS "/proc/sys/fs/binfmt_misc/${emulator}")
    set(CMAKE_CROSSCOMPILING_EMULATOR "${ZQU_EMULATOR}")
endif()
