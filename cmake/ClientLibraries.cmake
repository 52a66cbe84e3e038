# The libraries that the program stands on, as archives or shared (QRX_CLIENT):
#
#   quarx_client  the database client: libmariadb, without OpenSSL where it is the archive
#   quarx_idn     GNU libidn
#
# Both are shared for every target but those that qrx_link_archives() names. A test that watches calls
# of these libraries needs them shared: ld(1) --wrap would take the libraries' own calls too.
pkg_check_modules(LIBMARIADB REQUIRED IMPORTED_TARGET libmariadb)
pkg_check_modules(LIBIDN REQUIRED IMPORTED_TARGET libidn)

define_property(TARGET PROPERTY QRX_ARCHIVES BRIEF_DOCS "Linked with the archives of the libraries")

# qrx_choose_library(name shared_target archive...)
function(qrx_choose_library name shared)
    add_library(${name} INTERFACE)
    target_include_directories(${name} SYSTEM INTERFACE
        $<TARGET_PROPERTY:${shared},INTERFACE_INCLUDE_DIRECTORIES>)
    target_link_libraries(${name} INTERFACE
        $<IF:$<BOOL:$<TARGET_PROPERTY:QRX_ARCHIVES>>,${ARGN},${shared}>)
endfunction()

if(NOT QRX_CLIENT MATCHES "^(static|shared)$")
    message(FATAL_ERROR "QRX_CLIENT is \"${QRX_CLIENT}\": it is static or shared")
endif()
if(QRX_CLIENT STREQUAL "shared")
    qrx_choose_library(quarx_client PkgConfig::LIBMARIADB "")
    qrx_choose_library(quarx_idn PkgConfig::LIBIDN "")
    function(qrx_link_archives name)
    endfunction()
    return()
endif()

# An archive lies where its shared library does.
find_library(QRX_MARIADB_ARCHIVE libmariadb.a HINTS ${LIBMARIADB_LIBDIR} REQUIRED)
find_library(QRX_Z_ARCHIVE libz.a HINTS ${LIBMARIADB_LIBDIR} REQUIRED)
find_library(QRX_IDN_ARCHIVE libidn.a HINTS ${LIBIDN_LIBDIR} REQUIRED)
mark_as_advanced(QRX_MARIADB_ARCHIVE QRX_Z_ARCHIVE QRX_IDN_ARCHIVE)

qrx_choose_library(quarx_client PkgConfig::LIBMARIADB
    "$<TARGET_OBJECTS:quarx_no_tls>;${QRX_MARIADB_ARCHIVE};${QRX_Z_ARCHIVE};${CMAKE_DL_LIBS}")
qrx_choose_library(quarx_idn PkgConfig::LIBIDN "${QRX_IDN_ARCHIVE}")

# All that is linked in, the compiler's run-time libraries included.
set(QRX_ARCHIVE_PATHS "${QRX_MARIADB_ARCHIVE}" "${QRX_Z_ARCHIVE}" "${QRX_IDN_ARCHIVE}")
foreach(name libstdc++.a libgcc.a)
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${name}
        OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(APPEND QRX_ARCHIVE_PATHS "${path}")
endforeach()

# An archive and its headers have the times that their package gave them, which may lie before the last
# build: this has everything built again when one of them has changed since the last configuring.
foreach(path IN LISTS QRX_ARCHIVE_PATHS)
    file(SHA256 "${path}" sum)
    string(APPEND sums "${sum}")
endforeach()
string(SHA256 sums "${sums}")
add_compile_definitions(QRX_ARCHIVE_SUMS=${sums})

# qrx_link_archives(name): the executable needs no shared library but those of the C library.
function(qrx_link_archives name)
    set_property(TARGET ${name} PROPERTY QRX_ARCHIVES ON)
    target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc)
endfunction()
