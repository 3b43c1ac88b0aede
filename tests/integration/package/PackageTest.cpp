// SPDX-License-Identifier: GPL-2.0-or-later
// The Debian package, built with cpack and unpacked into a scratch root: control data and
// dependencies, the tree, desktop files (desktop-file-validate), user units (systemd-analyze
// verify), maintainer scripts, checksums, and the unpacked service running from the scratch root.
#include "DesktopSupport.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace {

using namespace kuvtest;
using namespace kuvdesk;

const std::string kPrefix = "/opt/kuv";

// What is wrong with a user unit file: unknown sections or keys, bad values, Exec programs that are
// not there. Empty when nothing is.
std::string unitProblems(const std::string& text)
{
    static const std::map<std::string, std::set<std::string>> known = {
        {"Unit", {"Description", "Documentation", "PartOf", "After", "Before", "Wants", "Requires", "BindsTo",
                  "Requisite", "Conflicts"}},
        {"Service", {"Type", "ExecCondition", "ExecStartPre", "ExecStart", "ExecStop", "TimeoutStopSec",
                     "TimeoutStartSec", "ExitType", "Restart", "RestartSec", "RestartPreventExitStatus",
                     "SuccessExitStatus", "Environment", "KillMode"}},
        {"Install", {"WantedBy", "RequiredBy", "Alias", "Also"}},
    };
    static const std::map<std::string, std::set<std::string>> values = {
        {"Type", {"simple", "exec", "forking", "oneshot", "dbus", "notify", "idle"}},
        {"Restart", {"no", "on-success", "on-failure", "on-abnormal", "on-watchdog", "on-abort", "always"}},
        {"ExitType", {"main", "cgroup"}},
        {"KillMode", {"control-group", "mixed", "process", "none"}},
    };
    std::string problems;
    std::istringstream lines(text);
    std::string line, section;
    std::set<std::string> sections;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#' || line[0] == ';') {
            continue;
        }
        if (line.front() == '[' && line.back() == ']') {
            section = line.substr(1, line.size() - 2);
            sections.insert(section);
            if (known.count(section) == 0) {
                problems += "unknown section [" + section + "]; ";
            }
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos || section.empty()) {
            problems += "not a key=value line in a section: " + line + "; ";
            continue;
        }
        const std::string key = line.substr(0, eq);
        const std::string value = line.substr(eq + 1);
        if (known.count(section) != 0 && known.at(section).count(key) == 0) {
            problems += "unknown key " + key + " in [" + section + "]; ";
        }
        if (values.count(key) != 0 && values.at(key).count(value) == 0) {
            problems += "bad value " + key + "=" + value + "; ";
        }
        if (key.compare(0, 4, "Exec") == 0) {
            const std::string program = value.substr(0, value.find(' '));
            if (program.empty() || program[0] != '/' || access(program.c_str(), X_OK) != 0) {
                problems += key + " program is not an executable absolute path: " + program + "; ";
            }
        }
        if ((key == "RestartSec" || key == "TimeoutStopSec") && !std::regex_match(value, std::regex("[0-9]+(ms|s|min)?"))) {
            problems += "bad time " + key + "=" + value + "; ";
        }
    }
    for (const char* needed : {"Unit", "Service", "Install"}) {
        if (sections.count(needed) == 0) {
            problems += std::string("no [") + needed + "] section; ";
        }
    }
    return problems;
}

