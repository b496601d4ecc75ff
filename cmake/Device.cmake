# One static datapathctl for each ABI of a device, by `cmake --workflow --preset device`:
# build/device/arm64/datapathctl and build/device/arm/datapathctl.

include(ExternalProject)

foreach(abi arm64 arm) # builds this same tree by another compiler
  ExternalProject_Add(${abi}
    SOURCE_DIR ${PROJECT_SOURCE_DIR}
    BINARY_DIR ${PROJECT_BINARY_DIR}/build/${abi}
    CMAKE_ARGS --log-level=WARNING --toolchain ${PROJECT_SOURCE_DIR}/cmake/${abi}.cmake
      -DCMAKE_BUILD_TYPE=MinSizeRel -DBUILD_SHARED_LIBS=OFF -DBUILD_TESTING=OFF
    BUILD_COMMAND ${CMAKE_COMMAND} --build <BINARY_DIR> --target datapathctl
    BUILD_ALWAYS ON
    INSTALL_COMMAND install -D <BINARY_DIR>/bin/datapathctl
      ${PROJECT_BINARY_DIR}/${abi}/datapathctl)
endforeach()
