#include "events/QXFSEventStreamWatcher.h"
#include "platform/ApplicationHost.h"
#include "platform/PrivilegedExecution.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString builtLogger = QStringLiteral(KORVANE_BINARY_DIR "/bin/gfslogger");
const QString builtRepair = QStringLiteral(KORVANE_BINARY_DIR "/bin/gfslogger-repair");

// Stands in for the password prompt only: a granted request runs the
// program as it is, since the tests run as root.
class PromptlessExecution : public PrivilegedExecution
{
public:
    enum Answer { Grant, Refuse, NoPrompt };

    PromptlessExecution() { PrivilegedExecution::setSharedExecution(this); }
    ~PromptlessExecution() override { PrivilegedExecution::setSharedExecution(nullptr); }
    Result runWithPrivileges(const QString &program) override
    {
        asked << program;
        if (answer == NoPrompt)
            return {};
        if (answer == Refuse)
            return {true, 126};
        return {true, QProcess::execute(program, {})};
    }

    Answer answer = Grant;
    QStringList asked;
};

class RecordingWatcherDelegate : public QXFSEventStreamWatcherDelegate
{
public:
    void addToWaitingList(const QString &path) override { paths << path; }
    QStringList paths;
};

struct stat statOf(const QString &path)
{
    struct stat info = {};
    ::lstat(QFile::encodeName(path).constData(), &info);
    return info;
}

class QXFSEventStreamWatcherTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ApplicationHost::setTerminateHandler([this] { ++terminations; });
        folder = home.filePath("bin");
        QDir().mkpath(folder);
        logger = folder + "/gfslogger";
        QXFSEventStreamWatcher::setGfsloggerPath(logger);
    }
    void TearDown() override
    {
        QXFSEventStreamWatcher::setGfsloggerPath(QString());
        ApplicationHost::setTerminateHandler({});
    }
    void install(const QString &from, uid_t owner, mode_t mode) const
    {
        QFile::remove(logger);
        ASSERT_TRUE(QFile::copy(from, logger));
        ASSERT_EQ(::chown(QFile::encodeName(logger).constData(), owner, 0), 0);
        ASSERT_EQ(::chmod(QFile::encodeName(logger).constData(), mode), 0);
    }
    QString writeLoggerScript(const QByteArray &body) const
    {
        const QString script = home.writeFile("bin/gfslogger", "#!/bin/sh\n" + body);
        ::chmod(QFile::encodeName(script).constData(), 0755);
        return script;
    }

    TemporaryHome home;
    LogCapture log;
    PromptlessExecution execution;
    RecordingWatcherDelegate delegate;
    QString folder;
    QString logger;
    int terminations = 0;
};

TEST_F(QXFSEventStreamWatcherTest, LoggerNotRootOwnedAndSetIdIsRepairedThroughTheAuthorisedProgramOrTheAgentEnds)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "changing a file's owner to root needs root";
    ASSERT_TRUE(QFile::copy(builtRepair, folder + "/gfslogger-repair"));
    struct Case
    {
        const char *what;
        uid_t owner;
        mode_t mode;
        PromptlessExecution::Answer answer;
        bool asked;
        QString line;
        bool ends;
        mode_t modeAfter;
    };
    const QList<Case> cases{
        {"already right", 0, 06755, PromptlessExecution::Grant, false, "permissions look good...", false, 06755},
        {"not set-ID", 0, 0755, PromptlessExecution::Grant, true,
         "Authentication succeeded and permissions set accordingly", false, 06755},
        {"someone else's", 65534, 06755, PromptlessExecution::Grant, true,
         "Authentication succeeded and permissions set accordingly", false, 06755},
        {"refused", 0, 0755, PromptlessExecution::Refuse, true, "Authentication failed (126). Sorry!", true, 0755},
        {"no prompt", 0, 0755, PromptlessExecution::NoPrompt, true, "error: -1", false, 0755},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        install(builtLogger, c.owner, c.mode);
        execution.asked.clear();
        execution.answer = c.answer;
        terminations = 0;
        LogCapture lines;
        QXFSEventStreamWatcher watcher(&delegate);
        EXPECT_EQ(execution.asked, c.asked ? QStringList{folder + "/gfslogger-repair"} : QStringList());
        EXPECT_TRUE(lines.contains(c.line)) << lines.lines().join('\n').toStdString();
        EXPECT_EQ(terminations, c.ends ? 1 : 0);
        EXPECT_EQ(statOf(logger).st_mode & 07777, c.modeAfter);
        EXPECT_EQ(statOf(logger).st_uid, c.modeAfter == 06755 ? 0u : c.owner);
    }
}

