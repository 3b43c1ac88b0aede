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
