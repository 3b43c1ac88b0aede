# SPDX-License-Identifier: GPL-2.0-or-later
# Runs inside `cmake --install` (and cpack): fills one template with the prefix being installed to.
get_filename_component(KUV_DIR "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
string(REGEX REPLACE "/+$" "" KUV_DIR "${KUV_DIR}")
foreach(kuv_code RANGE 1 31)
  string(ASCII ${kuv_code} kuv_char)
  string(FIND "${KUV_DIR}" "${kuv_char}" kuv_at)
  if(NOT kuv_at EQUAL -1)
    message(FATAL_ERROR "kuvgui: the installation prefix holds a control character; desktop files "
                        "and units cannot name it: ${KUV_DIR}")
  endif()
endforeach()
set(KUV_BINDIR "${KUV_DIR}/bin")
set(KUV_LIBEXECDIR "${KUV_DIR}/libexec")
set(KUV_SHAREDIR "${KUV_DIR}/share")

# Text that needs no quoting anywhere (shell, Exec key, unit files).
macro(kuv_plain_text text out_var)
  string(REGEX MATCH "[^A-Za-z0-9_./+,:@=-]" ${out_var} "${text}")
endmacro()

# One argument of a desktop entry's Exec key, as stored in the file.
function(kuv_desktop_exec_arg out value)
  kuv_plain_text("${value}" special)
  set(v "${value}")
  if(special)
    string(REPLACE "\\" "\\\\" v "${v}")
    string(REPLACE "\"" "\\\"" v "${v}")
    string(REPLACE "`" "\\`" v "${v}")
    string(REPLACE "$" "\\$" v "${v}")
    set(v "\"${v}\"")
  endif()
  # The key's string value escapes backslashes once more; "%" starts a field code.
  string(REPLACE "\\" "\\\\" v "${v}")
  string(REPLACE "%" "%%" v "${v}")
  set(${out} "${v}" PARENT_SCOPE)
endfunction()

# One word for /bin/sh (single quotes when needed).
function(kuv_shell_word out value)
  kuv_plain_text("${value}" special)
  set(v "${value}")
  if(special)
    string(REPLACE "'" "'\\''" v "${v}")
    set(v "'${v}'")
  endif()
  set(${out} "${v}" PARENT_SCOPE)
endfunction()

# One word of a unit's Exec*= line: quoted C-style when needed, specifiers and variables escaped.
function(kuv_systemd_word out value)
  kuv_plain_text("${value}" special)
  set(v "${value}")
  if(special)
    string(REPLACE "\\" "\\\\" v "${v}")
    string(REPLACE "\"" "\\\"" v "${v}")
    set(v "\"${v}\"")
  endif()
  string(REPLACE "%" "%%" v "${v}")
  string(REPLACE "$" "$$" v "${v}")
  set(${out} "${v}" PARENT_SCOPE)
endfunction()

kuv_desktop_exec_arg(KUV_EXEC_KUVGUI "${KUV_BINDIR}/kuvgui")
kuv_desktop_exec_arg(KUV_EXEC_SESSION "${KUV_LIBEXECDIR}/kuvgui-session")
kuv_shell_word(KUV_SH_DIR "${KUV_DIR}")
kuv_shell_word(KUV_SH_KUVGUI "${KUV_BINDIR}/kuvgui")
kuv_systemd_word(KUV_UNIT_KUVGUI "${KUV_BINDIR}/kuvgui")
kuv_systemd_word(KUV_UNIT_ZELLD "${KUV_BINDIR}/kuv-zelld")
kuv_systemd_word(KUV_UNIT_SCAND "${KUV_BINDIR}/kuv-scand")
kuv_systemd_word(KUV_UNIT_SESSION "${KUV_LIBEXECDIR}/kuvgui-session")
# Nemo reads Exec as a key-file string and splits it like a shell command line.
kuv_shell_word(kuv_nemo "${KUV_BINDIR}/kuvgui")
string(REPLACE "\\" "\\\\" KUV_NEMO_KUVGUI "${kuv_nemo}")
# Icon keys take a plain path; only backslashes need escaping in a key-file string.
string(REPLACE "\\" "\\\\" KUV_ICON "${KUV_SHAREDIR}/icons/hicolor/scalable/apps/kuvgui.svg")

# One scratch copy per prefix: a package build and a plain install may run side by side.
string(MD5 kuv_prefix_hash "$ENV{DESTDIR}${KUV_DIR}")
set(kuv_scratch "${KUV_WORK_DIR}/${kuv_prefix_hash}")
file(MAKE_DIRECTORY "${kuv_scratch}")
configure_file("${KUV_TEMPLATE}" "${kuv_scratch}/${KUV_DEST_NAME}" @ONLY)

if(KUV_PROGRAM)
  set(kuv_perms OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
else()
  set(kuv_perms OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endif()
# file(INSTALL) adds DESTDIR itself and records the file in the install manifest.
file(INSTALL "${kuv_scratch}/${KUV_DEST_NAME}" DESTINATION "${KUV_DIR}/${KUV_DEST_DIR}"
     PERMISSIONS ${kuv_perms})
