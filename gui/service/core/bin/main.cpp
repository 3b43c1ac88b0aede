// SPDX-License-Identifier: GPL-2.0-or-later
// kuvgui: the per-user GUI service, or, when it already runs, a forwarder of this command line to it.
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

#include "GuiEntry.h"
#include "WriteSignals.h"

namespace {

PFN_KUVGUI_SERVICE_RUN g_serviceRun = nullptr;

// A start that failed has logged its reason; the terminal that started it learns where to look.
int runService(CGlobalTag* tag, int* argc, char** argv, PFN_KUVGUI_RELEASE_TAG releaseTag)
{
    const int rc = g_serviceRun(tag, argc, argv, releaseTag);
    if (rc < 0) {
        fputs("kuvgui: the service did not start; the reason is in its log (kuvctl logs -n 20 --no-follow)\n",
              stderr);
    }
    return rc;
}

// The service library (Qt, the bus, the log) is loaded only by the process that becomes the service, so a
// forwarding start costs no more than the tag check and one message.
PFN_KUVGUI_SERVICE_RUN loadService()
{
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (n <= 0) {
        perror("kuvgui: cannot resolve /proc/self/exe");
        return nullptr;
    }
    std::string dir(exe, static_cast<size_t>(n));
    const size_t slash = dir.rfind('/');
    if (slash == std::string::npos) {
        fprintf(stderr, "kuvgui: unexpected executable path %s\n", dir.c_str());
        return nullptr;
    }
    dir.erase(slash);
    const std::string library = dir + "/../lib/" KUVGUI_SERVICE_LIBRARY;
    // Never closed: the service's objects, atexit handlers and Qt live in it until the process ends.
    // Lazy binding: most of Qt's functions are never called by a service that stays in the tray.
    void* handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    if (handle == nullptr) {
        const char* error = dlerror();
        fprintf(stderr, "kuvgui: cannot load %s: %s\n", library.c_str(), error != nullptr ? error : "");
        return nullptr;
    }
    g_serviceRun = reinterpret_cast<PFN_KUVGUI_SERVICE_RUN>(dlsym(handle, KUVGUI_SERVICE_RUN_SYMBOL));
    if (g_serviceRun == nullptr) {
        fprintf(stderr, "kuvgui: %s has no %s\n", library.c_str(), KUVGUI_SERVICE_RUN_SYMBOL);
        return nullptr;
    }
    return &runService;
}

} // namespace

int main(int argc, char** argv)
{
    kuv::ignoreWriteSignals();
    const int rc = kuvguiEntry(argc, argv, &loadService);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    if (g_serviceRun == nullptr) {
        // A forwarding (or failed) start built nothing that needs tearing down. Ending here spares the exit
        // handlers of the C++ runtime and JsonCpp, whose code would be paged in only for them (about 45 us
        // of a 2 ms start). The sanitizer builds take the normal way, so that their exit checks still run.
        std::fflush(nullptr);
        _exit(rc);
    }
#endif
    return rc;
}
