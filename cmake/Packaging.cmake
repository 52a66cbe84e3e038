# What is installed beside program and library, and how both become Debian packages: cpack -G DEB,
# called by script/package. The packages are made from the build as it is, so that what is shipped is
# what was tested. See the Debian Policy Manual, chapters 5 (control fields), 9.1 (places), 12
# (documentation).

# Copies the file of packaging/ or doc/, compresses the copy as Debian wants it and leaves the path of the
# result in `result`.
function(qrx_compressed source result)
    cmake_path(GET source FILENAME name)
    set(copy "${PROJECT_BINARY_DIR}/packaging/${name}")
    configure_file("${source}" "${copy}" COPYONLY)
    add_custom_command(OUTPUT "${copy}.gz" COMMAND gzip -9nkf "${copy}" DEPENDS "${copy}" VERBATIM)
    set_property(TARGET packaged APPEND PROPERTY SOURCES "${copy}.gz")
    set(${result} "${copy}.gz" PARENT_SCOPE)
endfunction()

# All that goes into the packages.
add_custom_target(packaged ALL)
add_dependencies(packaged
    autoresponder quarx_conf quarx_db quarx_exec quarx_log quarx_mime quarx_text)

qrx_compressed(doc/autoresponder.8 program_page)
qrx_compressed(doc/qrx.conf.5 configuration_page)
install(FILES "${program_page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT program)
install(FILES "${configuration_page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man5" COMPONENT program)

# As EXCLUDE_FROM_ALL says, a plain "cmake --install", which names no component, leaves them out.
qrx_compressed(packaging/changelog changelog)
set(documents "${CMAKE_INSTALL_DATAROOTDIR}/doc")
install(FILES packaging/copyright packaging/README.Debian doc/operating.md "${changelog}"
    DESTINATION "${documents}/autoresponder" COMPONENT program EXCLUDE_FROM_ALL)
install(FILES tests/system/schema.sql
    DESTINATION "${documents}/autoresponder/examples" COMPONENT program EXCLUDE_FROM_ALL)
install(FILES packaging/copyright packaging/libquarx-dev/README.Debian "${changelog}"
    DESTINATION "${documents}/libquarx-dev" COMPONENT dev EXCLUDE_FROM_ALL)

set(QRX_PACKAGE_CONTACT "Autoresponder maintainers <autoresponder@example.org>"
    CACHE STRING "The maintainer that the packages name: whoever builds them")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${QRX_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_SOURCE_DIR}/build/package")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL program dev)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# sendmail and the database server are the panel's, and often no packages of Debian's: a dependency
# or a recommendation would bring a second mail system onto the host.
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME autoresponder)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SUGGESTS "default-mta | mail-transport-agent, default-mysql-server, libmariadb3")
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION [[mail autoresponder of a web-hosting control panel
The mail system starts this program once for each message to a mailbox that
has autoresponders. It finds the mailbox in the panel's MySQL or MariaDB
database and answers the sender for each responder that is switched on,
whose keyword matches and whose limit for this sender isn't used up: with a
text, with attachments, and with the message forwarded where the panel's
customer wants it.
.
It works with every mail system that can pipe a message into a command and
that has a sendmail command, such as qmail, Postfix and Exim.]])

# qrx_add_sources_field(field archive...): the control field with the source packages of the archives and
# their versions. CPack has no variable for it, so it goes in behind another one.
function(qrx_add_sources_field field)
    foreach(archive IN LISTS ARGN)
        file(REAL_PATH "${archive}" path)
        execute_process(COMMAND dpkg-query -S "${path}" OUTPUT_VARIABLE owner)
        string(REGEX REPLACE ": .*" "" package "${owner}")
        execute_process(COMMAND dpkg-query -W -f "\${source:Package} (= \${source:Version})" "${package}"
            OUTPUT_VARIABLE source RESULT_VARIABLE failure)
        if(failure)
            message(WARNING "dpkg knows no package of ${path}: the field ${field} will not name it")
        else()
            list(APPEND sources "${source}")
        endif()
    endforeach()
    if(sources)
        list(REMOVE_DUPLICATES sources)
        list(SORT sources)
        list(JOIN sources ", " sources)
        set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION "${CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION}\n${field}: ${sources}"
            PARENT_SCOPE)
    endif()
endfunction()

# Built-Using names what the licences want the source kept of (Policy 7.8), Static-Built-Using the rest
# that is linked in (deb-control(5)).
if(QRX_CLIENT STREQUAL "static")
    set(kept "${QRX_MARIADB_ARCHIVE}" "${QRX_IDN_ARCHIVE}")
    set(others ${QRX_ARCHIVE_PATHS})
    list(REMOVE_ITEM others ${kept})
    qrx_add_sources_field(Built-Using ${kept})
    qrx_add_sources_field(Static-Built-Using ${others})
    install(FILES packaging/autoresponder.lintian-overrides RENAME autoresponder
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides"
        COMPONENT program EXCLUDE_FROM_ALL)
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libquarx-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libmariadb-dev, libidn-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION [[utility library of a web-hosting control panel
Headers, static libraries and the pkg-config file of the library that the
panel's mail autoresponder is built from, for other programs of the panel:
charset recoding, encoded words, base64 and internationalised domain names,
a message parser, the panel's configuration and database, reports, and the
running of other programs.]])

include(CPack)
