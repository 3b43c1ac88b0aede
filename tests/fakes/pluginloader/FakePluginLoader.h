// SPDX-License-Identifier: GPL-2.0-or-later
// Control and inspection of the plugin loader and container manager doubles used by plugin tests.
#pragma once

#include <string>
#include <vector>


class IZellMREndPoint4;

namespace fake {

// Plugin loader double (CQPluginManager).
struct LoaderInstall {
    std::string name;
    void* endpoint = nullptr; // "IZellMREndPoint4" of the handed record
    void* tag = nullptr;      // "CGlobalTag" of the handed record
    int keyCount = 0;         // entries in the record
    bool isRecord = false;    // the variant really held an sPluginInitParas
};
std::vector<LoaderInstall> loaderInstalls();
std::vector<std::string> loaderUninstalls();
std::string loaderRootPath();
std::string loaderConfigPath();
int loaderLoadAllCount();
int loaderUnstallAllCount();
// By default unstallPluginAsyn signals its completion before it returns; held completions wait for
// loaderCompletePending().
void loaderHoldCompletions(bool hold);
// Emits the held completions in request order; returns how many.
int loaderCompletePending();
// Emits sig_unstallPluginComplete as the loader would.
void loaderEmitUnloadComplete(const std::string& name, int result);

// Container manager double (CContainerMgr): endpoints are named "ep1", "ep2", ... in creation order.
void conMgrSetCreateNull(bool null);
int conMgrCreatedCount();
std::vector<std::string> conMgrDestroyed();
// The name of an endpoint made by the double, or "" for anything else (null included).
std::string endpointName(const void* endPoint);
// Endpoints made and not given back.
int conMgrLiveEndpoints();

} // namespace fake
