#include "tests/support/TemporaryHome.h"

#include <QFile>
#include <QProcess>
#include <QTest>
#include <gtest/gtest.h>

namespace {

const QString relaunchPath = QStringLiteral(KORVANE_BINARY_DIR "/bin/relaunch");

class RelaunchTest : public ::testing::Test
{
protected:
    // An agent stand-in that writes its pid and session id into the marker, so
    // the test sees both that it ran and that it leads a session of its own.
    void SetUp() override
    {
        agent = home.writeFile(
            QStringLiteral("agent.sh"),
            QStringLiteral(
                "#!/bin/sh\nset -- $(cut -d' ' -f6 /proc/$$/stat)\necho \"$$ $1\" > '%1.part'\nmv '%1.part' '%1'\n")
                .arg(marker)
                .toUtf8());
        QFile::setPermissions(agent, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    bool agentStarted() const
    {
        return QTest::qWaitFor([&] { return QFile::exists(marker); }, 10000);
    }

    // The exit code (-1 when it did not end normally) and what it said.
    static std::pair<int, QString> run(const QStringList &arguments)
    {
        QProcess relaunch;
        relaunch.start(relaunchPath, arguments);
        if (!relaunch.waitForFinished(10000) || relaunch.exitStatus() != QProcess::NormalExit)
            return {-1, {}};
        return {relaunch.exitCode(), QString::fromLocal8Bit(relaunch.readAllStandardError())};
    }

    TemporaryHome home;
    const QString marker = home.filePath(QStringLiteral("started"));
    QString agent;
};

} // namespace

TEST_F(RelaunchTest, StartsTheAgentAsASessionLeaderOnlyOnceTheOldProcessIsGone)
{
    // cat runs until its input closes, so the test decides when it ends.
    QProcess old;
    old.start(QStringLiteral("cat"), {});
    ASSERT_TRUE(old.waitForStarted());
    const qint64 oldPid = old.processId();
    QProcess relaunch;
    relaunch.start(relaunchPath, {agent, QString::number(oldPid)});
    ASSERT_TRUE(relaunch.waitForStarted());
    EXPECT_FALSE(relaunch.waitForFinished(500)) << "relaunch did not wait for the old process";
    EXPECT_FALSE(QFile::exists(marker));

    old.closeWriteChannel();
    ASSERT_TRUE(old.waitForFinished(10000));
    ASSERT_TRUE(relaunch.waitForFinished(10000));
    EXPECT_EQ(relaunch.exitCode(), 0) << relaunch.readAllStandardError().toStdString();
    ASSERT_TRUE(agentStarted());
    QFile file(marker);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QStringList pidAndSession = QString::fromUtf8(file.readAll()).simplified().split(' ');
    ASSERT_EQ(pidAndSession.size(), 2);
    EXPECT_EQ(pidAndSession[0], pidAndSession[1]) << "the agent is not a session leader";

    // With the old process already gone it starts at once.
    file.close();
    ASSERT_TRUE(QFile::remove(marker));
    const auto [exitCode, errors] = run({agent, QString::number(oldPid)});
    EXPECT_EQ(exitCode, 0) << errors.toStdString();
    EXPECT_TRUE(agentStarted());
}

TEST_F(RelaunchTest, RejectsWrongArgumentsAndAgentsThatCannotRun)
{
    const QString pid = QString::number(QCoreApplication::applicationPid());
    for (const QStringList &arguments :
         {QStringList{}, QStringList{agent}, QStringList{agent, pid, pid}, QStringList{agent, QStringLiteral("12x")},
          QStringList{agent, QStringLiteral("0")}, QStringList{agent, QStringLiteral("-5")}}) {
        const auto [exitCode, errors] = run(arguments);
        EXPECT_EQ(exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_TRUE(errors.contains(QStringLiteral("usage:"))) << errors.toStdString();
    }

    const QString plain = home.writeFile(QStringLiteral("plain.sh"), "#!/bin/sh\n");
    QFile::setPermissions(plain, QFile::ReadOwner | QFile::WriteOwner);
    for (const QString &path : {plain, home.filePath(QStringLiteral("missing")), home.path()}) {
        const auto [exitCode, errors] = run({path, pid});
        EXPECT_EQ(exitCode, 1) << path.toStdString();
        EXPECT_TRUE(errors.contains(path)) << errors.toStdString();
    }
}
