# FindMimelib: the mimelib message parser as an installed library (-DQRX_MIMELIB=system).
#
# Defines the target Mimelib::Mimelib. A library outside of the default places is found with
# -DCMAKE_PREFIX_PATH=folder or with -DMimelib_INCLUDE_DIR=... and -DMimelib_LIBRARY=...
find_path(Mimelib_INCLUDE_DIR mimelib/mimepp.h)
find_library(Mimelib_LIBRARY mimelib)
mark_as_advanced(Mimelib_INCLUDE_DIR Mimelib_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Mimelib REQUIRED_VARS Mimelib_LIBRARY Mimelib_INCLUDE_DIR)

if(Mimelib_FOUND AND NOT TARGET Mimelib::Mimelib)
    # An imported target's headers are system headers: they are older than our warnings.
    add_library(Mimelib::Mimelib UNKNOWN IMPORTED)
    set_target_properties(Mimelib::Mimelib PROPERTIES
        IMPORTED_LOCATION "${Mimelib_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Mimelib_INCLUDE_DIR}")
endif()
