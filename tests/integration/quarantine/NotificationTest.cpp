// SPDX-License-Identifier: GPL-2.0-or-later
// The installed shell notifies through a real notification service on a private session bus
// (dbus-run-session with kuv_fake_notifyd): findings and long scans are announced, the action opens
// the results; without any session bus nothing fails.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include <json/json.h>

#include "ServiceSupport.h"
#include "StoreDb.h"

namespace {

std::string findProgram(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::stringstream in(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(in, dir, ':');) {
        const std::string cand = dir + "/" + name;
        if (access(cand.c_str(), X_OK) == 0) {
            return cand;
        }
    }
    return std::string();
}

std::vector<Json::Value> records(const std::string& file)
{
    std::vector<Json::Value> out;
    std::stringstream in(kuvtest::readFile(file));
    Json::CharReaderBuilder b;
    for (std::string line; std::getline(in, line);) {
        Json::Value v;
        std::string errs;
        std::unique_ptr<Json::CharReader> r(b.newCharReader());
        if (r->parse(line.data(), line.data() + line.size(), &v, &errs)) {
            out.push_back(v);
        }
    }
    return out;
}

kuv::store::JobRecord job(const std::string& name, int64_t infected, int64_t durationMs)
{
    kuv::store::JobRecord j;
    j.job = name;
    j.startMs = kuv::store::nowMs() - durationMs;
    j.durationMs = durationMs;
    j.state = "done";
    j.paths = {"/home/user/Downloads"};
    j.files = 25;
    j.infected = infected;
    for (int64_t i = 0; i < infected; ++i) {
        j.findings.push_back({"/home/user/Downloads/f" + std::to_string(i), "infected", "Eicar-Test-Signature", "", ""});
    }
    return j;
}

// Records a job as the back end does: another process writing the user's history.
void record(const svctest::Service& svc, kuv::store::JobRecord j)
{
    setenv("XDG_CONFIG_HOME", svc.inst.configHome().c_str(), 1);
    std::vector<std::string> notices;
    std::string error;
    ASSERT_TRUE(kuv::store::recordJob(svc.inst.dataHome() + "/kuv", j, notices, error)) << error;
}

TEST(Notifications, FindingsAndLongScansAreAnnouncedAndTheActionOpensTheResults)
{
    const std::string runSession = findProgram("dbus-run-session");
    if (runSession.empty()) {
        GTEST_SKIP() << "dbus-run-session (package dbus) is not installed: run scripts/setup";
    }
    svctest::Service svc;
    const std::string recordFile = svc.inst.dataHome() + "-notifications.jsonl";
    const std::string readyFile = svc.inst.dataHome() + "-bus";
    kuvtest::Process server({runSession, "--", KUV_FAKE_NOTIFYD, recordFile, readyFile, "--invoke-action", "open-results"},
                            svc.env());
    // dbus-run-session leaves its bus daemon and the server behind when it is killed alone: the whole
    // process group goes when the test ends, however it ends.
    struct KillGroup {
        pid_t pid;
        ~KillGroup()
        {
            if (pid > 0) {
                ::kill(-pid, SIGKILL);
            }
        }
    } killGroup{server.pid()};
    ASSERT_TRUE(kuvtest::waitUntil([&] { return kuvtest::readFile(readyFile).find("unix:") == 0; }, 30000))
        << server.err();
    std::string address = kuvtest::readFile(readyFile);
    address.erase(address.find_last_not_of('\n') + 1);

    kuvtest::writeFile(svc.inst.dir + "etc/gui_shell.conf", R"({"stop_backend_on_quit":false,"language":"en"})");
    svc.startAll({"DBUS_SESSION_BUS_ADDRESS=" + address, svctest::noLeakCheck()});
    if (HasFatalFailure()) {
        return;
    }
    // A quick clean scan says nothing; one with findings and a long one do, in that order.
    record(svc, job("quick-clean", 0, 2000));
    record(svc, job("found-two", 2, 3000));
    record(svc, job("long-clean", 0, 180000));
    ASSERT_TRUE(kuvtest::waitUntil([&] { return records(recordFile).size() >= 2; }, 30000))
        << kuvtest::readFile(svc.inst.log());
    const std::vector<Json::Value> got = records(recordFile);
    ASSERT_EQ(got.size(), 2u) << kuvtest::readFile(recordFile);
    EXPECT_EQ(got[0]["app"].asString(), "kuvgui");
    EXPECT_EQ(got[0]["summary"].asString(), "Threats found");
    EXPECT_NE(got[0]["body"].asString().find("2 threat"), std::string::npos) << got[0]["body"].asString();
    EXPECT_EQ(got[0]["urgency"].asInt(), 2);
    EXPECT_EQ(got[0]["actions"][1].asString(), "Show results");
    EXPECT_EQ(got[1]["summary"].asString(), "Scan finished");
    EXPECT_EQ(got[1]["urgency"].asInt(), 1);

    // The action chosen on the first notification opens that job's results in the window.
    EXPECT_TRUE(kuvtest::waitForFileContains(svc.inst.log(), "notification action: opening the results of history job 2",
                                             30000))
        << kuvtest::readFile(svc.inst.log());
    EXPECT_TRUE(svc.quit());
    server.signal(SIGTERM);
    EXPECT_TRUE(server.wait(30000));
}

TEST(Notifications, WithoutASessionBusNothingFails)
{
    svctest::Service svc;
    svc.startAll({"DBUS_SESSION_BUS_ADDRESS=unix:path=" + svc.inst.dataHome() + "-no-bus", svctest::noLeakCheck()});
    if (HasFatalFailure()) {
        return;
    }
    record(svc, job("found-one", 1, 3000));
    EXPECT_TRUE(kuvtest::waitForFileContains(svc.inst.log(), "shown in the window only", 30000))
        << kuvtest::readFile(svc.inst.log());
    EXPECT_TRUE(svc.service->running());
    EXPECT_EQ(svc.status().exitCode, 0);
    EXPECT_TRUE(svc.quit());
}

} // namespace
