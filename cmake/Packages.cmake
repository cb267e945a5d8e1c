# What stands beside the command when it is installed: the manual page, the completions and the unit of systemd; and with
# TARN_PACKAGES the packages of Debian that CPack makes of it all: tarn, libtarn0.2 and libtarn-dev.

# What the target `product` has not made is not installed.
set(documents ${PROJECT_BINARY_DIR}/documents)
file(MAKE_DIRECTORY ${documents})
set(files)

# document(<file> <input> <command>): how a file is made from another; the file is in the list.
function(document file input)
  add_custom_command(OUTPUT ${documents}/${file} DEPENDS ${input} VERBATIM
    COMMAND sh -ec "${ARGN}" WORKING_DIRECTORY ${documents} COMMENT "Writing ${file}")
  set(files ${files} ${documents}/${file} PARENT_SCOPE)
endfunction()

foreach(shell bash zsh fish)
  document(completion.${shell} tarn "$<TARGET_FILE:tarn> completion ${shell} >completion.${shell}")
endforeach()
install(FILES ${documents}/completion.bash RENAME tarn
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT command OPTIONAL)
install(FILES ${documents}/completion.zsh RENAME _tarn
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT command OPTIONAL)
install(FILES ${documents}/completion.fish RENAME tarn.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT command OPTIONAL)

# The page is dated: from SOURCE_DATE_EPOCH, if that is set.
set(dated)
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(dated "SOURCE_DATE_EPOCH=$ENV{SOURCE_DATE_EPOCH} ")
endif()
find_program(SCDOC scdoc)
find_program(GZIP gzip REQUIRED)
if(SCDOC)
  set(frame ${PROJECT_SOURCE_DIR}/packaging/tarn.1.scd)
  document(tarn.1 "tarn_manual;${frame}" "$<TARGET_FILE:tarn_manual> <${frame} >tarn.1.scd; ${dated}${SCDOC} <tarn.1.scd >tarn.1")
  document(tarn.1.gz ${documents}/tarn.1 "${GZIP} -9nc tarn.1 >tarn.1.gz")
  install(FILES ${documents}/tarn.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command OPTIONAL)
elseif(TARN_PACKAGES)
  message(FATAL_ERROR "The packages need scdoc.")
endif()

configure_file(${PROJECT_SOURCE_DIR}/packaging/tarn.service.in ${documents}/tarn.service @ONLY)
install(FILES ${documents}/tarn.service DESTINATION lib/systemd/user COMPONENT command)

if(TARN_PACKAGES)
  include(${CMAKE_CURRENT_LIST_DIR}/Debian.cmake)
endif()

# All that is installed, but the page.
add_custom_target(product DEPENDS tarn tarn-poster libtarn $<TARGET_NAME_IF_EXISTS:libtarn_static> ${files})
