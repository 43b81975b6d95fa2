#include "RealEngineAgentFixture.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <unistd.h>

namespace {

// Watches held by this process's inotify instances.
int inotifyWatches()
{
    int watches = 0;
    for (const QString &fd : QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::System | QDir::Files)) {
        char target[64] = {};
        const QByteArray link = QFile::encodeName(QStringLiteral("/proc/self/fd/") + fd);
        if (::readlink(link.constData(), target, sizeof target - 1) < 0 || qstrcmp(target, "anon_inode:inotify") != 0)
            continue;
        QFile info(QStringLiteral("/proc/self/fdinfo/") + fd);
        if (info.open(QIODevice::ReadOnly))
            watches += info.readAll().count("inotify wd:");
    }
    return watches;
}

class ExcludedFolderWatchTest : public RealEngineAgentFixture
{
protected:
    void SetUp() override
    {
        for (int i = 0; i < 300; ++i)
            QDir().mkpath(home.filePath(QStringLiteral("Watched/node_modules/%1").arg(i)));
        const QVariantMap exclusion{{QStringLiteral("excludePattern"), QStringLiteral("/node_modules/")},
                                    {QStringLiteral("excludeEnabled"), true}};
        launchWatching({}, {{QStringLiteral("ExcludePatterns"), QVariantList{exclusion}}});
    }
};

// A watcher that ignored the exclusion would spend a watch on each of the 300
// folders; one that took the exclusion for the whole truth would miss what
// leaves the excluded folder, or what it holds once the exclusion is gone.
TEST_F(ExcludedFolderWatchTest, AnExcludedFolderTakesNoWatchYetWhatLeavesItOrOutlivesTheExclusionIsScanned)
{
    EXPECT_LT(inotifyWatches(), 300);

    home.writeFile("Watched/node_modules/7/moved.com", EngineFixture::eicarContents());
    ASSERT_TRUE(QDir().rename(home.filePath("Watched/node_modules/7"), home.filePath("Watched/seven")));
    EXPECT_TRUE(waitUntilListed({home.filePath("Watched/seven/moved.com")})) << listedPaths().join(' ').toStdString();

    watch({folder(QStringLiteral("~/Watched"))});
    agent->restartWatching(nullptr);
    agent->events()->flushEventStreamSync();
    EXPECT_GE(inotifyWatches(), 300);
    const QString late = write("node_modules/9/late.com");
    EXPECT_TRUE(waitUntilListed({late})) << listedPaths().join(' ').toStdString();
}

} // namespace
