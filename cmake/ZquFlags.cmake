# Interface targets that the others link: zqu_flags (sanitizers, coverage, hardening; for everything that is linked
# together) and zqu_warnings (for our own sources only).
option(ZQU_WERROR "Treat warnings as errors (for CI)" OFF)
option(ZQU_HARDENING "Harden optimised builds" ON)
option(ZQU_COVERAGE "Instrument for gcov" OFF)
option(ZQU_REPRODUCIBLE "Keep the names of this machine's directories out of the programs" OFF)
set(ZQU_SANITIZE "" CACHE STRING "Sanitizers to build with, as a comma-separated list (address,undefined)")

add_library(zqu_warnings INTERFACE)
target_compile_options(zqu_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wcast-align -Wcast-qual -Wformat=2 -Wnull-dereference -Wdouble-promotion
    -Wimplicit-fallthrough -Wextra-semi -Wundef -Wmissing-declarations
    $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wuseless-cast>
    $<$<BOOL:${ZQU_WERROR}>:-Werror>)

add_library(zqu_flags INTERFACE)
# Where off_t would have 32 bits: archives and definition files may be larger.
target_compile_definitions(zqu_flags INTERFACE $<$<EQUAL:${CMAKE_SIZEOF_VOID_P},4>:_FILE_OFFSET_BITS=64>)
if(ZQU_SANITIZE)
    target_compile_options(zqu_flags INTERFACE
        -fsanitize=${ZQU_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(zqu_flags INTERFACE -fsanitize=${ZQU_SANITIZE})
elseif(ZQU_HARDENING)
    include(CheckPIESupported)
    check_pie_supported()
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    target_compile_options(zqu_flags INTERFACE
        $<${optimised}:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong -fstack-clash-protection>)
    target_link_options(zqu_flags INTERFACE $<${optimised}:LINKER:-z,relro,-z,now,-z,noexecstack>)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
        target_compile_options(zqu_flags INTERFACE $<${optimised}:-fcf-protection>)
    elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        target_compile_options(zqu_flags INTERFACE $<${optimised}:-mbranch-protection=standard>)
    endif()
endif()
if(ZQU_REPRODUCIBLE)
    # Of several that fit, the last one counts.
    target_compile_options(zqu_flags INTERFACE
        "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=." "-ffile-prefix-map=${PROJECT_BINARY_DIR}=build")
endif()
if(ZQU_COVERAGE)
    target_compile_options(zqu_flags INTERFACE --coverage -fprofile-abs-path -fprofile-update=atomic)
    target_link_options(zqu_flags INTERFACE --coverage)
endif()
