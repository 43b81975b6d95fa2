#include "tests/support/TemporaryHome.h"

#include <QFile>
#include <QProcess>
#include <QTest>
#include <gtest/gtest.h>

namespace {

const QString relaunchPath = QStringLiteral(KORVANE_BINARY_DIR "/bin/relaunch");

// An agent stand-in that writes its pid and session id into the marker, so
// the test sees both that it ran and that it leads a session of its own.
QString writeAgent(const TemporaryHome &home, const QString &marker)
{
    const QString path = home.writeFile(
        QStringLiteral("agent.sh"),
        QStringLiteral("#!/bin/sh\nset -- $(cut -d' ' -f6 /proc/$$/stat)\necho \"$$ $1\" > '%1.part'\nmv '%1.part' '%1'\n")
            .arg(marker)
            .toUtf8());
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

bool waitForMarker(const QString &marker)
{
    return QTest::qWaitFor([&] { return QFile::exists(marker); }, 10000);
}

struct Outcome
{
    int exitCode = -1;
    QString errors;
};

Outcome runRelaunch(const QStringList &arguments)
{
    QProcess relaunch;
    relaunch.start(relaunchPath, arguments);
    if (!relaunch.waitForFinished(10000) || relaunch.exitStatus() != QProcess::NormalExit)
        return {};
    return {relaunch.exitCode(), QString::fromLocal8Bit(relaunch.readAllStandardError())};
}

} // namespace

TEST(RelaunchTest, StartsTheAgentOnlyAfterTheOldProcessEnded)
{
    TemporaryHome home;
    const QString marker = home.filePath(QStringLiteral("started"));
    const QString agent = writeAgent(home, marker);
    // cat runs until its input closes, so the test decides when it ends.
    QProcess old;
    old.start(QStringLiteral("cat"), {});
    ASSERT_TRUE(old.waitForStarted());

    QProcess relaunch;
    relaunch.start(relaunchPath, {agent, QString::number(old.processId())});
    ASSERT_TRUE(relaunch.waitForStarted());
    EXPECT_FALSE(relaunch.waitForFinished(500)) << "relaunch did not wait for the old process";
    EXPECT_FALSE(QFile::exists(marker));

    old.closeWriteChannel();
    ASSERT_TRUE(old.waitForFinished(10000));
    ASSERT_TRUE(relaunch.waitForFinished(10000));
    EXPECT_EQ(relaunch.exitCode(), 0) << relaunch.readAllStandardError().toStdString();
    ASSERT_TRUE(waitForMarker(marker));

    QFile file(marker);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QStringList pidAndSession = QString::fromUtf8(file.readAll()).split(' ', Qt::SkipEmptyParts);
    ASSERT_EQ(pidAndSession.size(), 2);
    EXPECT_EQ(pidAndSession[0].trimmed(), pidAndSession[1].trimmed()) << "the agent is not a session leader";
}

TEST(RelaunchTest, StartsAtOnceWhenTheProcessIsAlreadyGone)
{
    TemporaryHome home;
    const QString marker = home.filePath(QStringLiteral("started"));
    const QString agent = writeAgent(home, marker);
    QProcess gone;
    gone.start(QStringLiteral("true"), {});
    ASSERT_TRUE(gone.waitForStarted());
    const qint64 pid = gone.processId();
    ASSERT_TRUE(gone.waitForFinished(10000));

    const Outcome outcome = runRelaunch({agent, QString::number(pid)});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors.toStdString();
    EXPECT_TRUE(waitForMarker(marker));
}

TEST(RelaunchTest, RejectsWrongArgumentsAndAgentsThatCannotRun)
{
    TemporaryHome home;
    const QString agent = writeAgent(home, home.filePath(QStringLiteral("started")));
    const QString pid = QString::number(QCoreApplication::applicationPid());

    for (const QStringList &arguments : {QStringList{}, QStringList{agent}, QStringList{agent, pid, pid},
                                         QStringList{agent, QStringLiteral("12x")}, QStringList{agent, QStringLiteral("0")},
                                         QStringList{agent, QStringLiteral("-5")}}) {
        const Outcome outcome = runRelaunch(arguments);
        EXPECT_EQ(outcome.exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_TRUE(outcome.errors.contains(QStringLiteral("usage:"))) << outcome.errors.toStdString();
    }

    const QString plain = home.writeFile(QStringLiteral("plain.sh"), "#!/bin/sh\n");
    QFile::setPermissions(plain, QFile::ReadOwner | QFile::WriteOwner);
    for (const QString &path : {plain, home.filePath(QStringLiteral("missing")), home.path()}) {
        const Outcome outcome = runRelaunch({path, pid});
        EXPECT_EQ(outcome.exitCode, 1) << path.toStdString();
        EXPECT_TRUE(outcome.errors.contains(path)) << outcome.errors.toStdString();
    }
}
