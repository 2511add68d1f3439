# vell_layer(NAME [EXCLUDE REGEX] DEPS ...): a static library from every .cpp under NAME/
# (less those matching EXCLUDE).
function(vell_layer name)
  cmake_parse_arguments(L "" "EXCLUDE" "DEPS" ${ARGN})
  file(GLOB_RECURSE srcs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${name}/*.cpp)
  if(L_EXCLUDE)
    list(FILTER srcs EXCLUDE REGEX "${L_EXCLUDE}")
  endif()
  if(NOT srcs)
    set(srcs ${CMAKE_SOURCE_DIR}/cmake/empty.cpp)
  endif()
  add_library(vell_${name} STATIC ${srcs})
  target_include_directories(vell_${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(vell_${name} PUBLIC ${L_DEPS})
endfunction()

# vell_binding(NAME DEPS ...): the static library vell_platform_NAME from every .cpp under
# platform/NAME/. A binding depends on base/, its system library and the core layer whose
# ports it implements; nothing in the core depends on it.
function(vell_binding name)
  cmake_parse_arguments(B "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE srcs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/platform/${name}/*.cpp)
  add_library(vell_platform_${name} STATIC ${srcs})
  target_include_directories(vell_platform_${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(vell_platform_${name} PUBLIC ${B_DEPS})
endfunction()

# vell_test_suite(NAME DIR [LIBS ...] [PROPERTIES ...]): one GoogleTest binary from every
# *.cpp under tests/DIR, linked with the shared test support; PROPERTIES go to every test
# of the suite (for example RESOURCE_LOCK for tests that need the fixed service port).
function(vell_test_suite name dir)
  cmake_parse_arguments(S "" "" "LIBS;PROPERTIES" ${ARGN})
  file(GLOB_RECURSE srcs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${dir}/*.cpp)
  if(NOT srcs)
    return()
  endif()
  add_executable(${name} ${srcs} ${CMAKE_SOURCE_DIR}/tests/main.cpp)
  target_link_libraries(${name} PRIVATE vell_test_support ${S_LIBS})
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 FIXTURES_REQUIRED vell_programs ${S_PROPERTIES})
endfunction()
