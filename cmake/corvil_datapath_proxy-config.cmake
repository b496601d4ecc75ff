include(${CMAKE_CURRENT_LIST_DIR}/corvil_datapath_proxy-targets.cmake)

# What the library needs besides its host.
find_library(CORVIL_LIBLOG log PATH_SUFFIXES android)
mark_as_advanced(CORVIL_LIBLOG)
if(CORVIL_LIBLOG)
  set_property(TARGET corvil::datapath_proxy
    PROPERTY IMPORTED_LINK_DEPENDENT_LIBRARIES ${CORVIL_LIBLOG})
endif()
