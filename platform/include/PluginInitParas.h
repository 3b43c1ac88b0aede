// SPDX-License-Identifier: GPL-2.0-or-later
// The record handed to each plugin at load: its bus endpoint and the instance tag.
#pragma once

#include <QMap>
#include <QMetaType>
#include <QString>
#include <QVariant>

// Keys: "IZellMREndPoint4" and "CGlobalTag", each a QVariant::fromValue<void*>. The plugin loader adds
// "PluginGuid" (QString, the plugin's bus address from its description) before handing it on.
struct sPluginInitParas {
    QMap<QString, QVariant> mapParas;
};
Q_DECLARE_METATYPE(sPluginInitParas)
