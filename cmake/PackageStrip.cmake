# Run by cpack before it packs: the static libraries lose their debugging
# sections (CPACK_STRIP_FILES strips programs only), which are nine tenths of
# their size.
file(GLOB_RECURSE archives "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a")
foreach(archive ${archives})
  execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archive}
    RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "strip failed on ${archive}")
  endif()
endforeach()
