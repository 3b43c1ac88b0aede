# SPDX-License-Identifier: GPL-2.0-or-later
# kuv_install_template(TEMPLATE DESTINATION [RENAME name] [PROGRAM]): installs TEMPLATE into
# DESTINATION (relative to the prefix), filled in at install time, so that
# `cmake --install build --prefix DIR` and the package both get their own absolute paths.
# Placeholders: @KUV_DIR@ (the prefix, absolute, no final "/"), @KUV_BINDIR@, @KUV_LIBEXECDIR@,
# @KUV_SHAREDIR@, @KUV_VERSION@.
include_guard(GLOBAL)

function(kuv_install_template template destination)
  cmake_parse_arguments(A "PROGRAM" "RENAME" "" ${ARGN})
  get_filename_component(template ${template} ABSOLUTE)
  get_filename_component(name ${template} NAME)
  string(REGEX REPLACE "\\.in$" "" name "${name}")
  if(A_RENAME)
    set(name ${A_RENAME})
  endif()
  set(program OFF)
  if(A_PROGRAM)
    set(program ON)
  endif()
  # Configure-time dependency, so an edited template reinstalls without a fresh configure.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${template})
  install(CODE "
    set(KUV_TEMPLATE \"${template}\")
    set(KUV_DEST_DIR \"${destination}\")
    set(KUV_DEST_NAME \"${name}\")
    set(KUV_PROGRAM ${program})
    set(KUV_VERSION \"${PROJECT_VERSION}\")
    set(KUV_WORK_DIR \"${CMAKE_CURRENT_BINARY_DIR}/installed\")
    include(\"${CMAKE_CURRENT_FUNCTION_LIST_DIR}/ConfigureInstalled.cmake\")
  ")
endfunction()
