include(GoogleTest)
find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(libav REQUIRED IMPORTED_TARGET libavcodec libswresample libavutil)

add_library(tarn_options INTERFACE)
target_compile_options(tarn_options INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
  target_compile_options(tarn_options INTERFACE -Wno-sign-conversion)  # GCC's -Wconversion is without it
endif()
target_include_directories(tarn_options INTERFACE
  ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/include ${CMAKE_BINARY_DIR}/include)
configure_file(${CMAKE_SOURCE_DIR}/include/tarn/version.h.in ${CMAKE_BINARY_DIR}/include/tarn/version.h @ONLY)
if(TARN_SANITIZE)
  target_compile_definitions(tarn_options INTERFACE TARN_SANITIZED)
  target_compile_options(tarn_options INTERFACE -fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer -g1)
  # GCC warns of sizes that sanitized code cannot have (size() - 1 as 2^64 - 2); the plain build keeps these errors.
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    target_compile_options(tarn_options INTERFACE -Wno-error=stringop-overflow -Wno-error=array-bounds)
  endif()
  target_link_options(tarn_options INTERFACE -fsanitize=${TARN_SANITIZE})
  if(TARN_SANITIZE MATCHES thread)
    # The thread sanitizer does not see fences; Asio has switches for that (counters then go without them too).
    target_compile_definitions(tarn_options INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK BOOST_ASIO_DISABLE_STD_ATOMIC)
  endif()
endif()

# Includes keep to the floors of the house: nothing is compiled before that is checked.
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/floors.stamp
  COMMAND ${CMAKE_COMMAND} -DSRC=${CMAKE_SOURCE_DIR}/src -DFLOORS=${CMAKE_SOURCE_DIR}/src/floors.txt
    -DSTAMP=${CMAKE_BINARY_DIR}/floors.stamp -P ${CMAKE_SOURCE_DIR}/cmake/CheckFloors.cmake
  DEPENDS ${CMAKE_SOURCE_DIR}/src/floors.txt ${CMAKE_SOURCE_DIR}/cmake/CheckFloors.cmake
  DEPFILE ${CMAKE_BINARY_DIR}/floors.stamp.d
  COMMENT "Checking the floors" VERBATIM)
add_custom_target(floors DEPENDS ${CMAKE_BINARY_DIR}/floors.stamp)

# tarn_room(<name> SOURCES <files>... [USES <lower rooms>...] [LIBRARIES <targets>...])
function(tarn_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
  add_library(tarn_${name} STATIC ${ROOM_SOURCES})
  # The shared library is made of the same objects, and shows only what its public headers mark.
  set_target_properties(tarn_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  add_dependencies(tarn_${name} floors)
  set_property(GLOBAL APPEND PROPERTY TARN_ROOMS tarn_${name})
  set_property(GLOBAL APPEND PROPERTY TARN_LIBRARIES ${ROOM_LIBRARIES})
  target_link_libraries(tarn_${name} PUBLIC tarn_options fmt::fmt Threads::Threads)
  foreach(lower IN LISTS ROOM_USES)
    target_link_libraries(tarn_${name} PUBLIC tarn_${lower})
  endforeach()
  target_link_libraries(tarn_${name} PRIVATE ${ROOM_LIBRARIES})
endfunction()

# tarn_tests(<name> SOURCES <files>... USES <rooms>... [LIBRARIES <targets>...]): one test program for a room.
# Every test runs in a process of its own, so that a test which crashes takes no other with it.
function(tarn_tests name)
  cmake_parse_arguments(TESTS "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
  add_executable(${name}_tests ${TESTS_SOURCES})
  target_link_libraries(${name}_tests PRIVATE
    tarn_test_support GTest::gtest GTest::gmock GTest::gtest_main ${TESTS_LIBRARIES})
  foreach(room IN LISTS TESTS_USES)
    target_link_libraries(${name}_tests PRIVATE tarn_${room})
  endforeach()
  # Seconds until a test counts as hung. Under the thread sanitizer all takes ten times as long.
  set(patience 300)
  if(TARN_SANITIZE MATCHES "thread")
    set(patience 1200)
  endif()
  gtest_discover_tests(${name}_tests PROPERTIES TIMEOUT ${patience} DISCOVERY_TIMEOUT 60)
endfunction()
