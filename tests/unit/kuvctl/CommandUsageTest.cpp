// SPDX-License-Identifier: GPL-2.0-or-later
// Every command's answer to wrong or asking arguments: exit status and the exact lines on stderr.
// These are what scripts and the manual page rely on, so they are pinned word for word.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BusCommand.h"
#include "HistoryCommand.h"
#include "LogsCommand.h"
#include "QuarantineCommand.h"
#include "ScanCommand.h"
#include "StatusCommand.h"

namespace {

using Run = int (*)(const std::vector<std::string>&);

struct UsageCase {
    const char* label;
    Run run;
    std::vector<std::string> args;
    int status;
    std::string err;        // the whole of stderr
    std::string outPrefix;  // stdout starts with this (help texts)
};

void PrintTo(const UsageCase& c, std::ostream* os) { *os << c.label; }

const std::string kApp = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";

std::string busError(const std::string& what, const char* command)
{
    return "kuvctl: " + what + "\nTry 'kuvctl bus " + command + " --help'.\n";
}
std::string scanError(const std::string& what) { return "kuvctl: " + what + "\nTry 'kuvctl scan --help'.\n"; }
std::string quarantineError(const std::string& what)
{
    return "kuvctl quarantine: " + what + "\nTry 'kuvctl quarantine --help'.\n";
}
std::string historyError(const std::string& what)
{
    return "kuvctl history: " + what + "\nTry 'kuvctl history --help'.\n";
}
const std::string kLineCount = "kuvctl logs: line count must be a number from 0 to 1000000\n";

std::vector<std::string> tooManyScanPaths()
{
    std::vector<std::string> args = {"--"};
    args.insert(args.end(), 100001, "--x");
    return args;
}

const UsageCase kCases[] = {
    // bus
    {"bus_without_command", &kuvctl::runBus, {}, 2, "", ""},
    {"bus_unknown_command", &kuvctl::runBus, {"frob"}, 2, "kuvctl: unknown bus command 'frob'\nTry 'kuvctl bus --help'.\n", ""},
    {"bus_help", &kuvctl::runBus, {"--help"}, 0, "", "Usage: kuvctl bus send|listen"},
    {"send_help", &kuvctl::runBus, {"send", "--help"}, 0, "", "Usage: kuvctl bus send --to GUID"},
    {"send_short_help", &kuvctl::runBus, {"send", "-h"}, 0, "", "Usage: kuvctl bus send --to GUID"},
    {"send_help_with_value", &kuvctl::runBus, {"send", "--help=1"}, 0, "", "Usage: kuvctl bus send --to GUID"},
    {"listen_help", &kuvctl::runBus, {"listen", "-h"}, 0, "", "Usage: kuvctl bus listen --guid GUID"},
    {"send_help_then_unknown", &kuvctl::runBus, {"send", "--help", "--bogus"}, 2,
     busError("unknown argument '--bogus'", "send"), ""},
    {"send_missing_value", &kuvctl::runBus, {"send", "--to"}, 2, busError("--to needs a value", "send"), ""},
    {"listen_missing_value", &kuvctl::runBus, {"listen", "--guid"}, 2, busError("--guid needs a value", "listen"), ""},
    {"send_type_not_a_number", &kuvctl::runBus, {"send", "--type", "x"}, 2, busError("--type takes an integer", "send"), ""},
    {"send_type_empty_inline", &kuvctl::runBus, {"send", "--type="}, 2, busError("--type takes an integer", "send"), ""},
    {"send_type_overflow", &kuvctl::runBus, {"send", "--type", "99999999999999999999"}, 2,
     busError("--type takes an integer", "send"), ""},
    {"send_type_trailing", &kuvctl::runBus, {"send", "--type", "12x"}, 2, busError("--type takes an integer", "send"), ""},
    {"listen_count_zero", &kuvctl::runBus, {"listen", "--count", "0"}, 2,
     busError("--count takes a positive integer", "listen"), ""},
    {"send_timeout_too_long", &kuvctl::runBus, {"send", "--timeout", "3600001"}, 2,
     busError("--timeout takes milliseconds, 0 to 3600000", "send"), ""},
    {"send_timeout_negative_inline", &kuvctl::runBus, {"send", "--timeout=-1"}, 2,
     busError("--timeout takes milliseconds, 0 to 3600000", "send"), ""},
    {"send_abbreviation", &kuvctl::runBus, {"send", "--verb"}, 2, busError("unknown argument '--verb'", "send"), ""},
    {"send_abbreviation_missing_value", &kuvctl::runBus, {"send", "--t"}, 2, busError("unknown argument '--t'", "send"), ""},
    {"send_unknown_inline", &kuvctl::runBus, {"send", "--bogus=1"}, 2, busError("unknown argument '--bogus'", "send"), ""},
    {"send_unknown_escaped", &kuvctl::runBus, {"send", "--bo\x01gus"}, 2,
     busError("unknown argument '--bo\\x01gus'", "send"), ""},
    {"send_word", &kuvctl::runBus, {"send", "word"}, 2, busError("unknown argument 'word'", "send"), ""},
    {"send_cluster", &kuvctl::runBus, {"send", "-vh"}, 2, busError("unknown argument '-vh'", "send"), ""},
    {"send_double_dash", &kuvctl::runBus, {"send", "--"}, 2, busError("unknown argument '--'", "send"), ""},
    {"send_needs_to_and_type", &kuvctl::runBus, {"send", "--type", "1"}, 2,
     busError("send needs --to and --type", "send"), ""},
    {"send_bad_to", &kuvctl::runBus, {"send", "--to", "nope", "--type", "1"}, 2,
     busError("--to: 'nope' is not a GUID", "send"), ""},
    {"send_bad_from", &kuvctl::runBus, {"send", "--to=" + kApp, "--type=-7", "--from", "x"}, 2,
     busError("--from: 'x' is not a GUID", "send"), ""},
    {"send_body_and_file", &kuvctl::runBus, {"send", "--to", kApp, "--type", "1", "--body", "x", "--body-file", "f"}, 2,
     busError("--body and --body-file exclude each other", "send"), ""},
    {"listen_needs_guid", &kuvctl::runBus, {"listen", "--type", "5"}, 2, busError("listen needs --guid", "listen"), ""},
    {"listen_bad_guid", &kuvctl::runBus, {"listen", "--guid", "x\x02"}, 2,
     busError("--guid: 'x\\x02' is not a GUID", "listen"), ""},
    // scan
    {"scan_help", &kuvctl::runScan, {"-h"}, 0, "", "Usage: kuvctl scan [options] PATH..."},
    {"scan_no_path", &kuvctl::runScan, {"--json", "-i"}, 2, scanError("scan needs at least one PATH"), ""},
    {"scan_help_then_unknown", &kuvctl::runScan, {"--help", "--bogus"}, 2, scanError("unknown argument '--bogus'"), ""},
    {"scan_timeout_small", &kuvctl::runScan, {"--timeout", "99", "/x"}, 2,
     scanError("--timeout takes milliseconds, 100 to 3600000"), ""},
    {"scan_timeout_missing", &kuvctl::runScan, {"/x", "--timeout"}, 2,
     scanError("--timeout takes milliseconds, 100 to 3600000"), ""},
    {"scan_timeout_inline", &kuvctl::runScan, {"--timeout=500", "/x"}, 2, scanError("unknown argument '--timeout=500'"), ""},
    {"scan_max_size_zero", &kuvctl::runScan, {"--max-file-size", "0", "/x"}, 2,
     scanError("--max-file-size takes a positive byte count"), ""},
    {"scan_socket_missing", &kuvctl::runScan, {"/x", "--socket"}, 2, scanError("--socket needs a value"), ""},
    {"scan_unknown_short", &kuvctl::runScan, {"-x", "/x"}, 2, scanError("unknown argument '-x'"), ""},
    {"scan_cluster", &kuvctl::runScan, {"-ih", "/x"}, 2, scanError("unknown argument '-ih'"), ""},
    {"scan_paths_after_double_dash", &kuvctl::runScan, tooManyScanPaths(), 2,
     scanError("at most 100000 paths in one scan"), ""},
    // logs
    {"logs_help", &kuvctl::runLogs, {"--help", "--bogus"}, 0, "", "Usage: kuvctl logs"},
    {"logs_unknown_then_help", &kuvctl::runLogs, {"--bogus", "--help"}, 2,
     "kuvctl logs: unknown argument \"--bogus\" (see kuvctl logs --help)\n", ""},
    {"logs_short_missing", &kuvctl::runLogs, {"-n"}, 2, "kuvctl logs: -n needs a value\n", ""},
    {"logs_long_missing", &kuvctl::runLogs, {"--lines"}, 2, "kuvctl logs: --lines needs a value\n", ""},
    {"logs_not_a_number", &kuvctl::runLogs, {"-n", "x"}, 2, kLineCount, ""},
    {"logs_attached_not_a_number", &kuvctl::runLogs, {"-nx"}, 2, kLineCount, ""},
    {"logs_too_many", &kuvctl::runLogs, {"--lines=1000001"}, 2, kLineCount, ""},
    {"logs_negative", &kuvctl::runLogs, {"-n", "-1"}, 2, kLineCount, ""},
    {"logs_empty_inline", &kuvctl::runLogs, {"--lines="}, 2, kLineCount, ""},
    {"logs_file_missing", &kuvctl::runLogs, {"--file"}, 2, "kuvctl logs: --file needs a value\n", ""},
    {"logs_file_empty", &kuvctl::runLogs, {"--file", ""}, 2, "kuvctl logs: --file needs a path\n", ""},
    {"logs_file_inline", &kuvctl::runLogs, {"--file=x"}, 2,
     "kuvctl logs: unknown argument \"--file=x\" (see kuvctl logs --help)\n", ""},
    {"logs_flag_with_value", &kuvctl::runLogs, {"--no-follow=1"}, 2,
     "kuvctl logs: unknown argument \"--no-follow=1\" (see kuvctl logs --help)\n", ""},
    {"logs_word", &kuvctl::runLogs, {"word"}, 2, "kuvctl logs: unknown argument \"word\" (see kuvctl logs --help)\n", ""},
    {"logs_zell_and_file", &kuvctl::runLogs, {"--zell", "--file", "x"}, 2,
     "kuvctl logs: --zell and --file exclude each other\n", ""},
    // quarantine
    {"quarantine_help", &kuvctl::runQuarantine, {"list", "-h"}, 0, "", "Usage: kuvctl quarantine list"},
    {"quarantine_nothing", &kuvctl::runQuarantine, {}, 2,
     quarantineError("a subcommand is needed (list, restore, delete, add)"), ""},
    {"quarantine_unknown_option", &kuvctl::runQuarantine, {"list", "--bogus"}, 2,
     quarantineError("unknown option '--bogus'"), ""},
    {"quarantine_inline_value", &kuvctl::runQuarantine, {"--signature=x", "add", "/x"}, 2,
     quarantineError("unknown option '--signature=x'"), ""},
    {"quarantine_unknown_subcommand", &kuvctl::runQuarantine, {"frob"}, 2, quarantineError("unknown subcommand 'frob'"), ""},
    {"quarantine_words_after_double_dash", &kuvctl::runQuarantine, {"--", "-x"}, 2,
     quarantineError("unknown subcommand '-x'"), ""},
    {"quarantine_signature_missing", &kuvctl::runQuarantine, {"add", "/x", "--signature"}, 2,
     quarantineError("--signature needs a value"), ""},
    {"quarantine_restore_without_id", &kuvctl::runQuarantine, {"restore"}, 2,
     quarantineError("restore takes exactly one entry id"), ""},
    {"quarantine_add_two", &kuvctl::runQuarantine, {"add", "a", "b"}, 2, quarantineError("add takes exactly one path"), ""},
    {"quarantine_list_word", &kuvctl::runQuarantine, {"list", "x"}, 2, quarantineError("list takes no arguments"), ""},
    {"quarantine_beside", &kuvctl::runQuarantine, {"list", "--beside"}, 2, quarantineError("--beside belongs to restore"), ""},
    // history
    {"history_help", &kuvctl::runHistory, {"-h"}, 0, "", "Usage: kuvctl history"},
    {"history_unknown", &kuvctl::runHistory, {"--bogus"}, 2, historyError("unknown argument '--bogus'"), ""},
    {"history_two_ids", &kuvctl::runHistory, {"1", "2"}, 2, historyError("unknown argument '2'"), ""},
    {"history_dash", &kuvctl::runHistory, {"-"}, 2, historyError("unknown argument '-'"), ""},
    {"history_empty", &kuvctl::runHistory, {""}, 2, historyError("unknown argument ''"), ""},
    {"history_double_dash", &kuvctl::runHistory, {"--", "5"}, 2, historyError("unknown argument '--'"), ""},
    {"history_not_a_number", &kuvctl::runHistory, {"x"}, 2, historyError("not a job number: 'x'"), ""},
    {"history_zero", &kuvctl::runHistory, {"--json", "0"}, 2, historyError("not a job number: '0'"), ""},
    // status
    {"status_help", &kuvctl::runStatus, {"--help"}, 0, "", "Usage: kuvctl status"},
    {"status_word", &kuvctl::runStatus, {"x"}, 2, "kuvctl: unknown argument 'x'\nTry 'kuvctl status --help'.\n", ""},
    {"status_abbreviation", &kuvctl::runStatus, {"--he"}, 2,
     "kuvctl: unknown argument '--he'\nTry 'kuvctl status --help'.\n", ""},
};

class CommandUsage : public ::testing::TestWithParam<UsageCase> {};

TEST_P(CommandUsage, ExitStatusAndMessages)
{
    const UsageCase& c = GetParam();
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    const int status = c.run(c.args);
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, c.status);
    if (c.status == 2 && c.err.empty()) {
        EXPECT_EQ(err.rfind("Usage: kuvctl", 0), 0u) << err; // the usage itself, on stderr
    } else {
        EXPECT_EQ(err, c.err);
    }
    EXPECT_EQ(out.rfind(c.outPrefix, 0), 0u) << out;
    if (c.status == 0) {
        EXPECT_NE(out.find("Exit status"), std::string::npos) << out;
    } else {
        EXPECT_TRUE(out.empty()) << out;
    }
}

INSTANTIATE_TEST_SUITE_P(Kuvctl, CommandUsage, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<UsageCase>& info) { return std::string(info.param.label); });

} // namespace
