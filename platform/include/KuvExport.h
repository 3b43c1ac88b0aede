// SPDX-License-Identifier: GPL-2.0-or-later
// KUV_EXPORT marks what a shared library or module offers other binaries; everything else is hidden
// (the build compiles with -fvisibility=hidden -fvisibility-inlines-hidden).
#pragma once

#define KUV_EXPORT __attribute__((visibility("default")))
