// SPDX-License-Identifier: GPL-2.0-or-later
// The interface every GUI plugin implements, as a Qt plugin with a versioned IID.
#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <QtPlugin>

class QWidget;

#define KUV_GUI_PLUGIN_IID "org.kuv.gui.IKuvGuiPlugin/1.0"

class IKuvGuiPlugin {
public:
    virtual ~IKuvGuiPlugin() = default;

    // paras holds an sPluginInitParas. 0 on success; non-zero (or a throw) marks the plugin failed.
    virtual int init(const QVariant& paras) = 0;
    // Called on the GUI thread before the plugin object is deleted, also after a failed init (so it must
    // cope with a partial init); the endpoint must be quiet after it.
    virtual void uninit() = 0;
    // The plugin's page for the shell's main window, or null; owned by the plugin until uninit.
    virtual QWidget* page() = 0;
    // Title of the page, translated.
    virtual QString title() const = 0;
};

Q_DECLARE_INTERFACE(IKuvGuiPlugin, KUV_GUI_PLUGIN_IID)
