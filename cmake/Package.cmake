# Debian packages of the three components, by `cmake --workflow --preset package`.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The data path's developers <datapath@corvil.example>" CACHE STRING
  "Who answers for the packages, as Debian's Maintainer field takes it")
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/complete.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# Dependencies on Debian's libraries are those of the binaries; those among the three are exact.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CORVIL_HAS_PACK_RELATIVE_RELOCS)
  # The loader that knows packed relocations, which no symbol tells.
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.36)")
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# What is built with a version runs with later ones too: the soname changes when it does not.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)

# corvil_package(COMPONENT PACKAGE SECTION SUMMARY TEXT)
macro(corvil_package component package section summary text)
  set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${component}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${component}_DESCRIPTION "${summary}\n${text}")
endmacro()
corvil_package(RUNTIME libcorvil-datapath-proxy${PROJECT_VERSION_MAJOR} libs
  "control of an Android device's data path, shared libraries"
  "Turns the calls of a network-management daemon into generic netlink requests
to the kernel family TAVIK_WLAN. Comes with the reference host's libraries,
which bring it to any Linux machine.")
corvil_package(DEVELOPMENT libcorvil-datapath-proxy-dev libdevel
  "control of an Android device's data path, development files"
  "Headers, CMake package, pkg-config files and protocol description to build
host processes with.")
corvil_package(TOOL datapathctl net
  "command-line host of an Android device's data path"
  "Sends each request of the data-path library to the kernel or to an emulated
one, and shows every message.")

include(CPack)
