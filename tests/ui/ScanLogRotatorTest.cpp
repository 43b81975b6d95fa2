#include "Tarnlib/Tarnlib/QXUtils.h"
#include "platform/BundleInfo.h"
#include "platform/LogRotationTool.h"
#include "tests/Tarnlib/RecordingUtilsDelegate.h"
#include "tests/support/FreshPreferences.h"
#include "tests/support/LogCapture.h"
#include "ui/ScanLogRotator.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString header = QStringLiteral("# logfilename [owner:group] mode count size when flags [/pid_file] [sig_num]\n");
const LogRotationTool logrotate(LogRotationTool::Kind::Logrotate, QString(LogRotationTool::logrotatePath));

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

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
    const QByteArray line = QByteArray("round ") + QByteArray::number(round) + ": /home/ann/Downloads/file.zip: OK\n";
    return line.repeated(1048576 / line.size() + 1).left(1048576);
}

class ScanLogRotatorTest : public ::testing::Test
{
protected:
    ScanLogRotatorTest()
        : temp(home.filePath(QStringLiteral("tmp")))
        , savedTemp(qgetenv("TMPDIR"))
    {
        QDir().mkpath(temp);
        qputenv("TMPDIR", temp.toUtf8());
    }

    ~ScanLogRotatorTest() override
    {
        if (savedTemp.isNull())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", savedTemp);
    }

    void setLimit(const QVariant &value)
    {
        home.writeDomain(BundleInfo::bundleIdentifier(), {{QStringLiteral("rotateScanlogWhenSizeReaches"), value}});
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
        return home.writeFile(QStringLiteral(".local/state/korvane/KorvaneVarden-scan.log"), contents);
    }

    QStringList archives() const
    {
        return QDir(home.stateHome() + QStringLiteral("/korvane"))
            .entryList({QStringLiteral("KorvaneVarden-scan.log.*")}, QDir::Files, QDir::Name);
    }

    QStringList leftInTemp() const
    {
        return QDir(temp).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    }

    static QByteArray decompressed(const QString &archive)
    {
        QProcess bunzip2;
        bunzip2.start(QStringLiteral("/bin/bunzip2"), {QStringLiteral("-c"), archive});
        bunzip2.waitForFinished();
        return bunzip2.exitCode() == 0 ? bunzip2.readAllStandardOutput() : QByteArray("<not bzip2>");
    }

    FreshPreferences home;
    QString temp;
    QByteArray savedTemp;
    RecordingUtilsDelegate delegate;
    std::unique_ptr<QXUtils> _utils;
};

TEST_F(ScanLogRotatorTest, EntryCarriesThePreferredSizeOnlyWhenItIsAPositiveNumber)
{
    const QList<QPair<QVariant, QString>> cases{
        {QVariant(), "5120"},
        {QStringLiteral("1024"), "5120"},
        {0, "5120"},
        {-5, "5120"},
        {0.5, "5120"},
        {1024, "1024"},
        {2048.9, "2048"},
    };
    const QString log = home.stateHome() + QStringLiteral("/korvane/KorvaneVarden-scan.log");
    ASSERT_EQ(ScanLogRotator::logPath(), log);
    for (const auto &[preference, size] : cases) {
        if (preference.isValid())
            setLimit(preference);
        _utils.reset();
        const ScanLogRotator rotator(utils(), logrotate);
        EXPECT_EQ(LogRotationTool::newsyslogConfiguration(log, 501, 20, rotator.sizeLimit()),
                  header + log + QStringLiteral("\t501:20\t640\t3\t") + size + QStringLiteral("\t*\tCJN"))
            << preference.toString().toStdString();
    }
}

TEST(LogRotationToolTest, BothConfigurationsTakeThePathLiterallyAndRotateBySizeIntoThreeBzip2Archives)
{
    const QString log = QStringLiteral("/home/ann %2/logs/KorvaneVarden-scan.log");
    EXPECT_EQ(LogRotationTool::newsyslogConfiguration(log, 1000, 100, 1024),
              header + log + QStringLiteral("\t1000:100\t640\t3\t1024\t*\tCJN"));
    EXPECT_EQ(LogRotationTool::logrotateConfiguration(log, 1000, 100, 1024),
              QStringLiteral("\"/home/ann %2/logs/KorvaneVarden-scan.log\" {\n"
                             "    size 1024k\n"
                             "    rotate 3\n"
                             "    compress\n"
                             "    compresscmd /bin/bzip2\n"
                             "    uncompresscmd /bin/bunzip2\n"
                             "    compressext .bz2\n"
                             "    create 0640 1000 100\n"
                             "    su 1000 100\n"
                             "    missingok\n"
                             "    nomail\n"
                             "}\n"));
}

