# A libFuzzer target and its bounded run in the suite.
#
# The fuzz target needs clang's libFuzzer whatever compiler builds the rest,
# so it is compiled by a command of its own. It is part of the suite: no
# clang, no configure. The run works on copies of the seeds in
# fuzz_corpus/ beside the calling CMakeLists, so that new inputs never land
# in the source tree.
#
#   add_fuzz_run(NAME target TEST test_name MAX_LEN n
#                SOURCES files... [LIBRARY target] [DEPENDS headers...] [DICT file])
#
# LIBRARY names a library target of the project whose sources (and the
# headers beside them) are compiled into the fuzz target too.
find_program(CLANGXX NAMES clang++ clang++-16 clang++-15 clang++-14 REQUIRED)

function(add_fuzz_run)
  cmake_parse_arguments(FUZZ "" "NAME;TEST;MAX_LEN;DICT;LIBRARY" "SOURCES;DEPENDS" ${ARGN})
  if(FUZZ_LIBRARY)
    get_target_property(lib_sources ${FUZZ_LIBRARY} SOURCES)
    get_target_property(lib_dir ${FUZZ_LIBRARY} SOURCE_DIR)
    list(TRANSFORM lib_sources PREPEND ${lib_dir}/)
    file(GLOB lib_headers ${lib_dir}/*.h)
    list(PREPEND FUZZ_SOURCES ${lib_sources})
    list(APPEND FUZZ_DEPENDS ${lib_headers})
  endif()
  set(bin ${CMAKE_CURRENT_BINARY_DIR}/${FUZZ_NAME})
  add_custom_command(
    OUTPUT ${bin}
    COMMAND ${CLANGXX} -std=c++20 -g -O1 -Wall -Wextra -Werror
            -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
            -I${PROJECT_SOURCE_DIR}/devio/Source ${FUZZ_SOURCES} -o ${bin}
    DEPENDS ${FUZZ_SOURCES} ${FUZZ_DEPENDS}
    COMMENT "Building the fuzz target ${FUZZ_NAME} with clang")
  add_custom_target(${FUZZ_NAME} ALL DEPENDS ${bin})

  set(work ${CMAKE_CURRENT_BINARY_DIR}/fuzz_work)
  set(dict "")
  if(FUZZ_DICT)
    set(dict "-dict='${FUZZ_DICT}'")
  endif()
  add_test(NAME ${FUZZ_TEST}
    COMMAND ${CMAKE_COMMAND} -E env ASAN_OPTIONS=detect_leaks=1
            sh -c "rm -rf '${work}' && mkdir -p '${work}/corpus' && cp '${CMAKE_CURRENT_SOURCE_DIR}'/fuzz_corpus/* '${work}/corpus/' && '${bin}' -max_total_time=20 -timeout=5 -rss_limit_mb=1024 -max_len=${FUZZ_MAX_LEN} ${dict} -artifact_prefix='${work}/' '${work}/corpus'")
  set_tests_properties(${FUZZ_TEST} PROPERTIES TIMEOUT 120)
endfunction()
