#include "Tarnlib/Tarnlib/ClamdConfiguration.h"
#include "tests/support/QtPrinters.h"

#include <gtest/gtest.h>
#include <tuple>

// A hand-edited clamd.conf (tabs, CRLF, blanks in a value, a repeated option) was misread.
TEST(ClamdConfigurationTest, OptionsAreReadLineByLineSkippingCommentsWithTheLastOneWinning)
{
    const ClamdConfiguration read = ClamdConfiguration::fromText(QStringLiteral("# LocalSocket /commented/out\n"
                                                                                "  MaxThreads 4\n"
                                                                                "TCPAddr\tscan.example.org  \r\n"
                                                                                "MaxThreads 12\n"
                                                                                "DatabaseDirectory /a folder/db\n"));
    EXPECT_FALSE(read.contains(QStringLiteral("LocalSocket")));
    EXPECT_EQ(read.value(QStringLiteral("MaxThreads")), QStringLiteral("12"));
    EXPECT_EQ(read.value(QStringLiteral("TCPAddr")), QStringLiteral("scan.example.org"));
    EXPECT_EQ(read.value(QStringLiteral("DatabaseDirectory")), QStringLiteral("/a folder/db"));
}

// A commented or malformed TCPSocket sent the agent looking for a daemon that is not there.
TEST(ClamdConfigurationTest, DaemonIsRemoteOnlyWithATcpPortAndNoLocalSocket)
{
    const std::tuple<const char *, bool, const char *> cases[] = {
        {"TCPSocket 3310\nTCPAddr scan.example.org\n", true, "scan.example.org:3310"},
        {"TCPSocket 3310\n", true, "localhost:3310"},
        {"TCPAddr ::1\nTCPSocket 3311\n", true, "[::1]:3311"},
        // The client prefers the local socket when both are named.
        {"LocalSocket /run/clamd.sock\nTCPSocket 3310\n", false, "localhost:3310"},
        {"#TCPSocket 3310\n", false, "localhost:0"},
        {"TCPSocket clamd\n", false, "localhost:0"},
        {"TCPSocket 70000\n", false, "localhost:0"},
    };
    for (const auto &[text, remote, name] : cases) {
        const ClamdConfiguration read = ClamdConfiguration::fromText(QString::fromUtf8(text));
        EXPECT_EQ(read.daemonIsRemote(), remote) << text;
        EXPECT_EQ(read.remoteDaemonName(), QString::fromUtf8(name)) << text;
    }
}
