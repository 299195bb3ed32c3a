// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/byte_reader.h"
#include "common/simple_exception.h"
#include "tests/support/syslog_capture.h"

// Logging, and the readers that everything else stands on.

namespace {

using testing::ElementsAre;

TEST(Log, LevelsDecideWhatIsWritten) {
    const kestrel::LogLevel levels[] = {kestrel::kError, kestrel::kWarning, kestrel::kDebug,
                                        kestrel::kVerbose};
    const std::vector<std::string> lines = {"ERR: a(1): x\n", "WARN:a(1): x\n", "DBG: a(1): x\n",
                                            "DBG2:a(1): x\n"};
    for (int32_t level = 0; level <= 5; ++level) {
        const SyslogCapture log(level);
        for (const auto& each : levels)
            kestrel::log_line(each, {"a", 1}, "%s", "x");
        const auto written = static_cast<size_t>(std::max(level - 1, 0));
        EXPECT_EQ(log.lines(), std::vector<std::string>(
                                   lines.begin(), lines.begin() + static_cast<long>(written)));
    }
}

TEST(Log, FirstLevelIsThree) {
    EXPECT_EQ(sx_Debug, 3);
}

TEST(Log, ExceptionsWriteThemselves) {
    const SyslogCapture log(0);
    SimpleException().Log("ERR: ");
    SimpleException().LogPlain("");
    const SimpleException made(".//a/b", 42, "%s %d", "text", 7);
    made.Log("WARN:");
    made.LogPlain("P:");
    SimpleException("f", 1, "%s", std::string(255, 'y').c_str()).LogPlain("");
    SimpleException("f", 1, "%s", std::string(400, 'z').c_str()).LogPlain("");
    EXPECT_THAT(log.lines(), ElementsAre("ERR: Unknown error occured\n", "Unknown error occured\n",
                                         "WARN:.//a/b(42): text 7\n", "P:text 7",
                                         std::string(255, 'y'), std::string(255, 'z')));
}

TEST(Log, ConsoleHelpers) {
    testing::internal::CaptureStdout();
    myprintf("%d\n", 1);
    EXPECT_EQ(myfprintf(stderr, "%d-%s\n", 2, "x"), 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "2-x\n");
}

TEST(ByteReader, NeverLeavesItsBytes) {
    const uint8_t bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A};
    kestrel::ByteReader reader(bytes);
    EXPECT_EQ(reader.u16(), 0x1234);
    EXPECT_EQ(reader.u24(), 0x56789Au);
    EXPECT_TRUE(reader.ok());
    EXPECT_EQ(reader.u32(), 0u);
    EXPECT_FALSE(reader.ok());
    EXPECT_EQ(reader.remaining(), 0u);
}

}  // namespace
