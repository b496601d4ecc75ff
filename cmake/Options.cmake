# What every target of this project is built with: corvil_options.

set(CMAKE_C_STANDARD 11)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Binaries find each other relative to where they are, not through the folder they were built in.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# Tools and libraries share one folder, so that a tool finds the library beside itself.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)

add_library(corvil_options INTERFACE)
target_include_directories(corvil_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(corvil_options INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Wformat=2 -Werror
  # GCC 12 sees overlaps in "literal" + std::string that are not there.
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-restrict>
  # No path of the build machine in an object, so that any folder gives the same bits.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
if(CORVIL_SANITIZE)
  target_compile_options(corvil_options INTERFACE
    # The check of vptr opens a descriptor for each look, which tests without free ones don't have.
    -fsanitize=${CORVIL_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(corvil_options INTERFACE -fsanitize=${CORVIL_SANITIZE})
endif()
