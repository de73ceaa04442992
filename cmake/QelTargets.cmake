# qel_library(NAME SOURCE_DIR … INCLUDE_DIR … PUBLIC … PRIVATE …)
#
# One library in three forms from one compilation: the object files, the shared library that is installed, and
# a static archive NAME_static for tests and fuzzers, which reach internal classes that the shared one hides.
function(qel_library name)
  cmake_parse_arguments(ARG "" "SOURCE_DIR;INCLUDE_DIR" "PUBLIC;PRIVATE;LIBRARIES" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${ARG_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/empty_${name}.cpp "// no source yet\n")
    set(sources ${CMAKE_CURRENT_BINARY_DIR}/empty_${name}.cpp)
  endif()
  add_library(${name}_objects OBJECT ${sources})
  string(TOUPPER ${name} upper)
  target_compile_definitions(${name}_objects PRIVATE ${upper}_BUILDING)
  # Nobody replaces single functions of a library from outside: calls within it may be direct, and inlined.
  target_compile_options(${name}_objects PRIVATE -fno-semantic-interposition)
  target_include_directories(${name}_objects PUBLIC ${ARG_INCLUDE_DIR} PRIVATE ${ARG_SOURCE_DIR})
  target_link_libraries(${name}_objects PRIVATE qel_options ${ARG_PRIVATE} Threads::Threads)

  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_objects>)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINKER_LANGUAGE CXX)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${ARG_INCLUDE_DIR}>)
  target_link_libraries(${name} PRIVATE ${ARG_PRIVATE} Threads::Threads)
  target_link_options(${name} PRIVATE -Wl,-Bsymbolic-functions)

  if(NOT QEL_SANITIZE)
    target_link_options(${name} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
    set_target_properties(${name} PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  endif()

  add_library(${name}_static STATIC $<TARGET_OBJECTS:${name}_objects>)
  set_target_properties(${name}_static PROPERTIES LINKER_LANGUAGE CXX)
  target_include_directories(${name}_static PUBLIC ${ARG_INCLUDE_DIR} INTERFACE ${ARG_SOURCE_DIR})
  target_link_libraries(${name}_static PUBLIC ${ARG_PRIVATE} Threads::Threads)

  # LIBRARIES are this project's own libraries below this one, each in the matching form.
  foreach(library ${ARG_LIBRARIES})
    target_include_directories(${name}_objects PUBLIC $<TARGET_PROPERTY:${library},INTERFACE_INCLUDE_DIRECTORIES>)
    target_link_libraries(${name} PUBLIC ${library})
    target_link_libraries(${name}_static PUBLIC ${library}_static)
  endforeach()
endfunction()

# qel_test(NAME DIRS … LIBRARIES …): a GoogleTest program of every .cpp file below the given folders.
function(qel_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "DIRS;LIBRARIES;LABELS;DEFINITIONS" ${ARGN})
  set(sources)
  foreach(dir ${ARG_DIRS})
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${dir}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  if(NOT sources)
    return()
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_definitions(${name} PRIVATE QEL_SOURCE_DIR="${PROJECT_SOURCE_DIR}" QEL_BINARY_DIR="${PROJECT_BINARY_DIR}" ${ARG_DEFINITIONS})
  target_link_libraries(${name} PRIVATE qel_options ${ARG_LIBRARIES} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
