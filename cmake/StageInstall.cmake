# SPDX-License-Identifier: GPL-2.0-or-later
# Installs the build tree into a fresh staging directory for the integration tests.
file(REMOVE_RECURSE ${STAGE})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${STAGE}
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "staging install failed: ${rc}")
endif()
