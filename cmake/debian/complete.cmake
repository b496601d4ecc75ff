# Run by CPack before it packs: adds to what is installed what Debian asks of a package.

function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(share ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share)
  file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog
    ${CMAKE_CURRENT_LIST_DIR}/../../CHANGELOG.md DESTINATION ${share}/doc/${package})
  if(component STREQUAL runtime)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/lintian-overrides
      ${share}/lintian/overrides/${package} COPYONLY)
  endif()
endforeach()
run(find ${CPACK_TEMPORARY_DIRECTORY} -type f ( -path "*/man/*" -o -name changelog )
  -exec gzip -9n {} +)

# Everyone may read the packages' files and enter their folders, whatever the umask was.
run(chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY})
