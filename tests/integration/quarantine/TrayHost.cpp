// SPDX-License-Identifier: GPL-2.0-or-later
// A system tray for tests under Xvfb: owns _NET_SYSTEM_TRAY_S0, docks the icon windows that ask
// (XEmbed) into a strip at the top right of the screen, and prints "ready" and "docked <id>" lines.
#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int kIcon = 32;
constexpr int kStripWidth = 4 * kIcon;

xcb_atom_t atom(xcb_connection_t* c, const char* name)
{
    xcb_intern_atom_reply_t* r = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr);
    const xcb_atom_t a = r != nullptr ? r->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(r);
    return a;
}

void sendClientMessage(xcb_connection_t* c, xcb_window_t to, xcb_atom_t type, const uint32_t data[5], uint32_t mask)
{
    xcb_client_message_event_t ev;
    std::memset(&ev, 0, sizeof ev);
    ev.response_type = XCB_CLIENT_MESSAGE;
    ev.format = 32;
    ev.window = to;
    ev.type = type;
    for (int i = 0; i < 5; ++i) {
        ev.data.data32[i] = data[i];
    }
    xcb_send_event(c, 0, to, mask, reinterpret_cast<const char*>(&ev));
}

} // namespace

int main()
{
    int screenNum = 0;
    xcb_connection_t* c = xcb_connect(nullptr, &screenNum);
    if (xcb_connection_has_error(c)) {
        std::fprintf(stderr, "trayhost: no X display\n");
        return 1;
    }
    xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    const xcb_window_t strip = xcb_generate_id(c);
    const uint32_t values[] = {0xd8d8d8, XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, strip, screen->root, int16_t(screen->width_in_pixels - kStripWidth), 0,
                      kStripWidth, kIcon, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
    const uint32_t horizontal = 0;
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, strip, atom(c, "_NET_SYSTEM_TRAY_ORIENTATION"), XCB_ATOM_CARDINAL,
                        32, 1, &horizontal);
    xcb_map_window(c, strip);

    const xcb_atom_t selection = atom(c, "_NET_SYSTEM_TRAY_S0");
    const xcb_atom_t opcode = atom(c, "_NET_SYSTEM_TRAY_OPCODE");
    const xcb_atom_t xembed = atom(c, "_XEMBED");
    xcb_set_selection_owner(c, strip, selection, XCB_CURRENT_TIME);
    xcb_get_selection_owner_reply_t* owner =
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, selection), nullptr);
    if (owner == nullptr || owner->owner != strip) {
        std::fprintf(stderr, "trayhost: another tray owns the selection\n");
        return 1;
    }
    std::free(owner);
    const uint32_t manager[5] = {XCB_CURRENT_TIME, selection, strip, 0, 0};
    sendClientMessage(c, screen->root, atom(c, "MANAGER"), manager, XCB_EVENT_MASK_STRUCTURE_NOTIFY);
    xcb_flush(c);
    std::printf("ready\n");
    std::fflush(stdout);

    int docked = 0;
    while (xcb_generic_event_t* ev = xcb_wait_for_event(c)) {
        if ((ev->response_type & 0x7f) == XCB_CLIENT_MESSAGE) {
            auto* cm = reinterpret_cast<xcb_client_message_event_t*>(ev);
            // SYSTEM_TRAY_REQUEST_DOCK is opcode 0; the icon's window is the third word.
            if (cm->type == opcode && cm->data.data32[1] == 0) {
                const xcb_window_t icon = cm->data.data32[2];
                xcb_reparent_window(c, icon, strip, int16_t(kStripWidth - (docked + 1) * kIcon), 0);
                const uint32_t geometry[] = {kIcon, kIcon};
                xcb_configure_window(c, icon, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, geometry);
                xcb_map_window(c, icon);
                // XEMBED_EMBEDDED_NOTIFY (0), embedder, protocol version 0.
                const uint32_t notify[5] = {XCB_CURRENT_TIME, 0, 0, strip, 0};
                sendClientMessage(c, icon, xembed, notify, XCB_EVENT_MASK_NO_EVENT);
                xcb_flush(c);
                ++docked;
                std::printf("docked %u\n", icon);
                std::fflush(stdout);
            }
        }
        std::free(ev);
    }
    xcb_disconnect(c);
    return 0;
}
