// SPDX-License-Identifier: GPL-2.0-or-later
// Runs the installed service in a private installation: broker, service, second starts, kuvctl, journal.
#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Harness.h"

namespace svctest {

constexpr const char* kTag = "A5F24530-52D7-11EE-AF47-4B159A309AD8";

inline bool exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Attributes as `kuvctl status` prints them ("pid", "status"); empty when no instance holds the tag.
struct Status {
    int exitCode = -1;
    std::map<std::string, std::string> attributes;
    std::string text;
    std::string get(const std::string& key) const
    {
        const auto it = attributes.find(key);
        return it == attributes.end() ? std::string() : it->second;
    }
};

class Service {
public:
    Service() = default;
    ~Service() { stopAll(); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    std::string runtimeKuv() const { return inst.runtime + "/kuv/"; }
    std::string marker() const { return inst.dir + "data/pubcfg/.guiexit"; }

    // The environment of every process of this installation; extra entries are added last.
    std::vector<std::string> env(const std::vector<std::string>& extra = {}) const
    {
        std::vector<std::string> e = inst.env();
        for (const auto& x : extra) {
            e.push_back(x);
        }
        return e;
    }

    void startBroker()
    {
        broker = std::make_unique<kuvtest::Process>(
            std::vector<std::string>{inst.bin("kuv-zelld"), "--foreground"}, env());
        ASSERT_TRUE(kuvtest::waitUntil([&] { return exists(runtimeKuv() + "kuv_zell") || !broker->running(); }, 30000))
            << "broker socket never appeared";
        ASSERT_TRUE(broker->running()) << broker->err();
    }

    void startService(const std::vector<std::string>& extraEnv = {}, const std::vector<std::string>& args = {})
    {
        std::vector<std::string> argv{inst.bin("kuvgui")};
        argv.insert(argv.end(), args.begin(), args.end());
        service = std::make_unique<kuvtest::Process>(argv, env(extraEnv));
    }

    // Broker, then the service, then waits until the service reports itself running.
    void startAll(const std::vector<std::string>& extraEnv = {})
    {
        startBroker();
        startService(extraEnv);
        ASSERT_TRUE(waitRunning()) << "service did not reach status 3\nstdout:\n"
                                   << service->out() << "\nstderr:\n" << service->err() << "\nlog:\n"
                                   << kuvtest::readFile(inst.log());
    }

    Status status() const
    {
        Status s;
        const auto r = kuvtest::run({inst.bin("kuvctl"), "status"}, env(), 30000);
        s.exitCode = r.status;
        s.text = r.out;
        static const std::regex line("\"?(pid|status)\"?\\s*[:=]\\s*\"?([0-9]+)\"?");
        for (std::sregex_iterator it(r.out.begin(), r.out.end(), line), end; it != end; ++it) {
            s.attributes[(*it)[1]] = (*it)[2];
        }
        return s;
    }

    bool waitRunning(int timeoutMs = 60000) const
    {
        return kuvtest::waitUntil(
            [&] {
                const Status s = status();
                return s.exitCode == 0 && s.attributes.count("status") != 0 && s.attributes.at("status") == "3";
            },
            timeoutMs, 100);
    }

    // A second start with the given arguments, run to its end.
    kuvtest::RunResult second(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {}) const
    {
        std::vector<std::string> argv{inst.bin("kuvgui")};
        argv.insert(argv.end(), args.begin(), args.end());
        return kuvtest::run(argv, env(extraEnv), 30000);
    }

    // Asks the running instance to quit and waits for it to end.
    bool quit(int timeoutMs = 60000)
    {
        const auto r = second({"quit"});
        if (r.status != 1) {
            return false;
        }
        return service->wait(timeoutMs);
    }

    std::string journal() const { return kuvtest::readFile(inst.journal()); }
    std::string log() const { return kuvtest::readFile(inst.log()); }

    void stopAll()
    {
        if (service && service->running()) {
            second({"quit"});
            if (!service->wait(20000)) {
                service->signal(SIGKILL);
                service->wait(10000);
            }
        }
        // Instances that are not our children (started by the guard or a script) are asked to quit too.
        for (int round = 0; round < 3; ++round) {
            const Status st = status();
            if (st.exitCode != 0 || st.attributes.count("pid") == 0) {
                break;
            }
            const pid_t pid = static_cast<pid_t>(std::stol(st.attributes.at("pid")));
            second({"quit"});
            if (!kuvtest::waitUntil([&] { return kill(pid, 0) != 0; }, 20000)) {
                kill(pid, SIGKILL);
            }
        }
        if (broker && broker->running()) {
            broker->signal(SIGTERM);
            if (!broker->wait(10000)) {
                broker->signal(SIGKILL);
                broker->wait(10000);
            }
        }
    }

    kuvtest::Install inst;
    std::unique_ptr<kuvtest::Process> broker;
    std::unique_ptr<kuvtest::Process> service;
};

// A run that ends without its exit sequence keeps its objects allocated on purpose; leak reports of a
// sanitizer build would only repeat that.
inline std::string noLeakCheck() { return "ASAN_OPTIONS=detect_leaks=0:abort_on_error=0:detect_odr_violation=0"; }

} // namespace svctest