class DebianPackage : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_tmp = std::make_unique<TempDir>("kuvdeb");
        const char* build = std::getenv("KUV_BUILD_DIR");
        if (build == nullptr || *build == '\0') {
            s_error = "KUV_BUILD_DIR is not set: run through ctest";
            return;
        }
        for (const char* tool : {"dpkg-deb", "dpkg-shlibdeps", "desktop-file-validate"}) {
            if (findProgram(tool).empty()) {
                s_error = std::string(tool) + " is not installed: run scripts/setup";
                return;
            }
        }
        const std::string out = s_tmp->path() + "/out";
        const RunResult r = run({KUV_CPACK_COMMAND, "--config", std::string(build) + "/CPackConfig.cmake", "-G",
                                 "DEB", "-B", out},
                                {}, 900000);
        s_cpackLog = r.out + r.err;
        if (r.status != 0) {
            s_error = "cpack failed (" + std::to_string(r.status) + "):\n" + s_cpackLog;
            return;
        }
        DIR* d = opendir(out.c_str());
        while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
            const std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".deb") == 0) {
                s_deb = out + "/" + name;
            }
        }
        if (d != nullptr) {
            closedir(d);
        }
        if (s_deb.empty()) {
            s_error = "cpack made no .deb:\n" + s_cpackLog;
            return;
        }
        s_root = s_tmp->path() + "/root";
        const RunResult x = run({findProgram("dpkg-deb"), "-x", s_deb, s_root});
        if (x.status != 0) {
            s_error = "dpkg-deb -x failed: " + x.err;
            return;
        }
        s_control = s_tmp->path() + "/DEBIAN";
        const RunResult e = run({findProgram("dpkg-deb"), "-e", s_deb, s_control});
        if (e.status != 0) {
            s_error = "dpkg-deb -e failed: " + e.err;
        }
    }
    static void TearDownTestSuite() { s_tmp.reset(); }

    void SetUp() override { ASSERT_EQ(s_error, ""); }

    static std::string at(const std::string& path) { return s_root + path; }
    static bool isFile(const std::string& path)
    {
        struct stat st {};
        return lstat(at(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
    }
    static bool isDir(const std::string& path)
    {
        struct stat st {};
        return lstat(at(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    static bool isExecutable(const std::string& path) { return isFile(path) && access(at(path).c_str(), X_OK) == 0; }

    static std::string field(const std::string& name)
    {
        const RunResult r = run({findProgram("dpkg-deb"), "-f", s_deb, name});
        std::string v = r.out;
        while (!v.empty() && (v.back() == '\n' || v.back() == ' ')) {
            v.pop_back();
        }
        return v;
    }

    static std::unique_ptr<TempDir> s_tmp;
    static std::string s_error, s_cpackLog, s_deb, s_root, s_control;
};

std::unique_ptr<TempDir> DebianPackage::s_tmp;
std::string DebianPackage::s_error, DebianPackage::s_cpackLog, DebianPackage::s_deb, DebianPackage::s_root,
    DebianPackage::s_control;

TEST_F(DebianPackage, ControlDataAndDependencies)
{
    EXPECT_EQ(field("Package"), "kuvgui");
    EXPECT_EQ(field("Architecture"), "amd64");
    EXPECT_FALSE(field("Version").empty());
    EXPECT_FALSE(field("Maintainer").empty());
    const std::string depends = field("Depends");
    // Package names of "a (>= 1), b | c, d": a b c d.
    std::set<std::string> names;
    std::istringstream words(std::regex_replace(depends, std::regex("\\([^)]*\\)|[,|]"), " "));
    for (std::string w; words >> w;) {
        names.insert(w);
    }
    // Found by dpkg-shlibdeps from the binaries and modules, plus what the scripts need.
    for (const char* dep : {"libc6", "libstdc++6", "libqt5core5a", "libqt5gui5", "libqt5widgets5", "libjsoncpp25",
                            "libzmq5"}) {
        EXPECT_EQ(names.count(dep), 1u) << dep << " missing from Depends: " << depends;
    }
    // The scripts' bash and util-linux are essential: never named.
    EXPECT_EQ(names.count("bash"), 0u) << depends;
    // From the project's settings, not placeholders.
    for (const char* name : {"Maintainer", "Homepage", "Description"}) {
        EXPECT_FALSE(field(name).empty()) << name;
        EXPECT_EQ(field(name).find("localhost"), std::string::npos) << name << ": " << field(name);
    }
    EXPECT_NE(field("Maintainer").find('@'), std::string::npos) << field("Maintainer");
    EXPECT_EQ(field("Homepage").rfind("https://", 0), 0u) << field("Homepage");
    EXPECT_EQ(depends.find("libkuv"), std::string::npos) << "own libraries must not be dependencies: " << depends;
}

TEST_F(DebianPackage, TreeUnderOptAndSystemLocations)
{
    for (const char* p : {"bin/kuvgui", "bin/kuv-zelld", "bin/kuvctl", "bin/kuvgui-user-integration",
                          "libexec/kuvgui-session", "script/kuvgui_guard.sh", "script/starttaviksd.sh",
                          "share/kuvgui/filemanager/kuvgui-scan-script"}) {
        EXPECT_TRUE(isExecutable(kPrefix + "/" + p)) << p;
    }
    for (const char* p : {"lib/modules/libZellClientMgr.so", "lib/modules/libconfigproxy.so",
                          "etc/debug/gui_debug.conf", "etc/debug/gui_zell_debug.conf", "etc/gui_shell.conf",
                          "share/icons/hicolor/scalable/apps/kuvgui.svg"}) {
        EXPECT_TRUE(isFile(kPrefix + "/" + p)) << p;
    }
    for (const char* p : {"lib/plugins", "etc/plugins-gui/combo_plugin_map", "etc/plugins-gui/plugins",
                          "data/pubcfg", "log"}) {
        EXPECT_TRUE(isDir(kPrefix + "/" + p)) << p;
    }
    for (const char* p : {"/usr/share/applications/kuvgui.desktop", "/usr/share/applications/kuvgui-scan.desktop",
                          "/etc/xdg/autostart/kuvgui-autostart.desktop", "/usr/lib/systemd/user/kuvgui.service",
                          "/usr/lib/systemd/user/kuv-zelld.service", "/usr/share/kio/servicemenus/kuvgui-scan.desktop",
                          "/usr/share/nemo/actions/kuvgui-scan.nemo_action",
                          "/usr/share/Thunar/sendto/kuvgui-scan.desktop", "/usr/share/man/man1/kuvgui.1.gz",
                          "/usr/share/man/man1/kuvctl.1.gz", "/usr/share/man/man1/kuvgui-user-integration.1.gz",
                          "/usr/share/doc/kuvgui/copyright", "/usr/share/doc/kuvgui/changelog.Debian.gz",
                          "/usr/share/lintian/overrides/kuvgui"}) {
        EXPECT_TRUE(isFile(p)) << p;
    }
    // Moved, not copied: nothing of it is left under the prefix.
    for (const char* p : {"share/applications", "share/kuvgui/autostart", "lib/systemd", "share/kio", "share/nemo",
                          "share/Thunar", "share/man"}) {
        EXPECT_FALSE(isDir(kPrefix + "/" + p)) << p << " left under " << kPrefix;
    }
    for (const char* program : {"kuvgui", "kuvctl", "kuvgui-user-integration"}) {
        char target[4096] = {};
        const ssize_t n = readlink(at(std::string("/usr/bin/") + program).c_str(), target, sizeof target - 1);
        ASSERT_GT(n, 0) << "/usr/bin/" << program << " is not a link";
        EXPECT_EQ(std::string(target, static_cast<size_t>(n)), kPrefix + "/bin/" + program);
    }
    const std::string plugins = at(kPrefix + "/lib/plugins");
    DIR* d = opendir(plugins.c_str());
    int sharedObjects = 0;
    while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
        const std::string name = e->d_name;
        sharedObjects += name.size() > 3 && name.compare(name.size() - 3, 3, ".so") == 0;
    }
    if (d != nullptr) {
        closedir(d);
    }
    EXPECT_GE(sharedObjects, 1) << "no sample plugin in " << plugins;
}

TEST_F(DebianPackage, DesktopFilesNameTheInstalledProgramsAndValidate)
{
    const std::string kuvgui = kPrefix + "/bin/kuvgui";
    EXPECT_EQ(readKeyFile(at("/usr/share/applications/kuvgui.desktop")).at("Desktop Entry").at("Exec"), kuvgui);
    EXPECT_EQ(readKeyFile(at("/usr/share/applications/kuvgui-scan.desktop")).at("Desktop Entry").at("Exec"),
              kuvgui + " right %F");
    EXPECT_EQ(readKeyFile(at("/usr/share/Thunar/sendto/kuvgui-scan.desktop")).at("Desktop Entry").at("Exec"),
              kuvgui + " right %F");
    EXPECT_EQ(readKeyFile(at("/usr/share/kio/servicemenus/kuvgui-scan.desktop")).at("Desktop Action kuvguiScan").at("Exec"),
              kuvgui + " right %F");
    EXPECT_EQ(readKeyFile(at("/usr/share/nemo/actions/kuvgui-scan.nemo_action")).at("Nemo Action").at("Exec"),
              kuvgui + " right %F");
    EXPECT_EQ(readKeyFile(at("/etc/xdg/autostart/kuvgui-autostart.desktop")).at("Desktop Entry").at("Exec"),
              kPrefix + "/libexec/kuvgui-session autostart");
    // The script finds kuvgui from its own place; its per-user copies get the path written in.
    const std::string script = readFile(at(kPrefix + "/share/kuvgui/filemanager/kuvgui-scan-script"));
    EXPECT_NE(script.find("\nkuvgui=\n"), std::string::npos) << script;
    EXPECT_EQ(script.find(kPrefix), std::string::npos) << script;

    const std::string validate = findProgram("desktop-file-validate");
    for (const char* p : {"/usr/share/applications/kuvgui.desktop", "/usr/share/applications/kuvgui-scan.desktop",
                          "/etc/xdg/autostart/kuvgui-autostart.desktop",
                          "/usr/share/Thunar/sendto/kuvgui-scan.desktop"}) {
        const RunResult r = run({validate, at(p)});
        EXPECT_EQ(r.status, 0) << p << ":\n" << r.out << r.err;
        EXPECT_EQ(r.out + r.err, "") << p;
    }
    // A KDE service menu is not a freedesktop application entry: the validator objects to
    // exactly its KDE parts (Type=Service with Actions and MimeType, the all/all type), and
    // must find nothing else.
    const RunResult r = run({validate, at("/usr/share/kio/servicemenus/kuvgui-scan.desktop")});
    std::istringstream lines(r.out + r.err);
    std::string line;
    int kdeOnly = 0;
    while (std::getline(lines, line)) {
        const bool expected = line.find("the type is \"Service\"") != std::string::npos ||
                              line.find("\"all\" is an unregistered media type") != std::string::npos;
        EXPECT_TRUE(expected) << "service menu: " << line;
        kdeOnly += expected;
    }
    EXPECT_GE(kdeOnly, 1) << "the validator did not look at the service menu";
}

TEST_F(DebianPackage, UserUnitsVerify)
{
    const std::string unitDir = at("/usr/lib/systemd/user");
    const std::string service = readFile(unitDir + "/kuvgui.service");
    EXPECT_NE(service.find("\nExecStart=" + kPrefix + "/bin/kuvgui\n"), std::string::npos) << service;
    EXPECT_NE(service.find("\nRestart=on-failure\n"), std::string::npos);
    EXPECT_NE(service.find("\nPartOf=graphical-session.target\n"), std::string::npos);
    EXPECT_NE(service.find("\nWantedBy=graphical-session.target\n"), std::string::npos);
    const std::string broker = readFile(unitDir + "/kuv-zelld.service");
    EXPECT_NE(broker.find("\nExecStart=" + kPrefix + "/bin/kuv-zelld --foreground\n"), std::string::npos) << broker;
    const std::string scand = readFile(unitDir + "/kuv-scand.service");
    EXPECT_NE(scand.find("\nExecStart=" + kPrefix + "/bin/kuv-scand --foreground\n"), std::string::npos) << scand;
    EXPECT_NE(scand.find("\nRestart=on-failure\n"), std::string::npos) << "it comes back after a crash";

    // systemd-analyze checks that the programs exist, so the copies verified name the scratch
    // root instead of /opt/kuv; nothing else is changed.
    const std::string verifyDir = s_tmp->path() + "/units";
    mkdir(verifyDir.c_str(), 0755);
    for (const char* unit : {"kuvgui.service", "kuv-zelld.service", "kuv-scand.service"}) {
        std::string text = readFile(unitDir + "/" + unit);
        text = std::regex_replace(text, std::regex(kPrefix + "/"), at(kPrefix) + "/");
        writeFile(verifyDir + "/" + unit, text);
    }
    // Always: the syntax check of this test. Then systemd's own, where it can run here.
    for (const char* unit : {"kuvgui.service", "kuv-zelld.service", "kuv-scand.service"}) {
        EXPECT_EQ(unitProblems(readFile(verifyDir + "/" + unit)), "") << unit;
    }
    const std::string brokenText = std::regex_replace(readFile(verifyDir + "/kuvgui.service"),
                                                      std::regex("Restart=on-failure"), "Restart=sometimes");
    writeFile(verifyDir + "/broken.service", brokenText);
    EXPECT_NE(unitProblems(brokenText), "") << "the syntax check missed a bad Restart= value";

    const std::string analyze = findProgram("systemd-analyze");
    if (analyze.empty()) {
        std::printf("systemd-analyze is not installed (package systemd): only the syntax check ran\n");
        return;
    }
    const std::string runtime = s_tmp->path() + "/run";
    mkdir(runtime.c_str(), 0700);
    // The Documentation= pages are checked too when man is there, against the unpacked pages.
    const bool haveMan = !findProgram("man").empty();
    const RunResult r =
        run({analyze, "verify", "--user", haveMan ? "--man=yes" : "--man=no", verifyDir + "/kuvgui.service",
             verifyDir + "/kuv-zelld.service", verifyDir + "/kuv-scand.service"},
            {"XDG_RUNTIME_DIR=" + runtime, "MANPATH=" + at("/usr/share/man"), "SYSTEMD_LOG_COLOR=0"}, 120000);
    const std::string said = r.out + r.err;
    // A manager that cannot be set up in this environment says so without naming a unit.
    if (r.status != 0 && said.find(".service") == std::string::npos && said.find("Failed to") != std::string::npos) {
        std::printf("systemd-analyze verify cannot run here (%s): only the syntax check ran\n", said.c_str());
        return;
    }
    if (!haveMan) {
        std::printf("man is not installed: Documentation= pages not checked\n");
    }
    EXPECT_EQ(r.status, 0) << said;
    EXPECT_EQ(said, "") << "systemd-analyze verify found something";

    // A broken copy must be caught, or the check above proves nothing.
    const RunResult broken = run({analyze, "verify", "--user", "--man=no", verifyDir + "/broken.service"},
                                 {"XDG_RUNTIME_DIR=" + runtime}, 120000);
    EXPECT_NE(broken.out + broken.err, "") << "systemd-analyze verify missed a bad Restart= value";
}

TEST_F(DebianPackage, ManualPagesFormatCleanly)
{
    const std::string man = findProgram("man");
    if (man.empty()) {
        std::printf("man is not installed (package man-db): pages not formatted\n");
        return;
    }
    for (const char* page : {"kuvgui", "kuvctl", "kuvgui-user-integration"}) {
        const std::string path = at(std::string("/usr/share/man/man1/") + page + ".1.gz");
        const RunResult r = run({man, "--warnings", "-l", path}, {"MANWIDTH=80", "LC_ALL=C.UTF-8", "MANPAGER=cat",
                                                                  "PAGER=cat"});
        EXPECT_EQ(r.status, 0) << page << ": " << r.err;
        EXPECT_EQ(r.err, "") << page << " has troff warnings";
        EXPECT_NE(r.out.find("EXIT STATUS"), std::string::npos) << page;
        EXPECT_NE(r.out.find("SYNOPSIS"), std::string::npos) << page;
    }
}

TEST_F(DebianPackage, MaintainerScriptsAndChecksums)
{
    // The autostart entry, and every file of the configuration directory (/opt/kuv/etc, a link to
    // /etc/opt/kuv) so that an administrator's changes survive upgrades.
    const std::string conffiles = readFile(s_control + "/conffiles");
    EXPECT_EQ(conffiles.rfind("/etc/xdg/autostart/kuvgui-autostart.desktop\n", 0), 0u) << conffiles;
    const RunResult etc = run({"/usr/bin/find", at("/etc/opt/kuv"), "-type", "f", "-printf", "/etc/opt/kuv/%P\n"});
    ASSERT_FALSE(etc.out.empty());
    size_t pos = 0;
    int listed = 0;
    while (pos < etc.out.size()) {
        const size_t end = etc.out.find('\n', pos);
        const std::string file = etc.out.substr(pos, end - pos);
        EXPECT_NE(conffiles.find(file + "\n"), std::string::npos) << file << " is not a conffile:\n" << conffiles;
        ++listed;
        pos = end + 1;
    }
    EXPECT_GE(listed, 3);
    char link[256] = {};
    ASSERT_GT(readlink(at(kPrefix + "/etc").c_str(), link, sizeof link - 1), 0);
    EXPECT_EQ(std::string(link), "../../etc/opt/kuv");
    for (const char* script : {"postinst", "postrm"}) {
        const std::string path = s_control + "/" + script;
        ASSERT_EQ(access(path.c_str(), X_OK), 0) << script;
        const RunResult r = run({"/bin/sh", "-n", path});
        EXPECT_EQ(r.status, 0) << script << ": " << r.err;
    }
    EXPECT_NE(readFile(s_control + "/postinst").find("deb-systemd-helper --user enable"), std::string::npos);
    // Every file of the package is listed with its checksum, and the unpacked files match.
    const RunResult sums = run({"/usr/bin/md5sum", "--check", "--quiet", s_control + "/md5sums"}, {}, 120000, s_root);
    EXPECT_EQ(sums.status, 0) << sums.out << sums.err;
    EXPECT_NE(readFile(s_control + "/md5sums").find("opt/kuv/bin/kuvgui\n"), std::string::npos);
}

TEST_F(DebianPackage, CopyrightChangelogAndLicense)
{
    const std::string copyright = readFile(at("/usr/share/doc/kuvgui/copyright"));
    EXPECT_EQ(copyright.rfind("Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n", 0), 0u);
    EXPECT_NE(copyright.find("\nFiles: *\n"), std::string::npos) << copyright;
    EXPECT_NE(copyright.find("\nLicense: GPL-2.0-or-later\n"), std::string::npos) << copyright;
    EXPECT_NE(copyright.find("/usr/share/common-licenses/GPL-2"), std::string::npos) << copyright;
    EXPECT_EQ(copyright.find("proprietary"), std::string::npos) << copyright;
    EXPECT_NE(copyright.find("Upstream-Contact: " + field("Maintainer") + "\n"), std::string::npos) << copyright;
    const RunResult log = run({"/bin/sh", "-c", "gzip -dc \"$0\"", at("/usr/share/doc/kuvgui/changelog.Debian.gz")});
    ASSERT_EQ(log.status, 0) << log.err;
    EXPECT_EQ(log.out.rfind("kuvgui (" + field("Version") + ") ", 0), 0u) << log.out;
    EXPECT_NE(log.out.find("\n -- " + field("Maintainer") + "  "), std::string::npos) << log.out;
    const char* source = std::getenv("KUV_SOURCE_DIR");
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(readFile(std::string(source) + "/LICENSE"), readFile("/usr/share/common-licenses/GPL-2"));
}

// Lintian's errors and warnings: none left; what it is told to overlook is justified in the
// package's override file.
TEST_F(DebianPackage, Lintian)
{
    const std::string lintian = findProgram("lintian");
    ASSERT_FALSE(lintian.empty()) << "lintian is not installed: run scripts/setup";
    const RunResult r = run({lintian, "--pedantic", "--display-info", "--show-overrides", s_deb}, {}, 600000);
    std::string complaints;
    size_t pos = 0;
    while (pos < r.out.size()) {
        const size_t end = r.out.find('\n', pos);
        const std::string line = r.out.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        if (line.rfind("E: ", 0) == 0 || line.rfind("W: ", 0) == 0) {
            complaints += line + "\n";
        }
        pos = end == std::string::npos ? r.out.size() : end + 1;
    }
    EXPECT_EQ(complaints, "") << r.out << r.err;
    // It ran, and read the package's overrides (with them shown, its status is 2 by design).
    EXPECT_NE(r.out.find("O: kuvgui: dir-or-file-in-opt"), std::string::npos) << r.out << r.err;
    // Every override is used: one that matches nothing would hide a stale reason.
    EXPECT_EQ(r.out.find("unused-override"), std::string::npos) << r.out;
    std::printf("%s", r.out.c_str());
}

TEST_F(DebianPackage, UnpackedServiceRunsFromTheScratchRoot)
{
    // The tree is relocatable: the unpacked copy starts, takes commands and quits.
    PrivateInstall inst(at(kPrefix));
    const std::string problem = inst.start();
    ASSERT_EQ(problem, "");
    const RunResult status = run({inst.bin("kuvctl"), "status"}, inst.env());
    EXPECT_EQ(status.status, 0) << status.out << status.err;
    const RunResult sent = run({inst.bin("kuvgui"), "right", "/a b", "/c"}, inst.env());
    EXPECT_EQ(sent.status, 1) << sent.out << sent.err;
    EXPECT_TRUE(waitUntil([&] { return scanRequests(inst.journal).size() == 1; }, 30000));
    EXPECT_EQ(scanRequests(inst.journal).at(0), (std::vector<std::string>{"/a b", "/c"}));
    EXPECT_EQ(inst.stop(), "");
}

} // namespace
