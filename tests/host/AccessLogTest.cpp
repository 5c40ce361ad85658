#include "host/AccessLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrin::host {
namespace {

using namespace std::chrono;

// 2026-11-23T09:14:07.512Z
const system_clock::time_point when =
    system_clock::time_point(seconds(1795425247)) + milliseconds(512);

TEST(AccessLog, timesAreRfc3339InUtcToTheMillisecond) {
    EXPECT_EQ(AccessLog::rfc3339(when), "2026-11-23T09:14:07.512Z");
    EXPECT_EQ(AccessLog::rfc3339(system_clock::time_point(seconds(0))), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(AccessLog::rfc3339(system_clock::time_point(seconds(951782400)) + microseconds(999)),
              "2000-02-29T00:00:00.000Z");
}

// A line is one line whatever a client put in its target, user name or file names: no
// client can forge a second line or break the JSON a collector parses.
TEST(AccessLog, whatClientsSendIsEscapedSoNoLineCanBeForged) {
    const std::vector<std::pair<std::string, std::string>> text = {
        {"plain.txt", "\"plain.txt\""},
        {"a\"b\\c", "\"a\\\"b\\\\c\""},
        {"line\nINFO forged", "\"line\\x0AINFO forged\""},
        {"tab\tdel\x7f", "\"tab\\x09del\\x7F\""},
        {"caf\xC3\xA9 \xE2\x80\xA8", "\"caf\xC3\xA9 \xE2\x80\xA8\""},
        {"bad\xFF\xC3", "\"bad\\xFF\\xC3\""},
        {"\xC0\xAF overlong", "\"\\xC0\\xAF overlong\""},
        {"\xED\xA0\x80 surrogate", "\"\\xED\\xA0\\x80 surrogate\""},
    };
    for (const auto& [raw, quoted] : text) {
        SCOPED_TRACE(raw);
        EXPECT_EQ(AccessLog::quoteText(raw), quoted);
    }
    const std::vector<std::pair<std::string, std::string>> json = {
        {"a\"b\\c", "\"a\\\"b\\\\c\""},
        {"line\r\n", "\"line\\u000D\\u000A\""},
        {"caf\xC3\xA9", "\"caf\xC3\xA9\""},
        {"bad\xFFx", "\"bad\xEF\xBF\xBDx\""},
        {"\xF4\x90\x80\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
    };
    for (const auto& [raw, quoted] : json) {
        SCOPED_TRACE(raw);
        EXPECT_EQ(AccessLog::quoteJson(raw), quoted);
    }
    const AccessLog log(LogFormat::text);
    EXPECT_EQ(log.event(when, LogLevel::error, "cannot store \"x\ny\""),
              "2026-11-23T09:14:07.512Z ERROR cannot store \"x y\"\n");
}

TEST(AccessLog, aRequestLineHasEverythingAnOperatorAsksAbout) {
    const std::vector<std::pair<std::string, std::uint64_t>> files = {{"a b.txt", 12}, {"c\"d", 0}};
    RequestRecord record;
    record.time = when;
    record.client = "10.0.0.5";
    record.method = "POST";
    record.target = "/ORVANE%20Drive";
    record.status = 200;
    record.bytesIn = 5321;
    record.duration = microseconds(12345);
    record.user = "alice";
    record.files = &files;
    record.filesNotListed = 3;
    EXPECT_EQ(AccessLog(LogFormat::text).request(record),
              "2026-11-23T09:14:07.512Z INFO 10.0.0.5 POST \"/ORVANE%20Drive\" 200 in=5321 "
              "ms=12.3 user=\"alice\" files=\"a b.txt\":12,\"c\\\"d\":0 +3 files\n");
    EXPECT_EQ(AccessLog(LogFormat::json).request(record),
              "{\"time\":\"2026-11-23T09:14:07.512Z\",\"level\":\"info\",\"event\":\"request\","
              "\"client\":\"10.0.0.5\",\"method\":\"POST\",\"target\":\"/ORVANE%20Drive\","
              "\"status\":200,\"bytes_in\":5321,\"duration_ms\":12.3,\"user\":\"alice\","
              "\"files\":[{\"name\":\"a b.txt\",\"size\":12},{\"name\":\"c\\\"d\",\"size\":0}],"
              "\"files_not_listed\":3}\n");

    RequestRecord refused;
    refused.time = when;
    refused.client = "::1";
    refused.method = "POST";
    refused.target = "/users";
    refused.status = 413;
    refused.reason = "body of 2 GiB is over the limit";
    EXPECT_EQ(AccessLog(LogFormat::text).request(refused),
              "2026-11-23T09:14:07.512Z WARN ::1 POST \"/users\" 413 in=0 ms=0.0 "
              "reason=\"body of 2 GiB is over the limit\"\n");
    refused.status = 500;
    EXPECT_NE(AccessLog(LogFormat::json).request(refused).find("\"level\":\"error\""),
              std::string::npos);

    // Durations in milliseconds to a tenth, rounded half up.
    for (const auto& [micros, shown] : std::vector<std::pair<long, std::string>>{
             {49, "0.0"}, {50, "0.1"}, {1449, "1.4"}, {1450, "1.5"}, {999950, "1000.0"}}) {
        refused.duration = microseconds(micros);
        const std::string line = AccessLog(LogFormat::text).request(refused);
        EXPECT_NE(line.find(" ms=" + shown + " "), std::string::npos) << line;
    }
}

} // namespace
} // namespace kestrin::host