// newsyslog does not run here: a script in its place records what it is given.
TEST_F(ScanLogRotatorTest, NewsyslogIsHandedItsOneEntryFileWhichIsGoneAfterwards)
{
    const QString tool = home.writeFile(QStringLiteral("bin/newsyslog"),
                                        "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.args\"\ncat \"$3\" > \"$0.conf\"\n");
    QFile::setPermissions(tool, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    ScanLogRotator rotator(utils(), LogRotationTool(LogRotationTool::Kind::Newsyslog, tool));
    rotator.rotateLogFile();

    const QString configuration = temp + QStringLiteral("/scanlogrotate.conf");
    EXPECT_EQ(readFile(tool + ".args"), (QStringLiteral("-Cr\n-f\n") + configuration + QStringLiteral("\n")).toUtf8());
    const QString entry = QStringLiteral("\t%1:%2\t640\t3\t5120\t*\tCJN").arg(getuid()).arg(getgid());
    EXPECT_EQ(QString::fromUtf8(readFile(tool + ".conf")), header + ScanLogRotator::logPath() + entry);
    EXPECT_EQ(leftInTemp(), QStringList());
}

TEST_F(ScanLogRotatorTest, LargeLogBecomesABzip2ArchiveAndAFreshLogOfTheUserStarts)
{
    LogCapture systemLog;
    setLimit(1024);
    const QString log = writeLog(megabyteLog(1));
    ScanLogRotator(utils(), logrotate).rotateLogFile();

    ASSERT_EQ(archives(), QStringList{QStringLiteral("KorvaneVarden-scan.log.1.bz2")});
    EXPECT_TRUE(decompressed(log + ".1.bz2") == megabyteLog(1));
    EXPECT_EQ(statOf(log + ".1.bz2").st_mode & 07777, 0640u);
    const struct stat fresh = statOf(log);
    EXPECT_EQ(fresh.st_size, 0);
    EXPECT_EQ(fresh.st_mode & 07777, 0640u);
    EXPECT_EQ(fresh.st_uid, getuid());
    EXPECT_EQ(fresh.st_gid, getgid());
    EXPECT_EQ(leftInTemp(), QStringList());
    EXPECT_EQ(systemLog.lines(), QStringList());
}

TEST_F(ScanLogRotatorTest, AtMostTheThreeNewestArchivesRemain)
{
    setLimit(1024);
    ScanLogRotator rotator(utils(), logrotate);
    QString log;
    for (int round = 1; round <= 5; ++round) {
        log = writeLog(megabyteLog(round));
        rotator.rotateLogFile();
    }
    EXPECT_EQ(archives(), (QStringList{"KorvaneVarden-scan.log.1.bz2", "KorvaneVarden-scan.log.2.bz2",
                                       "KorvaneVarden-scan.log.3.bz2"}));
    EXPECT_TRUE(decompressed(log + ".1.bz2") == megabyteLog(5));
    EXPECT_TRUE(decompressed(log + ".3.bz2") == megabyteLog(3));
}

TEST_F(ScanLogRotatorTest, LogBelowTheLimitIsLeftAlone)
{
    const QByteArray contents = megabyteLog(1).left(100 * 1024);
    const QString log = writeLog(contents);
    ScanLogRotator(utils(), logrotate).rotateLogFile();
    EXPECT_TRUE(readFile(log) == contents);
    EXPECT_EQ(archives(), QStringList());
}

TEST_F(ScanLogRotatorTest, MissingLogAndItsFolderAreCreatedEmpty)
{
    ScanLogRotator(utils(), logrotate).rotateLogFile();
    const struct stat created = statOf(ScanLogRotator::logPath());
    EXPECT_TRUE(S_ISREG(created.st_mode));
    EXPECT_EQ(created.st_size, 0);
    EXPECT_EQ(created.st_mode & 07777, 0640u);
    EXPECT_EQ(leftInTemp(), QStringList());
}

TEST_F(ScanLogRotatorTest, MissingOrFailingToolLeavesTheLogAsItWasAndIsLoggedOnce)
{
    setLimit(1024);
    const QList<QPair<QString, QString>> tools{
        {QStringLiteral("/nonexistent/logrotate"), QStringLiteral("is not installed")},
        {QStringLiteral("/bin/false"), QStringLiteral("exited with status 1")},
    };
    for (const auto &[program, complaint] : tools) {
        LogCapture systemLog;
        const QString log = writeLog(megabyteLog(1));
        ScanLogRotator rotator(utils(), LogRotationTool(LogRotationTool::Kind::Logrotate, program));
        rotator.rotateLogFile();
        rotator.rotateLogFile();
        EXPECT_TRUE(readFile(log) == megabyteLog(1)) << program.toStdString();
        EXPECT_EQ(archives(), QStringList());
        EXPECT_EQ(leftInTemp(), QStringList());
        ASSERT_EQ(systemLog.lines().size(), 1) << program.toStdString();
        EXPECT_TRUE(systemLog.lines().first().contains(complaint)) << systemLog.lines().first().toStdString();
    }
}

TEST_F(ScanLogRotatorTest, UnwritableConfigurationKeepsTheToolFromRunning)
{
    setLimit(1024);
    const QString log = writeLog(megabyteLog(1));
    const QString plainFile = home.writeFile(QStringLiteral("plain file"), "not a folder");
    for (const QString &folder : {home.filePath(QStringLiteral("no such folder")), plainFile}) {
        LogCapture systemLog;
        qputenv("TMPDIR", folder.toUtf8());
        ScanLogRotator(utils(), logrotate).rotateLogFile();
        EXPECT_TRUE(readFile(log) == megabyteLog(1)) << folder.toStdString();
        EXPECT_EQ(archives(), QStringList());
        EXPECT_TRUE(systemLog.anyContains(QStringLiteral("scanlogrotate.conf"))) << folder.toStdString();
    }
}

} // namespace
