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

# The Debian source packages of all that is linked in, with their versions, as the field Built-Using names
# them: Debian Policy Manual, 7.8. Empty with a warning where dpkg knows an archive of no package.
function(qrx_find_sources result)
    set(archives "${QRX_MARIADB_ARCHIVE}" "${QRX_Z_ARCHIVE}" "${QRX_IDN_ARCHIVE}")
    foreach(name libstdc++.a libgcc.a)
        execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${name}
            OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        list(APPEND archives "${path}")
    endforeach()
    foreach(archive IN LISTS archives)
        file(REAL_PATH "${archive}" path)
        execute_process(COMMAND dpkg-query -S "${path}" OUTPUT_VARIABLE owner)
        string(REGEX REPLACE ": .*" "" package "${owner}")
        execute_process(COMMAND dpkg-query -W -f "\${source:Package} (= \${source:Version})" "${package}"
            OUTPUT_VARIABLE source RESULT_VARIABLE failure)
        if(failure)
            message(WARNING "dpkg knows no package of ${path}: a package of this build would lack its field Built-Using")
            return()
        endif()
        list(APPEND sources "${source}")
    endforeach()
    list(REMOVE_DUPLICATES sources)
    list(SORT sources)
    list(JOIN sources ", " sources)
    set(${result} "${sources}" PARENT_SCOPE)
endfunction()
qrx_find_sources(QRX_SOURCES_INSIDE)

# An archive has the time that its package gave it, which may lie before the last link: what is linked
# depends on the versions too. A file that would not change keeps its own time.
set(versions_inside "${PROJECT_BINARY_DIR}/versions-inside")
file(CONFIGURE OUTPUT "${versions_inside}" CONTENT "@QRX_SOURCES_INSIDE@\n" @ONLY)

# qrx_link_archives(name): the executable needs no shared library but those of the C library.
function(qrx_link_archives name)
    set_property(TARGET ${name} PROPERTY QRX_ARCHIVES ON)
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS "${versions_inside}")
    target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc)
endfunction()
