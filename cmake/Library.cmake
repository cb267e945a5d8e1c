# libtarn, made of the rooms up to `api`: libtarn.so shows what src/api/exports.map.in lists and hides all else, and
# libtarn.a holds the same objects. Both are installed, with headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)
find_package(Boost 1.81 REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(nlohmann_json REQUIRED)

option(TARN_STATIC_LIBRARY "Make libtarn.a beside libtarn.so" ON)

get_property(rooms GLOBAL PROPERTY TARN_ROOMS)
list(REMOVE_ITEM rooms tarn_app)
# What the rooms are linked with, without what is headers alone. tarnConfig.cmake knows the same.
get_property(libraries GLOBAL PROPERTY TARN_LIBRARIES)
list(REMOVE_DUPLICATES libraries)
list(REMOVE_ITEM libraries Boost::headers nlohmann_json::nlohmann_json CLI11::CLI11)
set(public_headers tarn.h inspect.h repair.h engine.h library.h transfer.h summary.h avsync.h hevc.h export.h)
list(TRANSFORM public_headers PREPEND ${PROJECT_SOURCE_DIR}/include/tarn/)

# tarn_library(<target> <name in the package>): what both have in common.
function(tarn_library target name)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME tarn EXPORT_NAME ${name} LINKER_LANGUAGE CXX)
  target_compile_features(${target} INTERFACE cxx_std_20)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  install(TARGETS ${target} EXPORT tarn_${name}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  install(EXPORT tarn_${name} FILE tarn-${name}.cmake NAMESPACE tarn:: COMPONENT development
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
endfunction()

configure_file(${PROJECT_SOURCE_DIR}/src/api/exports.map.in ${PROJECT_BINARY_DIR}/exports.map @ONLY)
add_library(libtarn SHARED $<TARGET_OBJECTS:tarn_api>)
target_link_libraries(libtarn PRIVATE ${rooms})
target_link_options(libtarn PRIVATE LINKER:--no-undefined LINKER:--version-script=${PROJECT_BINARY_DIR}/exports.map)
set_target_properties(libtarn PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
  LINK_DEPENDS ${PROJECT_BINARY_DIR}/exports.map)
tarn_library(libtarn tarn)
add_dependencies(libtarn tarn-poster)

if(TARN_STATIC_LIBRARY)
  add_library(libtarn_static STATIC)
  foreach(room IN LISTS rooms)
    target_sources(libtarn_static PRIVATE $<TARGET_OBJECTS:${room}>)
  endforeach()
  target_link_libraries(libtarn_static PRIVATE ${libraries} Threads::Threads fmt::fmt)
  tarn_library(libtarn_static static)
  if(TARN_PACKAGES)  # which have no debug information, and so no path of the build
    add_custom_command(TARGET libtarn_static POST_BUILD VERBATIM
      COMMAND ${CMAKE_STRIP} --strip-debug --enable-deterministic-archives $<TARGET_FILE:libtarn_static>)
  endif()
endif()

install(FILES ${public_headers} ${PROJECT_BINARY_DIR}/include/tarn/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn COMPONENT development)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tarnConfig.cmake.in ${PROJECT_BINARY_DIR}/tarnConfig.cmake
  INSTALL_DESTINATION ${package})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarnConfig.cmake ${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake
  DESTINATION ${package} COMPONENT development)

# The same, as a linker is told.
set(flags_CURL::libcurl -lcurl)
set(flags_OpenSSL::Crypto -lcrypto)
set(flags_OpenSSL::SSL -lssl)
set(flags_PkgConfig::libav -lavcodec -lswresample -lavutil)
set(flags_PkgConfig::libmagic -lmagic)
set(flags_SQLite::SQLite3 -lsqlite3)
set(private_libraries)
foreach(library IN LISTS libraries)
  if(NOT DEFINED flags_${library})
    message(FATAL_ERROR "tarn.pc does not know how a linker is told of ${library}: add it here")
  endif()
  list(APPEND private_libraries ${flags_${library}})
endforeach()
list(JOIN private_libraries " " private_libraries)
file(RELATIVE_PATH prefix_from_pc
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/tarn.pc.in ${PROJECT_BINARY_DIR}/tarn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
