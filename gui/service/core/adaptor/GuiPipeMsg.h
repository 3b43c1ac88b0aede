// SPDX-License-Identifier: GPL-2.0-or-later
// Frame of the local command channel: 16-byte header (type, length) then the payload.
#pragma once

#include <cstdint>

enum _GUI_PIPE_MSG_TYPE : uint64_t {
    GUI_MSG_SHOW_MAIN = 1,
    GUI_MSG_CONTEXT_MENU_SCAN = 4,
    GUI_MSG_QUIT = 5,
};

struct sGuiPipeMsgHead {
    uint64_t type;
    uint64_t length;
};
static_assert(sizeof(sGuiPipeMsgHead) == 16, "the command header is 16 bytes");

// The logical pipe name both ends use.
#define KUV_GUI_PIPE_NAME "/tmp/kuv-gui"
