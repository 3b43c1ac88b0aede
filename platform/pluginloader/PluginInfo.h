// SPDX-License-Identifier: GPL-2.0-or-later
// One plugin description file: what the loader needs to find, check and name a plugin.
#pragma once

#include <QString>

namespace kuv {
namespace plugin {

struct PluginInfo {
    QString id;
    QString library; // relative to the plugin root path
    QString iid;
    QString version;
    QString guid;
    QString description;
    QString file; // the description file it came from
};

// Largest description file read; a description is a handful of short strings.
constexpr qint64 kMaxInfoFileBytes = 64 * 1024;

// Reads and checks one description file. false with a reason when it is unusable.
bool readPluginInfo(const QString& path, PluginInfo& info, QString& reason);

// Whether a relative library path stays below the root (no absolute path, no "..").
bool isContainedRelativePath(const QString& path);

} // namespace plugin
} // namespace kuv
