#include "Tarnlib/Tarnlib/ClamdConfiguration.h"
#include "tests/support/QtPrinters.h"
#include "tests/support/ScriptedPrefix.h"

#include <gtest/gtest.h>

TEST(ClamdConfigurationTest, OptionsAreReadLineByLineSkippingCommentsWithTheLastOneWinning)
{
    const ClamdConfiguration read = ClamdConfiguration::fromText(QStringLiteral("# LocalSocket /commented/out\n"
                                                                                "  MaxThreads 4\n"
                                                                                "TCPAddr\tscan.example.org  \r\n"
                                                                                "\n"
                                                                                "MaxThreads 12\n"
                                                                                "DatabaseDirectory /a folder/db\n"
                                                                                "Foreground\n"));
    EXPECT_FALSE(read.contains(QStringLiteral("LocalSocket")));
    EXPECT_EQ(read.value(QStringLiteral("MaxThreads")), QStringLiteral("12"));
    EXPECT_EQ(read.value(QStringLiteral("TCPAddr")), QStringLiteral("scan.example.org"));
    EXPECT_EQ(read.value(QStringLiteral("DatabaseDirectory")), QStringLiteral("/a folder/db"));
    EXPECT_TRUE(read.contains(QStringLiteral("Foreground")));
    EXPECT_TRUE(read.value(QStringLiteral("PidFile")).isNull());
    // Option names are case-sensitive to the daemon as well.
    EXPECT_FALSE(read.contains(QStringLiteral("maxthreads")));

    ScriptedPrefix folder;
    const ClamdConfiguration fromFile = ClamdConfiguration::fromFile(
        folder.writeFile(QStringLiteral("etc/clamd.conf"), "TCPSocket 3310\nTCPAddr 10.0.0.7\n"));
    EXPECT_EQ(fromFile.remoteDaemonName(), QStringLiteral("10.0.0.7:3310"));
    EXPECT_FALSE(ClamdConfiguration::fromFile(folder.filePath(QStringLiteral("etc/missing.conf")))
                     .contains(QStringLiteral("TCPSocket")));
}

TEST(ClamdConfigurationTest, DaemonIsRemoteOnlyWithATcpPortAndNoLocalSocket)
{
    struct Case
    {
        const char *text;
        bool remote;
        const char *name;
    };
    const Case cases[] = {
        {"TCPSocket 3310\nTCPAddr scan.example.org\n", true, "scan.example.org:3310"},
        {"TCPSocket 3310\n", true, "localhost:3310"},
        {"TCPAddr ::1\nTCPSocket 3311\n", true, "[::1]:3311"},
        // The client prefers the local socket when both are named.
        {"LocalSocket /run/clamd.sock\nTCPSocket 3310\n", false, "localhost:3310"},
        {"LocalSocket /run/clamd.sock\n", false, "localhost:0"},
        {"#TCPSocket 3310\n", false, "localhost:0"},
        {"TCPSocket clamd\n", false, "localhost:0"},
        {"TCPSocket 70000\n", false, "localhost:0"},
    };
    for (const Case &c : cases) {
        const ClamdConfiguration read = ClamdConfiguration::fromText(QString::fromUtf8(c.text));
        EXPECT_EQ(read.daemonIsRemote(), c.remote) << c.text;
        EXPECT_EQ(read.remoteDaemonName(), QString::fromUtf8(c.name)) << c.text;
    }
}

TEST(ClamdConfigurationTest, SizesAreBytesOrKilobytesMegabytesOrGigabytes)
{
    const std::pair<const char *, qint64> cases[] = {
        {"100M", 100LL * 1024 * 1024},
        {"25m", 25LL * 1024 * 1024},
        {"512K", 512 * 1024},
        {"2k", 2048},
        {"1048576", 1048576},
        {"", -1},
        {"1.5M", -1},
        {"4g", 4LL << 30},
        {"M", -1},
        {"-5", -1},
        {"10T", -1},
    };
    for (const auto &[text, bytes] : cases) {
        const ClamdConfiguration read =
            ClamdConfiguration::fromText(QStringLiteral("StreamMaxLength %1\n").arg(QString::fromUtf8(text)));
        EXPECT_EQ(read.sizeValue(QStringLiteral("StreamMaxLength")), bytes) << text;
    }
    EXPECT_EQ(ClamdConfiguration().sizeValue(QStringLiteral("StreamMaxLength")), -1);
}
