# SPDX-License-Identifier: GPL-2.0-or-later
# Project-wide build settings: warnings, sanitizers, install layout and RUNPATHs.
include(GNUInstallDirs)

set(KUV_INSTALL_BINDIR bin)
set(KUV_INSTALL_LIBDIR lib)
set(KUV_INSTALL_MODULEDIR lib/modules)
set(KUV_INSTALL_PLUGINDIR lib/plugins)
set(KUV_INSTALL_ETCDIR etc)
set(KUV_INSTALL_SCRIPTDIR script)

# Every binary finds the platform libraries relative to itself, so the tree is relocatable.
set(CMAKE_SKIP_BUILD_RPATH OFF)
set(CMAKE_BUILD_WITH_INSTALL_RPATH OFF)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")
set(CMAKE_INSTALL_RPATH_USE_LINK_PATH OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Every library and module exports only what its headers mark KUV_EXPORT (platform/include/KuvExport.h):
# fewer symbols for the loader to search and bind at start.
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
# RUNPATH rather than RPATH so LD_LIBRARY_PATH still wins in tests.
add_link_options("LINKER:--enable-new-dtags")

if(KUV_SANITIZE)
  message(STATUS "kuvgui: sanitizers ${KUV_SANITIZE}")
  add_compile_options(-fsanitize=${KUV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${KUV_SANITIZE})
  add_compile_definitions(KUV_SANITIZED=1)
endif()

# Strict warnings for our own targets only; third-party headers stay system headers.
function(kuv_strict target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# A platform or common library: one target, one kuv:: alias, strict warnings.
function(kuv_library name type)
  add_library(${name} ${type} ${ARGN})
  add_library(kuv::${name} ALIAS ${name})
  kuv_strict(${name})
  if(type STREQUAL "SHARED")
    # Installed in DIR/lib beside the libraries it needs: "$ORIGIN/../lib" would make the loader probe
    # lib/../lib for every dependency.
    set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()
endfunction()

# A module that is dlopen()ed from DIR/lib/modules or DIR/lib/plugins.
function(kuv_module_rpath target)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/..:$ORIGIN/../../lib")
endfunction()

# A shared platform library whose sources are also an object library kuv::<name>_objects, so that the
# kuvgui entry links them into itself and a forwarding start loads nothing from DIR/lib. The sources are
# compiled once; the objects carry the compile requirements, the shared library the link ones.
function(kuv_library_with_objects name)
  add_library(${name}_objects OBJECT ${ARGN})
  add_library(kuv::${name}_objects ALIAS ${name}_objects)
  kuv_strict(${name}_objects)
  # The objects are compiled as part of the shared library: same export macro and visibility.
  target_compile_definitions(${name}_objects PRIVATE ${name}_EXPORTS)
  # What the entry does not call is dropped at its link (--gc-sections).
  target_compile_options(${name}_objects PRIVATE -ffunction-sections -fdata-sections)
  kuv_library(${name} SHARED)
  target_link_libraries(${name} PRIVATE ${name}_objects)
  foreach(property CXX_VISIBILITY_PRESET VISIBILITY_INLINES_HIDDEN)
    get_target_property(value ${name} ${property})
    if(NOT value STREQUAL "value-NOTFOUND")
      set_target_properties(${name}_objects PROPERTIES ${property} ${value})
    endif()
  endforeach()
endfunction()

# kuv_require_targets(who target...): stops the configuration when a target that who needs is not
# defined, rather than building a smaller product without it.
function(kuv_require_targets who)
  set(missing)
  foreach(target IN LISTS ARGN)
    if(NOT TARGET ${target})
      list(APPEND missing ${target})
    endif()
  endforeach()
  if(missing)
    list(JOIN missing ", " missing_text)
    message(FATAL_ERROR "${who} cannot be built without ${missing_text}, which no CMakeLists.txt defines "
                        "(a lost source folder or add_subdirectory line?)")
  endif()
endfunction()
