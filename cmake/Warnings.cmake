# Project-wide warning set; applied to every target through krv_warnings.
add_library(krv_warnings INTERFACE)
target_compile_options(krv_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Wcast-qual -Wformat=2 -Wimplicit-fallthrough -Wmissing-declarations
  -Wsuggest-override)
if(KRV_WERROR)
  target_compile_options(krv_warnings INTERFACE -Werror)
endif()

# krv_library(NAME SOURCES... DEPENDS libs...) declares one folder's static library.
function(krv_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE krv_warnings)
endfunction()

# krv_test(NAME SOURCES... DEPENDS libs...) declares one folder's GoogleTest binary.
function(krv_test name)
  if(NOT KRV_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} GTest::gtest GTest::gtest_main krv_warnings)
  target_compile_definitions(${name} PRIVATE KRV_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
endfunction()

# krv_folder(NAME DEPENDS libs... [TEST_DEPENDS libs...]) declares the static library of the
# current folder from its sources and the folder's test binary from its *Test.cpp files.
function(krv_folder name)
  cmake_parse_arguments(ARG "" "" "DEPENDS;TEST_DEPENDS" ${ARGN})
  file(GLOB all_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  set(library_sources "")
  set(test_sources "")
  foreach(source IN LISTS all_sources)
    if(source MATCHES "Test\\.cpp$")
      list(APPEND test_sources ${source})
    else()
      list(APPEND library_sources ${source})
    endif()
  endforeach()
  krv_library(${name} SOURCES ${library_sources} DEPENDS ${ARG_DEPENDS})
  if(test_sources)
    krv_test(${name}_tests SOURCES ${test_sources} DEPENDS ${name} ${ARG_TEST_DEPENDS})
  endif()
endfunction()
