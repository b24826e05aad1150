# GoogleTest and the helper that registers one test binary.
#
# Natively the system package provides GoogleTest and ctest learns every test case of a binary.
# For the Windows build GoogleTest is compiled from the sources the system package installs, and each
# binary is registered as a single ctest test: it runs under Wine, where a process costs about a second.

include(GoogleTest)

if(CMAKE_CROSSCOMPILING)
  set(ORLENDA_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources for the cross build")
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  set(gtest_disable_pthreads OFF CACHE BOOL "" FORCE)
  add_subdirectory(${ORLENDA_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
else()
  find_package(GTest REQUIRED)
endif()

# orlenda_add_test(<name> SOURCES <files...> LIBS <targets...>)
function(orlenda_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main)
  if(CMAKE_CROSSCOMPILING)
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
  endif()
endfunction()
