# qrx_build_flags: what every target of this project is compiled and linked with.
add_library(qrx_build_flags INTERFACE)
target_include_directories(qrx_build_flags INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(qrx_build_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${QRX_WERROR}>:-Werror>)

if(QRX_SANITIZE)
    # The check of virtual tables makes pipes and writes of its own, which fault tests would count.
    set(sanitizers -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    target_compile_options(qrx_build_flags INTERFACE ${sanitizers})
    target_link_options(qrx_build_flags INTERFACE ${sanitizers})
endif()

if(QRX_FUZZ)
    # Counts the edges that an input reaches; only the fuzz targets are linked with the fuzzer itself.
    target_compile_options(qrx_build_flags INTERFACE -fsanitize=fuzzer-no-link)
    target_link_options(qrx_build_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# qrx_hardening: for what is shipped. Fortification needs optimisation and does not mix with the
# sanitizers.
add_library(qrx_hardening INTERFACE)
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT QRX_SANITIZE)
    target_compile_options(qrx_hardening INTERFACE
        -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
    target_link_options(qrx_hardening INTERFACE -Wl,-z,relro,-z,now)
    # What nothing refers to is left out, of our code and of the archives.
    target_compile_options(qrx_hardening INTERFACE -ffunction-sections -fdata-sections)
    target_link_options(qrx_hardening INTERFACE -Wl,--gc-sections)
endif()

if(QRX_COVERAGE)
    target_compile_options(qrx_build_flags INTERFACE --coverage)
    target_link_options(qrx_build_flags INTERFACE --coverage)
endif()

# One static library with this project's flags.
function(qrx_add_library name)
    add_library(${name} STATIC ${ARGN})
    target_link_libraries(${name}
        PUBLIC $<BUILD_INTERFACE:qrx_build_flags>
        PRIVATE $<BUILD_INTERFACE:qrx_hardening>)
endfunction()
