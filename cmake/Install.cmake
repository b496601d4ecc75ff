# What `cmake --install` puts where. Three components: runtime (what a host process loads),
# development (what it is built with) and tool (datapathctl and its surroundings).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Headers include each other by their place in this tree. They keep it, in a folder of their own;
# the library's own header alone is found without a search path.
set(header_folder ${CMAKE_INSTALL_INCLUDEDIR}/${PROJECT_NAME})
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME})
set(pkgconfig_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pc
  ${CMAKE_INSTALL_PREFIX}/${pkgconfig_folder} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH libraries_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})

# Debian's liblog is in a folder that neither the linker nor the loader searches by itself.
set(liblog -llog)
if(ANDROID_LOG_LIBRARY AND NOT CMAKE_CROSSCOMPILING)
  cmake_path(GET ANDROID_LOG_LIBRARY PARENT_PATH liblog_folder)
  set(liblog "-L${liblog_folder} -llog")
  set_property(TARGET corvil_datapath_proxy APPEND PROPERTY INSTALL_RPATH ${liblog_folder})
endif()

# corvil_install_library(LIBRARY DESCRIPTION [NEEDED]): the library, its target corvil::NAME and its
# .pc file, with what else a linker has to find.
function(corvil_install_library library description)
  string(REPLACE "corvil_" "" name ${library})
  set_target_properties(${library} PROPERTIES EXPORT_NAME ${name})
  install(TARGETS ${library} EXPORT ${PROJECT_NAME}
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${header_folder})
  set(needed ${ARGN})
  configure_file(cmake/library.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${library}.pc
    DESTINATION ${pkgconfig_folder} COMPONENT development)
endfunction()

function(corvil_install_headers)
  foreach(header IN LISTS ARGN)
    cmake_path(GET header PARENT_PATH folder)
    install(FILES ${header} DESTINATION ${header_folder}/${folder} COMPONENT development)
  endforeach()
endfunction()

corvil_install_library(corvil_datapath_proxy "Control of a device's data path" "${liblog}")
install(FILES datapath_proxy/include/corvil_datapath_proxy.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
corvil_install_headers(host_interfaces/corvil_log_services.h host_interfaces/corvil_netlink.h
  host_interfaces/corvil_port_utils.h kernel_interface/tavik_wlan.h)

install(EXPORT ${PROJECT_NAME} NAMESPACE corvil:: FILE ${PROJECT_NAME}-targets.cmake
  DESTINATION ${package_folder} COMPONENT development)
install(FILES cmake/${PROJECT_NAME}-config.cmake
  DESTINATION ${package_folder} COMPONENT development)
write_basic_package_version_file(${PROJECT_NAME}-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config-version.cmake
  DESTINATION ${package_folder} COMPONENT development)

# Descriptions of the protocol for other programs.
install(FILES kernel_interface/tavik_wlan.yaml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/${PROJECT_NAME} COMPONENT development)
install(FILES docs/man/corvil_datapath_proxy.3
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
install(FILES docs/troubleshooting.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libcorvil-datapath-proxy-dev COMPONENT development)

if(NOT CORVIL_REFERENCE)
  return()
endif()

corvil_install_library(corvil_netlink "Netlink operations of the data path's reference host")
corvil_install_library(corvil_log "Log services of the data path's reference host")
corvil_install_library(corvil_port_utils "Port tree of the data path's reference host")
corvil_install_headers(reference_host/log/corvil_log_control.h
  reference_host/netlink/corvil_netlink_control.h reference_host/port_utils/corvil_port_tree.h
  reference_kernel/tavik_wlan_limits.h)

install(TARGETS datapathctl COMPONENT tool)
install(FILES docs/man/datapathctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
install(FILES datapathctl/completion/datapathctl.bash RENAME datapathctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
# Wireshark loads what lies there by itself, whatever its version.
install(FILES kernel_interface/wireshark/tavik_wlan.lua
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT tool)

# Installed binaries find each other relative to where they are. In a folder that the loader searches
# by itself, as a Debian package's, they need no such help.
if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  set_property(TARGET corvil_datapath_proxy APPEND PROPERTY INSTALL_RPATH $ORIGIN)
  set_target_properties(datapathctl PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_bin})
endif()
