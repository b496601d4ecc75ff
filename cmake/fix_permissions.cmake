# Run by CPack before it packs: everyone may enter the packages' folders, whatever the umask was.
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -type d -exec chmod 755 {} +
  COMMAND_ERROR_IS_FATAL ANY)
