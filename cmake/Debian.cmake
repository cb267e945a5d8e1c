# The packages of Debian, one for each component. Each has its changelog and its terms, as Debian wants them.
set(library_package libtarn${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME tarn)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtarn-dev)

if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  message(FATAL_ERROR "The packages need SOURCE_DATE_EPOCH, the time of the last commit.")
endif()
set(maintainer "The Tarn authors <tarn@example.org>")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # this takes SOURCE_DATE_EPOCH too
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${documents}/changelog @ONLY)
document(changelog.gz ${documents}/changelog "${GZIP} -9nc changelog >changelog.gz")

# LICENSE in the form of Debian: a stop stands for an empty line, a blank begins each.
file(STRINGS ${PROJECT_SOURCE_DIR}/LICENSE license NEWLINE_CONSUME)
string(REGEX REPLACE "^MIT License\n+Copyright[^\n]*\n+" "" license "${license}")
string(STRIP "${license}" license)
string(REPLACE "\n\n" "\n.\n" license "${license}")
string(REPLACE "\n" "\n " license " ${license}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/copyright.in ${documents}/copyright @ONLY)

foreach(component COMMAND LIBRARY DEVELOPMENT)
  string(TOLOWER ${component} lower)
  install(FILES ${documents}/changelog.gz ${documents}/copyright COMPONENT ${lower}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL command library development)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_CONTACT ${maintainer})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_COMPONENT_COMMAND_DESCRIPTION
"fetch videos, repair their MP4 structure and keep them in albums
The command tarn, and the page that it serves. It fetches a video by its URL,
repairs its MP4 structure so that players and photo libraries take it, and
keeps it in an album. The same repair works on local files.")
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION video)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SUGGESTS "bash-completion, ffmpeg")

set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
"repair the MP4 structure of recordings - shared library
The library by which an application inspects and repairs recordings, and
fetches videos into albums.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# What Debian wants; the scripts that CPack writes beside it run ldconfig too, which lintian warns of.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)

set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"repair the MP4 structure of recordings - development files
The headers of libtarn, the static library, and what CMake and pkg-config
need to find them.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libavcodec-dev, libavutil-dev, libcurl4-openssl-dev, libfmt-dev, libmagic-dev, libsqlite3-dev, libssl-dev, libswresample-dev")
include(CPack)
