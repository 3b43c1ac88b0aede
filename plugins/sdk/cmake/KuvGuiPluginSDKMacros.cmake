# SPDX-License-Identifier: GPL-2.0-or-later
# Build helpers for kuvgui GUI plugins (and the shell itself): embedded translations.
include_guard(GLOBAL)

# kuv_gui_embed_translations(target TS_FILES a_zh_CN.ts ...)
# Compiles each .ts with lrelease and embeds the .qm files as Qt resources under ":/kuvgui/i18n/".
# The GUI shell installs every catalog found there that matches the interface language
# (name ending in "_<lang>.qm", such as "_zh_CN.qm"), so a plugin only has to embed its own.
function(kuv_gui_embed_translations target)
  cmake_parse_arguments(A "" "" "TS_FILES" ${ARGN})
  if(NOT TARGET Qt5::lrelease)
    find_package(Qt5 REQUIRED COMPONENTS LinguistTools)
  endif()
  set(outdir ${CMAKE_CURRENT_BINARY_DIR}/${target}_i18n)
  set(qrc ${outdir}/${target}_i18n.qrc)
  set(content "<RCC>\n  <qresource prefix=\"/kuvgui/i18n\">\n")
  set(qms)
  foreach(ts IN LISTS A_TS_FILES)
    get_filename_component(base ${ts} NAME_WE)
    get_filename_component(tsabs ${ts} ABSOLUTE)
    set(qm ${outdir}/${base}.qm)
    add_custom_command(OUTPUT ${qm}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${outdir}
      COMMAND Qt5::lrelease -silent ${tsabs} -qm ${qm}
      DEPENDS ${tsabs} VERBATIM)
    string(APPEND content "    <file>${base}.qm</file>\n")
    list(APPEND qms ${qm})
  endforeach()
  string(APPEND content "  </qresource>\n</RCC>\n")
  file(MAKE_DIRECTORY ${outdir})
  file(WRITE ${qrc}.in "${content}")
  configure_file(${qrc}.in ${qrc} COPYONLY)
  set(cpp ${outdir}/qrc_${target}_i18n.cpp)
  add_custom_command(OUTPUT ${cpp}
    COMMAND Qt5::rcc --name ${target}_i18n -o ${cpp} ${qrc}
    DEPENDS ${qrc} ${qms} VERBATIM)
  target_sources(${target} PRIVATE ${cpp})
endfunction()

# kuv_gui_add_plugin(target SOURCES a.cpp ... [TS_FILES x_zh_CN.ts ...])
# A GUI plugin: a Qt plugin MODULE with moc, hidden symbols (only the Qt plugin entry points are
# exported), linked against the SDK, with its translations embedded.
function(kuv_gui_add_plugin target)
  cmake_parse_arguments(A "" "" "SOURCES;TS_FILES" ${ARGN})
  add_library(${target} MODULE ${A_SOURCES})
  set_target_properties(${target} PROPERTIES AUTOMOC ON CXX_VISIBILITY_PRESET hidden
                        VISIBILITY_INLINES_HIDDEN ON)
  if(NOT KuvGuiPluginSDK_TARGET)
    message(FATAL_ERROR "kuv_gui_add_plugin: find_package(KuvGuiPluginSDK) first")
  endif()
  target_link_libraries(${target} PRIVATE ${KuvGuiPluginSDK_TARGET})
  if(A_TS_FILES)
    kuv_gui_embed_translations(${target} TS_FILES ${A_TS_FILES})
  endif()
endfunction()