TEST_F(QXFSEventStreamWatcherTest, RepairProgramActsOnlyWhereNoOneButRootCouldHavePutTheLogger)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "the repair program runs as root";
    const QString repair = folder + "/gfslogger-repair";
    ASSERT_TRUE(QFile::copy(builtRepair, repair));
    const QList<std::pair<const char *, std::function<void()>>> setups{
        {"a folder others may write to", [&] { ::chmod(QFile::encodeName(folder).constData(), 0777); }},
        {"a link in place of the logger",
         [&] {
             const QString target = home.writeFile("elsewhere", "#!/bin/sh\n");
             ::chmod(QFile::encodeName(target).constData(), 0755);
             QFile::remove(logger);
             ASSERT_TRUE(QFile::link(target, logger));
         }},
        {"arguments", [] {}},
    };
    for (const auto &[what, setup] : setups) {
        SCOPED_TRACE(what);
        ::chmod(QFile::encodeName(folder).constData(), 0755);
        QFile::remove(logger);
        install(builtLogger, 65534, 0755);
        setup();
        const struct stat before = statOf(logger);
        const int status =
            QProcess::execute(repair, QString(what) == "arguments" ? QStringList{logger} : QStringList());
        EXPECT_EQ(status, 1);
        EXPECT_EQ(statOf(logger).st_mode, before.st_mode);
        EXPECT_EQ(statOf(logger).st_uid, before.st_uid);
        if (S_ISLNK(before.st_mode)) {
            EXPECT_EQ(statOf(home.filePath("elsewhere")).st_mode & 07777, 0755u);
        }
    }
}

TEST_F(QXFSEventStreamWatcherTest, LinesInAWatchedFolderReachTheDelegateOnceWholeAndNeverFromTheTrash)
{
    execution.answer = PromptlessExecution::NoPrompt;
    const QString watched = home.filePath("Documents");
    const QString trash = home.filePath(".local/share/Trash/files/old.txt");
    const QString split = watched + "/arrives in two reads.txt";
    writeLoggerScript(QStringLiteral("printf '%1\\n%2\\n%3\\n%4\\n%5\\n'\n"
                                     "printf 'logger trouble' >&2\n"
                                     "printf '%6'; sleep 0.3; printf '%7\\n'\n"
                                     "exec sleep 30\n")
                          .arg(watched + "/inner/both.txt", home.filePath("Documents-old/sibling.txt"),
                               home.filePath("Music/elsewhere.txt"), trash, watched + "/plain.txt", split.left(20),
                               split.mid(20))
                          .toUtf8());
    QXFSEventStreamWatcher watcher(&delegate);
    // Sent from the logger's thread: counted on this one, where the test reads it.
    int ended = 0;
    QObject::connect(&watcher, &QXFSEventStreamWatcher::loggerEnded, &watcher, [&ended] { ++ended; });
    watcher.start();
    watcher.startWatching({watched, watched + "/inner", home.filePath(".local/share"), home.filePath("Documents-")});

    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate.paths.size() >= 4; }, 10000))
        << delegate.paths.join('\n').toStdString();
    QTest::qWait(100);
    EXPECT_EQ(delegate.paths, (QStringList{watched + "/inner/both.txt", home.filePath("Documents-old/sibling.txt"),
                                           watched + "/plain.txt", split}));
    EXPECT_TRUE(log.contains("gfslogger found: " + split));
    EXPECT_TRUE(log.contains("error:logger trouble"));

    watcher.stopWatching();
    EXPECT_TRUE(log.contains("attempting to terminate gfslogger"));
    // The logger may end before the wait begins, so the count is what is waited on.
    EXPECT_TRUE(QTest::qWaitFor([&] { return ended > 0; }, 10000));
}

} // namespace
