#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/BundleInfo.h"
#include "platform/LogRotationTool.h"
#include "tests/Tarnlib/RecordingUtilsDelegate.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RestoredVariable.h"
#include "ui/ScanLogRotator.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString header = "# logfilename [owner:group] mode count size when flags [/pid_file] [sig_num]\n";
const LogRotationTool logrotate(LogRotationTool::Kind::Logrotate, QString(LogRotationTool::logrotatePath));

struct stat statOf(const QString &path)
{
    struct stat info = {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info;
}

// A megabyte of scan lines, different in every round. Compared with
// EXPECT_TRUE so that a failure does not print a megabyte.
QByteArray megabyteLog(int round)
{
    const QByteArray line = "round " + QByteArray::number(round) + ": /home/ann/Downloads/file.zip: OK\n";
    return line.repeated(1048576 / line.size() + 1).left(1048576);
}

class ScanLogRotatorTest : public ::testing::Test
{
protected:
    ScanLogRotatorTest()
    {
        QDir().mkpath(temp);
        qputenv("TMPDIR", temp.toUtf8());
    }

    void setLimit(const QVariant &value)
    {
        home.writeDomain(BundleInfo::bundleIdentifier(), {{"rotateScanlogWhenSizeReaches", value}});
    }
    // Made after the preferences are written, as the agent makes it at startup.
    const QXUtils *utils()
    {
        if (!_utils)
            _utils = std::make_unique<QXUtils>(&delegate, QList<QXUtils::EngineCandidate>{});
        return _utils.get();
    }
    QString writeLog(const QByteArray &contents)
    {
        return home.writeFile(".local/state/korvane/KorvaneVarden-scan.log", contents);
    }
    QStringList archives() const
    {
        return QDir(home.stateHome() + "/korvane").entryList({"KorvaneVarden-scan.log.*"}, QDir::Files, QDir::Name);
    }
    QStringList leftInTemp() const
    {
        return QDir(temp).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }
    static QByteArray decompressed(const QString &archive)
    {
        QProcess bunzip2;
        bunzip2.start("/bin/bunzip2", {"-c", archive});
        bunzip2.waitForFinished();
        return bunzip2.exitCode() == 0 ? bunzip2.readAllStandardOutput() : QByteArray("<not bzip2>");
    }

