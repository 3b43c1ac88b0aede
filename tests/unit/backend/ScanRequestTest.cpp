// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <string>

#include "KuvScanProtocol.h"
#include "ScanRequest.h"

using kuv::scand::RequestError;
using kuv::scand::ScanRequest;

namespace {

bool parse(const std::string& body, ScanRequest& out, RequestError& error)
{
    return kuv::scand::parseScanRequest(body.data(), body.size(), out, error);
}

} // namespace

TEST(ScanRequest, ReadsJobPathsAndOptions)
{
    ScanRequest r;
    RequestError e;
    ASSERT_TRUE(parse(R"({"job":"j1","paths":["/a b","/c\nd",{"b64":"L3j/"}],)"
                      R"("options":{"report_clean":true,"max_file_size":1024,"scan_archives":false,)"
                      R"("quarantine":true,"exclude":["/x"]},"unknown":1})",
                      r, e))
        << e.detail;
    EXPECT_EQ(r.job, "j1");
    ASSERT_EQ(r.paths.size(), 3u);
    EXPECT_EQ(r.paths[0], "/a b");
    EXPECT_EQ(r.paths[1], "/c\nd");
    EXPECT_EQ(r.paths[2], std::string("/x\xff"));
    EXPECT_TRUE(r.options.reportClean);
    EXPECT_EQ(r.options.maxFileSize, 1024u);
    EXPECT_FALSE(r.options.scanArchives);
    EXPECT_TRUE(r.options.quarantine);
    ASSERT_EQ(r.options.exclude.size(), 1u);
    EXPECT_EQ(r.options.exclude[0], "/x");
}

TEST(ScanRequest, DefaultsWithoutOptions)
{
    ScanRequest r;
    RequestError e;
    ASSERT_TRUE(parse(R"({"job":"j","paths":["/"]})", r, e));
    EXPECT_FALSE(r.options.reportClean);
    EXPECT_TRUE(r.options.scanArchives);
    EXPECT_EQ(r.options.maxFileSize, 0u);
}

struct RefusedRequest {
    const char* body;
    const char* error;
};

class ScanRequestRefused : public ::testing::TestWithParam<RefusedRequest> {};

TEST_P(ScanRequestRefused, WithTheErrorAndADetail)
{
    const RefusedRequest& c = GetParam();
    ScanRequest r;
    RequestError e;
    EXPECT_FALSE(parse(c.body, r, e)) << c.body;
    EXPECT_EQ(e.error, c.error) << c.body << ": " << e.detail;
    EXPECT_FALSE(e.detail.empty()) << c.body;
}

INSTANTIATE_TEST_SUITE_P(
    ScanRequest, ScanRequestRefused,
    ::testing::Values(RefusedRequest{"", "bad_json"}, RefusedRequest{"not json", "bad_json"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[\"/a\"]} trailing", "bad_json"},
                      RefusedRequest{"{\"job\":\"j\",\"job\":\"k\",\"paths\":[\"/a\"]}", "bad_json"},
                      RefusedRequest{"[1,2]", "bad_request"}, RefusedRequest{"{\"paths\":[\"/a\"]}", "bad_request"},
                      RefusedRequest{"{\"job\":7,\"paths\":[\"/a\"]}", "bad_request"},
                      RefusedRequest{"{\"job\":\"\",\"paths\":[\"/a\"]}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\"}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[]}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[\"\"]}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[5]}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[{\"b64\":\"!!\"}]}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[{\"b64\":\"L2EAYg==\"}]}", "bad_request"}, // "/a\0b"
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[\"/a\"],\"options\":[]}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[\"/a\"],\"options\":{\"report_clean\":1}}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[\"/a\"],\"options\":{\"max_file_size\":-1}}", "bad_request"},
                      RefusedRequest{"{\"job\":\"j\",\"paths\":[\"/a\"],\"options\":{\"exclude\":\"/x\"}}", "bad_request"}));

TEST(ScanRequest, CapsSizesBeforeParsing)
{
    RequestError e;
    ScanRequest r;
    std::string huge(static_cast<size_t>(kuvscan::kMaxRequestBytes) + 1, ' ');
    EXPECT_FALSE(parse(huge, r, e));
    EXPECT_EQ(e.error, "too_large");

    std::string longJob = "{\"job\":\"" + std::string(kuvscan::kMaxJobIdBytes + 1, 'j') + "\",\"paths\":[\"/a\"]}";
    EXPECT_FALSE(parse(longJob, r, e));
    EXPECT_EQ(e.error, "bad_request");

    std::string many = "{\"job\":\"j\",\"paths\":[";
    for (int i = 0; i <= kuvscan::kMaxRequestPaths; ++i) {
        many += i ? ",\"/a\"" : "\"/a\"";
    }
    many += "]}";
    EXPECT_FALSE(parse(many, r, e));
    EXPECT_EQ(e.error, "bad_request");
    EXPECT_EQ(e.job, "j") << "the job id is known, so the error names it";

    std::string deep = "{\"job\":\"j\",\"paths\":[\"/a\"],\"x\":" + std::string(100, '[') + std::string(100, ']') + "}";
    EXPECT_FALSE(parse(deep, r, e));
}

TEST(ScanRequest, CancelAndStatus)
{
    std::string job;
    RequestError e;
    const std::string cancel = R"({"job":"abc"})";
    EXPECT_TRUE(kuv::scand::parseCancel(cancel.data(), cancel.size(), job, e));
    EXPECT_EQ(job, "abc");
    const std::string bad = R"({"job":null})";
    EXPECT_FALSE(kuv::scand::parseCancel(bad.data(), bad.size(), job, e));

    bool subscribe = true;
    EXPECT_TRUE(kuv::scand::parseStatusRequest("", 0, subscribe, e));
    EXPECT_FALSE(subscribe);
    const std::string sub = R"({"subscribe":true})";
    EXPECT_TRUE(kuv::scand::parseStatusRequest(sub.data(), sub.size(), subscribe, e));
    EXPECT_TRUE(subscribe);
    const std::string wrong = R"({"subscribe":"yes"})";
    EXPECT_FALSE(kuv::scand::parseStatusRequest(wrong.data(), wrong.size(), subscribe, e));
    EXPECT_EQ(e.error, "bad_request");
}
