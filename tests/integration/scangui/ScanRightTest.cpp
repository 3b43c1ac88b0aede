// SPDX-License-Identifier: GPL-2.0-or-later
// `kuvgui right PATH...` from a second start, end to end on the installed tree: the running instance's
// shell turns it into one job on the back end (here kuv-fake-scand as DIR/bin/kuv-scand) with the
// paths exactly as given, and the verdicts reach the journal; the shell's ctrl line stays as it was.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <iostream>
#include <sstream>

#include <json/json.h>

#include "ScanPaths.h"
#include "ServiceSupport.h"

namespace {

std::vector<Json::Value> records(const std::string& text, const std::string& event)
{
    std::vector<Json::Value> out;
    std::istringstream in(text);
    Json::CharReaderBuilder b;
    for (std::string line; std::getline(in, line);) {
        Json::Value v;
        std::string errs;
        std::istringstream one(line);
        if (Json::parseFromStream(b, one, &v, &errs) && v["event"].asString() == event) {
            out.push_back(v);
        }
    }
    return out;
}

std::string bytesOf(const Json::Value& v)
{
    std::string out;
    EXPECT_TRUE(kuvscan::pathFromJson(v, out)) << v.toStyledString();
    return out;
}

} // namespace

TEST(ScanRight, ContextMenuPathsBecomeOneJobOnTheBackEndWithTheirExactBytes)
{
    svctest::Service s;
    kuvtest::TempDir data("kuvscanright");
    const std::string record = data.path() + "/requests.jsonl";
    // The scripted back end stands in for the real one, which the service's start must not launch.
    ASSERT_EQ(0, unlink(s.inst.bin("kuv-scand").c_str()));
    ASSERT_EQ(0, system(("cp " + std::string(FAKE_SCAND) + " " + s.inst.bin("kuv-fake-scand")).c_str()));
    s.startAll();
    kuvtest::Process scand({s.inst.bin("kuv-fake-scand"), "--record", record}, s.env());
    ASSERT_TRUE(kuvtest::waitUntil([&] { return scand.err().find("ready as") != std::string::npos || !scand.running(); },
                                   30000));
    ASSERT_TRUE(scand.running()) << scand.err();

    const std::vector<std::string> paths{data.path() + "/eicar.com", data.path() + "/a b.txt",
                                         data.path() + "/line\nfeed.txt", data.path() + "/caf\xe9-\xff.bin"};
    for (const auto& p : paths) {
        kuvtest::writeFile(p, "x");
    }
    std::vector<std::string> args{"right"};
    args.insert(args.end(), paths.begin(), paths.end());
    const auto r = s.second(args);
    EXPECT_EQ(1, r.status) << r.err;
    ASSERT_TRUE(kuvtest::waitUntil([&] { return !records(s.journal(), "scan-end").empty(); }, 60000)) << s.journal();

    // The ctrl line is the shell's record of the request, unchanged; the scan records follow it.
    const auto ctrl = records(s.journal(), "ctrl");
    ASSERT_FALSE(ctrl.empty());
    EXPECT_EQ(1, ctrl.back()["code"].asInt());
    EXPECT_EQ(paths.size(), ctrl.back()["paths"].size());
    const auto end = records(s.journal(), "scan-end")[0];
    EXPECT_EQ("done", end["state"].asString());
    EXPECT_EQ(1, end["infected"].asInt());

    std::ifstream in(record);
    std::string line;
    ASSERT_TRUE(std::getline(in, line));
    Json::Value request;
    std::istringstream one(line);
    std::string errs;
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), one, &request, &errs)) << line;
    EXPECT_EQ(end["job"].asString(), request["job"].asString());
    ASSERT_EQ(paths.size(), request["paths"].size());
    for (Json::ArrayIndex i = 0; i < paths.size(); ++i) {
        // From the command line through the command channel and the shell to the bus, not a byte
        // changes, a name that is not UTF-8 included (the journal marks it {"b64": ...}).
        EXPECT_EQ(paths[i], bytesOf(ctrl.back()["paths"][i])) << i;
        EXPECT_EQ(paths[i], bytesOf(request["paths"][i])) << i;
    }
    const auto results = records(s.journal(), "scan-result");
    ASSERT_EQ(paths.size(), results.size());
    EXPECT_EQ(paths[3], bytesOf(results[3]["path"]));
    EXPECT_EQ(paths[0], bytesOf(results[0]["path"]));
    EXPECT_EQ("infected", results[0]["verdict"].asString());
    EXPECT_EQ("Eicar-Test-Signature", results[0]["signature"].asString());
    EXPECT_EQ(paths[2], bytesOf(results[2]["path"]));
    EXPECT_EQ("clean", results[2]["verdict"].asString());
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "scan job")) << s.log();
}