    RestoredVariable savedTemp{"TMPDIR"};
    FreshPreferences home;
    QString temp = home.filePath("tmp");
    RecordingUtilsDelegate delegate;
    std::unique_ptr<QXUtils> _utils;
};

TEST_F(ScanLogRotatorTest, SizeLimitIsThePreferredSizeOnlyWhenItIsAPositiveNumber)
{
    const QList<QPair<QVariant, qint64>> cases{{QVariant(), 5120}, {"1024", 5120}, {0, 5120},     {-5, 5120},
                                               {0.5, 5120},        {1024, 1024},   {2048.9, 2048}};
    for (const auto &[preference, size] : cases) {
        if (preference.isValid())
            setLimit(preference);
        _utils.reset();
        EXPECT_EQ(ScanLogRotator(utils(), logrotate).sizeLimit(), size) << preference.toString().toStdString();
    }
}

// newsyslog does not run here: a script in its place records what it is given.
TEST_F(ScanLogRotatorTest, NewsyslogIsHandedItsOneEntryFileWhichIsGoneAfterwards)
{
    const QString tool = home.writeFile("bin/newsyslog", "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.args\"\n"
                                                         "cat \"$3\" > \"$0.conf\"\nstat -c %a \"${3%/*}\" > \"$0.mode\"\n");
    QFile::setPermissions(tool, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    ScanLogRotator(utils(), LogRotationTool(LogRotationTool::Kind::Newsyslog, tool)).rotateLogFile();

    const QStringList args = QString::fromUtf8(TemporaryHome::readFile(tool + ".args")).split('\n');
    ASSERT_EQ(args.size(), 4);
    EXPECT_EQ(args.mid(0, 2), (QStringList{"-Cr", "-f"}));
    EXPECT_EQ(QFileInfo(args[2]).fileName(), "scanlogrotate.conf");
    // In a folder of its own, which only we may enter, inside the temporary folder.
    EXPECT_EQ(QFileInfo(QFileInfo(args[2]).path()).path(), temp);
    EXPECT_EQ(TemporaryHome::readFile(tool + ".mode"), "700\n");
    EXPECT_EQ(QString::fromUtf8(TemporaryHome::readFile(tool + ".conf")),
              header + ScanLogRotator::logPath()
                  + QStringLiteral("\t%1:%2\t640\t3\t5120\t*\tCJN").arg(getuid()).arg(getgid()));
    EXPECT_EQ(leftInTemp(), QStringList());
}

TEST_F(ScanLogRotatorTest, LargeLogBecomesABzip2ArchiveOfWhichTheThreeNewestRemainAndAFreshLogStarts)
{
    LogCapture systemLog;
    setLimit(1024);
    ScanLogRotator rotator(utils(), logrotate);
    const QString log = writeLog(megabyteLog(1));
    rotator.rotateLogFile();

    ASSERT_EQ(archives(), QStringList{"KorvaneVarden-scan.log.1.bz2"});
    EXPECT_TRUE(decompressed(log + ".1.bz2") == megabyteLog(1));
    EXPECT_EQ(statOf(log + ".1.bz2").st_mode & 07777, 0640u);
    const struct stat fresh = statOf(log);
    EXPECT_EQ(fresh.st_size, 0);
    EXPECT_EQ(fresh.st_mode & 07777, 0640u);
    EXPECT_EQ(fresh.st_uid, getuid());
    EXPECT_EQ(fresh.st_gid, getgid());
    EXPECT_EQ(leftInTemp(), QStringList());
    EXPECT_EQ(systemLog.lines(), QStringList());

    for (int round = 2; round <= 5; ++round) {
        writeLog(megabyteLog(round));
        rotator.rotateLogFile();
    }
    EXPECT_EQ(archives(), (QStringList{"KorvaneVarden-scan.log.1.bz2", "KorvaneVarden-scan.log.2.bz2",
                                       "KorvaneVarden-scan.log.3.bz2"}));
    EXPECT_TRUE(decompressed(log + ".1.bz2") == megabyteLog(5));
    EXPECT_TRUE(decompressed(log + ".3.bz2") == megabyteLog(3));
}

TEST_F(ScanLogRotatorTest, MissingLogIsCreatedEmptyAndOneBelowTheLimitIsLeftAlone)
{
    ScanLogRotator rotator(utils(), logrotate);
    rotator.rotateLogFile();
    const struct stat created = statOf(ScanLogRotator::logPath());
    EXPECT_TRUE(S_ISREG(created.st_mode));
    EXPECT_EQ(created.st_size, 0);
    EXPECT_EQ(created.st_mode & 07777, 0640u);

    const QByteArray contents = megabyteLog(1).left(100 * 1024);
    writeLog(contents);
    rotator.rotateLogFile();
    EXPECT_TRUE(TemporaryHome::readFile(ScanLogRotator::logPath()) == contents);
    EXPECT_EQ(archives(), QStringList());
    EXPECT_EQ(leftInTemp(), QStringList());
}

// The temporary folder is shared: whatever another user (or an agent killed
// mid-rotation) left under the configuration's name must not stop rotation.
TEST_F(ScanLogRotatorTest, LeftoversOfOthersInTheTemporaryFolderDoNotStopRotation)
{
    LogCapture systemLog;
    setLimit(1024);
    ASSERT_EQ(::chmod(QFile::encodeName(temp).constData(), 01777), 0);
    const QString planted = temp + "/scanlogrotate.conf";
    ASSERT_TRUE(QDir().mkpath(planted + "/inside"));
    if (getuid() == 0) {
        ASSERT_EQ(::chown(QFile::encodeName(planted).constData(), 65534, 65534), 0);
    }
    const QString log = writeLog(megabyteLog(1));
    ScanLogRotator(utils(), logrotate).rotateLogFile();

    EXPECT_EQ(archives(), QStringList{"KorvaneVarden-scan.log.1.bz2"});
    EXPECT_EQ(statOf(log).st_size, 0);
    EXPECT_EQ(systemLog.lines(), QStringList());
    EXPECT_EQ(leftInTemp(), QStringList{"scanlogrotate.conf"});
}

TEST_F(ScanLogRotatorTest, MissingOrFailingToolLeavesTheLogAsItWasAndIsLoggedOnce)
{
    setLimit(1024);
    for (const auto &[program, complaint] :
         {std::pair{"/nonexistent/logrotate", "is not installed"}, {"/bin/false", "exited with status 1"}}) {
        SCOPED_TRACE(program);
        LogCapture systemLog;
        const QString log = writeLog(megabyteLog(1));
        ScanLogRotator rotator(utils(), LogRotationTool(LogRotationTool::Kind::Logrotate, program));
        rotator.rotateLogFile();
        rotator.rotateLogFile();
        EXPECT_TRUE(TemporaryHome::readFile(log) == megabyteLog(1));
        EXPECT_EQ(archives(), QStringList());
        EXPECT_EQ(leftInTemp(), QStringList());
        ASSERT_EQ(systemLog.lines().size(), 1);
        EXPECT_TRUE(systemLog.lines().first().contains(complaint)) << systemLog.lines().first().toStdString();
    }
}

TEST_F(ScanLogRotatorTest, UnwritableConfigurationKeepsTheToolFromRunning)
{
    setLimit(1024);
    const QString log = writeLog(megabyteLog(1));
    for (const QString &folder : {home.filePath("no such folder"), home.writeFile("plain file", "not a folder")}) {
        SCOPED_TRACE(folder.toStdString());
        LogCapture systemLog;
        qputenv("TMPDIR", folder.toUtf8());
        ScanLogRotator(utils(), logrotate).rotateLogFile();
        EXPECT_TRUE(TemporaryHome::readFile(log) == megabyteLog(1));
        EXPECT_EQ(archives(), QStringList());
        EXPECT_TRUE(systemLog.anyContains("scanlogrotate.conf"));
    }
}

} // namespace
