# vell_layer(NAME DEPS ...): a static library from every .cpp under NAME/.
function(vell_layer name)
  cmake_parse_arguments(L "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE srcs CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${name}/*.cpp)
  if(NOT srcs)
    set(srcs ${CMAKE_SOURCE_DIR}/cmake/empty.cpp)
  endif()
  add_library(vell_${name} STATIC ${srcs})
  target_include_directories(vell_${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(vell_${name} PUBLIC ${L_DEPS})
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
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 ${S_PROPERTIES})
endfunction()
