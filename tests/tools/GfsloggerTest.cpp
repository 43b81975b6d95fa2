#include "tests/support/TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/fanotify.h>
#include <unistd.h>

namespace {

const QString loggerPath = QStringLiteral(KORVANE_BINARY_DIR "/bin/gfslogger");
constexpr uid_t nobody = 65534;

bool canWatchFileSystems()
{
    const int fd = fanotify_init(FAN_CLASS_NOTIF, O_RDONLY);
    if (fd < 0)
        return false;
    close(fd);
    return geteuid() == 0;
}

void writeFile(const QString &path, mode_t mode)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    ASSERT_GE(fd, 0) << path.toStdString();
    ASSERT_EQ(::write(fd, "x\n", 2), 2);
    ::close(fd);
}

// The logger as installed: a root-owned set-ID copy in a folder of its own,
// started by root or by another user.
class GfsloggerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!canWatchFileSystems())
            GTEST_SKIP() << "gfslogger needs CAP_SYS_ADMIN and root to be tested; this process has neither";
        QFile::setPermissions(home.path(), QFile::Permissions(0x7755));
        logger = home.filePath("gfslogger");
        ASSERT_TRUE(QFile::copy(loggerPath, logger));
        ASSERT_EQ(::chmod(QFile::encodeName(logger).constData(), 06755), 0);
        watched = home.filePath("watched");
        QDir().mkpath(watched);
    }
    void TearDown() override
    {
        process.terminate();
        process.waitForFinished();
    }

    void start(const QStringList &folders, uid_t user)
    {
        if (user != 0)
            process.setChildProcessModifier([user] {
                if (setgroups(0, nullptr) != 0 || setresgid(user, user, user) != 0 || setresuid(user, user, user) != 0)
                    _exit(127);
            });
        process.start(logger, folders);
        ASSERT_TRUE(process.waitForStarted());
    }
    QStringList lines()
    {
        output += process.readAllStandardOutput();
        return QString::fromUtf8(output).split('\n', Qt::SkipEmptyParts);
    }
    // The marks are set some time after the start: a probe is written until
    // it shows. Afterwards a last file marks the end of what was written.
    bool waitFor(const QString &path)
    {
        return QTest::qWaitFor([&] { return lines().contains(path); }, 10000);
    }
    bool waitUntilWatching()
    {
        const QString probe = watched + "/probe";
        return QTest::qWaitFor(
                   [&] {
                       writeFile(probe, 0644);
                       return waitFor(probe) || process.state() == QProcess::NotRunning;
                   },
                   10000)
               && lines().contains(probe);
    }

    TemporaryHome home;
    QString logger;
    QString watched;
    QProcess process;
    QByteArray output;
};

TEST_F(GfsloggerTest, PrintsOneAbsolutePathALineForFilesWrittenInTheWatchedFolders)
{
    const QString sibling = watched + "-sibling";
    const QString elsewhere = home.filePath("elsewhere");
    for (const QString &folder : {sibling, elsewhere, watched + "/deep/er"})
        QDir().mkpath(folder);
    start({watched + "/"}, 0);
    ASSERT_TRUE(waitUntilWatching()) << process.readAllStandardError().toStdString();

    writeFile(elsewhere + "/not watched", 0644);
    writeFile(watched + "/deep/er/name with spaces", 0644);
    writeFile(sibling + "/by the text", 0644);
    writeFile(watched + "/last", 0644);
    ASSERT_TRUE(waitFor(watched + "/last"));
    QStringList seen = lines();
    seen.removeAll(watched + "/probe");
    EXPECT_EQ(seen, (QStringList{watched + "/deep/er/name with spaces", sibling + "/by the text", watched + "/last"}));
}

TEST_F(GfsloggerTest, AnotherUserHearsOnlyOfFilesItMayReadUnderTheReportedName)
{
    QFile::setPermissions(watched, QFile::Permissions(0x7755));
    const QString closed = watched + "/closed";
    QDir().mkpath(closed);
    QFile::setPermissions(closed, QFile::Permissions(0x7700));
    start({watched}, nobody);
    ASSERT_TRUE(waitUntilWatching()) << process.readAllStandardError().toStdString();

    const QList<std::tuple<QString, mode_t, bool>> files{
        {watched + "/readable", 0644, true},
        {watched + "/private", 0600, false},
        {watched + "/group only", 0640, false},
        {closed + "/readable inside a closed folder", 0644, false},
    };
    for (const auto &[path, mode, shown] : files)
        writeFile(path, mode);
    writeFile(watched + "/last", 0644);
    ASSERT_TRUE(waitFor(watched + "/last"));
    for (const auto &[path, mode, shown] : files)
        EXPECT_EQ(lines().contains(path), shown) << path.toStdString();
}

TEST_F(GfsloggerTest, WithoutTheRightsOrFoldersItSaysWhyAndEnds)
{
    ::chmod(QFile::encodeName(logger).constData(), 0755);
    for (const auto &[folders, complaint] :
         {std::pair{QStringList{watched}, "CAP_SYS_ADMIN"}, {QStringList{"relative/path"}, "usage"}}) {
        SCOPED_TRACE(complaint);
        QProcess run;
        run.setChildProcessModifier([] {
            if (setgroups(0, nullptr) != 0 || setresgid(nobody, nobody, nobody) != 0
                || setresuid(nobody, nobody, nobody) != 0)
                _exit(127);
        });
        run.start(logger, folders);
        ASSERT_TRUE(run.waitForFinished(10000));
        EXPECT_NE(run.exitCode(), 0);
        EXPECT_TRUE(run.readAllStandardOutput().isEmpty());
        EXPECT_TRUE(run.readAllStandardError().contains(complaint));
    }
}

} // namespace
