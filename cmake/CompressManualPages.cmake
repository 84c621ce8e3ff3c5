# Run by CPack between the staging install and the packaging (CPACK_PRE_BUILD_SCRIPTS): Debian
# installs manual pages compressed, with gzip -9n so that the package is reproducible.
file(GLOB_RECURSE krv_pages "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/share/man/man*/*")
foreach(page IN LISTS krv_pages)
  if(NOT page MATCHES "\\.gz$" AND NOT IS_SYMLINK "${page}")
    execute_process(COMMAND gzip -9 -n -f "${page}" RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "cannot compress ${page}")
    endif()
  endif()
endforeach()
