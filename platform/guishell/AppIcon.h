// SPDX-License-Identifier: GPL-2.0-or-later
// The shell's window and tray icon, painted so that no image file has to ship.
#pragma once

#include <QIcon>

namespace kuv {
namespace shell {
QIcon appIcon();
} // namespace shell
} // namespace kuv
