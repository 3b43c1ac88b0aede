// SPDX-License-Identifier: GPL-2.0-or-later
// The shell's window, tray and navigation icons, painted at the size asked for when they are drawn, so
// that no image file has to ship or be decoded and no pixmap is kept.
#pragma once

#include <QIcon>

namespace kuv {
namespace shell {

// The shield; with a badge for the tray's states: 0 none, 1 busy (amber, three dots), 2 attention (red, "!").
QIcon appIcon(int badge = 0);

enum NavGlyph { GLYPH_OVERVIEW, GLYPH_SCAN, GLYPH_QUARANTINE, GLYPH_HISTORY, GLYPH_SETTINGS, GLYPH_PLUGIN };
// A small line drawing for a navigation item, in the palette's text colour.
QIcon navIcon(NavGlyph glyph);

// The chevron of a menu or tool bar's overflow button, pointing right (horizontal) or down.
QIcon extensionIcon(bool horizontal);

} // namespace shell
} // namespace kuv
