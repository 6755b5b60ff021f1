# suite_discover_tests(TARGET PREFIX p [TIMEOUT s] [ENV VAR=value ...])
#
# Registers a GoogleTest program's tests with the suite. gtest_discover_tests
# hands its PROPERTIES on as one flat list, so an ENVIRONMENT of several
# variables would keep only the first; running the program (for discovery and
# for each test) under env(1) carries the whole set.
function(suite_discover_tests target)
  cmake_parse_arguments(arg "" "PREFIX;TIMEOUT" "ENV" ${ARGN})
  if(arg_ENV)
    set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "env;${arg_ENV}")
  endif()
  set(properties)
  if(arg_TIMEOUT)
    set(properties PROPERTIES TIMEOUT ${arg_TIMEOUT})
  endif()
  gtest_discover_tests(${target} TEST_PREFIX "${arg_PREFIX}" DISCOVERY_TIMEOUT 60 ${properties})
endfunction()
