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

# Adds every immediate subdirectory of dir that has a CMakeLists.txt, in name order.
function(kuv_add_subdirs dir)
  file(GLOB children LIST_DIRECTORIES true RELATIVE ${dir} ${dir}/*)
  list(SORT children)
  foreach(child IN LISTS children)
    if(IS_DIRECTORY ${dir}/${child} AND EXISTS ${dir}/${child}/CMakeLists.txt)
      add_subdirectory(${dir}/${child})
    endif()
  endforeach()
endfunction()
