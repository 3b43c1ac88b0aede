# SPDX-License-Identifier: GPL-2.0-or-later
# CPack pre-build script: in the staging tree of the package, moves the desktop integration that
# `cmake --install` keeps under the prefix (/opt/kuv) to where the desktops look for it.
set(root "${CPACK_TEMPORARY_DIRECTORY}")
set(prefix "${root}${CPACK_PACKAGING_INSTALL_PREFIX}")
if(NOT IS_DIRECTORY "${prefix}/bin")
  message(FATAL_ERROR "kuvgui package: no ${prefix}/bin in the staging tree")
endif()

# from (under the prefix) -> to (under /), each a directory whose files move
set(moves
  "share/applications" "usr/share/applications"
  "share/kuvgui/autostart" "etc/xdg/autostart"
  "lib/systemd/user" "usr/lib/systemd/user"
  "share/kio/servicemenus" "usr/share/kio/servicemenus"
  "share/nemo/actions" "usr/share/nemo/actions"
  "share/Thunar/sendto" "usr/share/Thunar/sendto")
list(LENGTH moves n)
math(EXPR last "${n} - 1")
foreach(i RANGE 0 ${last} 2)
  math(EXPR j "${i} + 1")
  list(GET moves ${i} from)
  list(GET moves ${j} to)
  file(GLOB files "${prefix}/${from}/*")
  if(NOT files)
    message(FATAL_ERROR "kuvgui package: nothing under ${CPACK_PACKAGING_INSTALL_PREFIX}/${from}")
  endif()
  file(MAKE_DIRECTORY "${root}/${to}")
  foreach(f IN LISTS files)
    get_filename_component(name "${f}" NAME)
    file(RENAME "${f}" "${root}/${to}/${name}")
  endforeach()
  list(APPEND emptied "${prefix}/${from}")
endforeach()

# Manual pages where man finds them, compressed as Debian has them.
file(MAKE_DIRECTORY "${root}/usr/share/man/man1")
foreach(name kuvgui.1 kuvctl.1 kuvgui-user-integration.1)
  set(page "${prefix}/share/man/man1/${name}")
  if(NOT EXISTS "${page}")
    message(FATAL_ERROR "kuvgui package: no ${CPACK_PACKAGING_INSTALL_PREFIX}/share/man/man1/${name}")
  endif()
  execute_process(COMMAND gzip -9nc "${page}" OUTPUT_FILE "${root}/usr/share/man/man1/${name}.gz"
                  RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "kuvgui package: gzip ${page} failed")
  endif()
  file(REMOVE "${page}")
endforeach()
list(APPEND emptied "${prefix}/share/man/man1")

# The commands on PATH; the programs find their installation through /proc/self/exe.
file(MAKE_DIRECTORY "${root}/usr/bin")
foreach(program kuvgui kuvctl kuvgui-user-integration)
  if(NOT EXISTS "${prefix}/bin/${program}")
    message(FATAL_ERROR "kuvgui package: no ${CPACK_PACKAGING_INSTALL_PREFIX}/bin/${program}")
  endif()
  file(CREATE_LINK "${CPACK_PACKAGING_INSTALL_PREFIX}/bin/${program}" "${root}/usr/bin/${program}" SYMBOLIC)
endforeach()

file(MAKE_DIRECTORY "${root}/usr/share/doc/kuvgui")
configure_file("${CPACK_KUV_DEB_SOURCE_DIR}/copyright" "${root}/usr/share/doc/kuvgui/copyright" @ONLY)
# The Debian changelog, compressed without a time stamp so that the package is reproducible.
configure_file("${CPACK_KUV_DEB_SOURCE_DIR}/changelog" "${CPACK_TEMPORARY_DIRECTORY}/../changelog.Debian" @ONLY)
execute_process(COMMAND gzip -9nc "${CPACK_TEMPORARY_DIRECTORY}/../changelog.Debian"
                OUTPUT_FILE "${root}/usr/share/doc/kuvgui/changelog.Debian.gz" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "kuvgui package: gzip changelog.Debian failed")
endif()

# Every file under the prefix's etc/ is configuration the administrator may change: a conffile,
# kept across upgrades. Conffiles belong under /etc, so the files live in /etc/opt/kuv (where the
# FHS puts the configuration of a package in /opt) and /opt/kuv/etc is a relative link to it,
# which the service and an unpacked copy of the tree follow alike.
set(etc_home "${root}/etc/opt/kuv")
file(MAKE_DIRECTORY "${root}/etc/opt")
file(RENAME "${prefix}/etc" "${etc_home}")
file(CREATE_LINK "../../etc/opt/kuv" "${prefix}/etc" SYMBOLIC)
file(GLOB_RECURSE etc_files LIST_DIRECTORIES false RELATIVE "${etc_home}" "${etc_home}/*")
list(SORT etc_files)
file(READ "${CPACK_KUV_DEB_SOURCE_DIR}/conffiles" conffiles)
foreach(f IN LISTS etc_files)
  string(APPEND conffiles "/etc/opt/kuv/${f}\n")
endforeach()
file(WRITE "${CPACK_KUV_CONFFILES}" "${conffiles}")

# Lintian's verdicts that do not apply to this package, each with its reason.
file(MAKE_DIRECTORY "${root}/usr/share/lintian/overrides")
configure_file("${CPACK_KUV_DEB_SOURCE_DIR}/lintian-overrides" "${root}/usr/share/lintian/overrides/kuvgui" COPYONLY)

# Directories the service writes at run time (their mode is set by postinst).
file(MAKE_DIRECTORY "${prefix}/log" "${prefix}/data/pubcfg")

# Leave no empty directories behind the moves: from each moved directory up to the prefix.
foreach(dir IN ITEMS ${emptied})
  while(NOT dir STREQUAL prefix AND IS_DIRECTORY "${dir}")
    file(GLOB content "${dir}/*")
    if(content)
      break()
    endif()
    file(REMOVE_RECURSE "${dir}")
    get_filename_component(dir "${dir}" DIRECTORY)
  endwhile()
endforeach()
