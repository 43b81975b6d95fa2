#include "AgentFixture.h"

#include "app/Dispatcher.h"
#include "events/QXFSEventStreamWatcher.h"
#include "platform/PropertyList.h"
#include "platform/SystemVersion.h"

#include <QDir>
#include <QTest>

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The version file and the logger are supplied; the logger is installed
// root-owned and set-ID, as the repair would leave it.
class LegacyLoggerStartupTest : public AgentFixture
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "installing the logger set-ID root needs root";
        const QString logger = home.filePath("libexec/gfslogger");
        QDir().mkpath(home.filePath("libexec"));
        QFile::copy(QStringLiteral(KORVANE_BINARY_DIR "/bin/gfslogger"), logger);
        ::chmod(QFile::encodeName(logger).constData(), 06755);
        QXFSEventStreamWatcher::setGfsloggerPath(logger);
        SystemVersion::setPath(home.filePath("SystemVersion.plist"));
        AgentFixture::SetUp();
    }
    void TearDown() override
    {
        AgentFixture::TearDown();
        SystemVersion::setPath(QStringLiteral("/System/Library/CoreServices/SystemVersion.plist"));
        QXFSEventStreamWatcher::setGfsloggerPath(QString());
    }
};

TEST_F(LegacyLoggerStartupTest, OnlyAVersionFileNaming106ChoosesTheLoggerWatcher)
{
    const QList<std::pair<QVariant, bool>> cases{
        {QVariantMap{{"ProductVersion", "10.6.8"}}, true}, {QVariantMap{{"ProductVersion", "10.6"}}, true},
        {QVariantMap{{"ProductVersion", "10.16"}}, false}, {QVariantMap{{"ProductVersion", "11.6"}}, false},
        {QVariantMap{{"ProductName", "Mac OS X"}}, false}, {QVariant(), false},
    };
    for (const auto &[contents, chosen] : cases) {
        SCOPED_TRACE(contents.toMap().value("ProductVersion").toString().toStdString());
        QFile::remove(SystemVersion::path());
        if (contents.isValid())
            PropertyList::writeXmlFile(SystemVersion::path(), contents);
        agent = std::make_unique<KorvaneVarden_AppDelegate>(engines());
        agent->applicationDidFinishLaunching();
        EXPECT_EQ(agent->needGfslogger(), chosen);
        EXPECT_EQ(agent->gfsWatcher() != nullptr, chosen);
    }
}

TEST_F(LegacyLoggerStartupTest, On106AFileWrittenInAWatchedFolderReachesTheWaitingListThroughTheLogger)
{
    const int probe = fanotify_init(FAN_CLASS_NOTIF, O_RDONLY);
    if (probe < 0)
        GTEST_SKIP() << "gfslogger needs CAP_SYS_ADMIN to watch file systems; this process lacks it";
    ::close(probe);
    PropertyList::writeXmlFile(SystemVersion::path(), QVariantMap{{"ProductVersion", "10.6.8"}});
    const QString watched = home.filePath("Downloads");
    QDir().mkpath(watched);
    watch({folder(watched)});
    agent->applicationDidFinishLaunching();
    agent->dispatcher()->dispatchTimer()->stop();
    agent->continueStartup();
    EXPECT_TRUE(agent->watching());

    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            home.writeFile("Downloads/invoice.pdf", "%PDF");
            return agent->dispatcher()->waitingList().contains(watched + "/invoice.pdf");
        },
        10000))
        << log.lines().join('\n').toStdString();

    agent->stopWatching(nullptr);
    EXPECT_TRUE(log.contains("attempting to terminate gfslogger"));
}

} // namespace
