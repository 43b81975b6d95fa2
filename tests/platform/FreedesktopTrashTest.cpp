#include "platform/FreedesktopTrash.h"
#include "tests/support/MountedTmpfs.h"
#include "tests/support/TemporaryHome.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <functional>

#include <sys/stat.h>
#include <unistd.h>

namespace {

bool writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size();
}

// The Path= line of a .trashinfo, and whether the rest of it is as the
// specification wants: the group line first and a local deletion time
// between before and after.
QByteArray recordedPath(const QString &infoPath, const QDateTime &before, const QDateTime &after)
{
    const QList<QByteArray> lines = TemporaryHome::readFile(infoPath).split('\n');
    if (lines.size() != 4 || lines[0] != "[Trash Info]" || !lines[1].startsWith("Path=")
        || !lines[2].startsWith("DeletionDate=") || !lines[3].isEmpty())
        return "unexpected: " + lines.join('|');
    const QDateTime deleted = QDateTime::fromString(QString::fromLatin1(lines[2].mid(13)), "yyyy-MM-ddTHH:mm:ss");
    if (!deleted.isValid() || deleted < before.addSecs(-1) || deleted > after)
        return "deletion date out of range: " + lines[2];
    return lines[1].mid(5);
}

class FreedesktopTrashTest : public ::testing::Test
{
protected:
    QString uid() const { return QString::number(::getuid()); }

    TemporaryHome home;
    FreedesktopTrash trash;
    QString error;
};

TEST_F(FreedesktopTrashTest, AFileInTheHomeGoesToTheHomeTrashWithItsAbsolutePathPercentEncoded)
{
    // ~/.local/share does not exist yet: the Trash is made all the same.
    ASSERT_FALSE(QFileInfo::exists(home.filePath(".local/share")));
    const QString file = home.writeFile("Down loads/50% off.exe", "payload");
    const QDateTime before = QDateTime::currentDateTime();

    const QString trashed = trash.moveToTrash(file, &error);

    const QString folder = home.filePath(".local/share/Trash");
    EXPECT_EQ(trashed, folder + "/files/50% off.exe") << error.toStdString();
    EXPECT_FALSE(QFileInfo::exists(file));
    EXPECT_EQ(TemporaryHome::readFile(trashed), "payload");
    EXPECT_EQ(recordedPath(folder + "/info/50% off.exe.trashinfo", before, QDateTime::currentDateTime()),
              QFile::encodeName(QFileInfo(home.path()).canonicalFilePath()) + "/Down%20loads/50%25%20off.exe");
    for (const char *sub : {"", "/files", "/info"})
        EXPECT_EQ(TemporaryHome::modeOf(folder + sub), 0700) << sub;
}

TEST_F(FreedesktopTrashTest, ATakenNameGetsANumberAndAFileWithoutItsRecordStillHoldsItsName)
{
    const QString folder = home.filePath(".local/share/Trash");
    // Left over by some other program: a file in files/ without its .trashinfo.
    ASSERT_TRUE(writeFile(folder + "/files/eicar.3.com", "orphan"));

    QStringList trashed;
    for (const char *dir : {"a", "b", "c"})
        trashed << trash.moveToTrash(home.writeFile(QString(dir) + "/eicar.com", dir), &error);

    EXPECT_EQ(trashed,
              QStringList({folder + "/files/eicar.com", folder + "/files/eicar.2.com", folder + "/files/eicar.4.com"}))
        << error.toStdString();
    EXPECT_EQ(TemporaryHome::readFile(folder + "/files/eicar.4.com"), "c");
    EXPECT_EQ(TemporaryHome::readFile(folder + "/files/eicar.3.com"), "orphan");
    EXPECT_EQ(QDir(folder + "/info").entryList(QDir::Files),
              QStringList({"eicar.2.com.trashinfo", "eicar.4.com.trashinfo", "eicar.com.trashinfo"}));
    EXPECT_EQ(trash.trashFolders().first(), folder);
}

TEST_F(FreedesktopTrashTest, AFileOnAnotherVolumeGoesToThatVolumesTrashWithAPathRelativeToItsTop)
{
    const struct
    {
        const char *name;
        // How the volume's shared .Trash looks beforehand.
        std::function<void(const QString &top)> prepare;
        const char *expectedTrash; // relative to the top; %1 is the uid
    } cases[] = {
        {"no shared Trash", [](const QString &) {}, ".Trash-%1"},
        {"a sticky shared Trash",
         [](const QString &top) {
             QDir(top).mkdir(".Trash");
             ::chmod(QFile::encodeName(top + "/.Trash"), 01777);
         },
         ".Trash/%1"},
        {"a shared Trash without the sticky bit",
         [](const QString &top) {
             QDir(top).mkdir(".Trash");
             ::chmod(QFile::encodeName(top + "/.Trash"), 0777);
         },
         ".Trash-%1"},
        {"a link to a sticky folder as shared Trash",
         [](const QString &top) {
             QDir(top).mkdir("elsewhere");
             ::chmod(QFile::encodeName(top + "/elsewhere"), 01777);
             QFile::link(top + "/elsewhere", top + "/.Trash");
         },
         ".Trash-%1"},
    };
    for (const auto &c : cases) {
        MountedTmpfs volume;
        if (!volume.isMounted())
            GTEST_SKIP() << volume.reason().toStdString();
        c.prepare(volume.path());
        const QString file = volume.path() + "/in box/a file%.com";
        ASSERT_TRUE(writeFile(file, c.name));
        const QDateTime before = QDateTime::currentDateTime();

        const QString trashed = trash.moveToTrash(file, &error);

        const QString folder = volume.path() + '/' + QString(c.expectedTrash).arg(uid());
        EXPECT_EQ(trashed, folder + "/files/a file%.com") << c.name << ": " << error.toStdString();
        EXPECT_EQ(TemporaryHome::readFile(trashed), c.name) << c.name;
        EXPECT_FALSE(QFileInfo::exists(file)) << c.name;
        EXPECT_EQ(recordedPath(folder + "/info/a file%.com.trashinfo", before, QDateTime::currentDateTime()),
                  "in%20box/a%20file%25.com")
            << c.name;
        EXPECT_EQ(TemporaryHome::modeOf(folder), 0700) << c.name;
        EXPECT_TRUE(trash.trashFolders().contains(folder)) << c.name;
    }
}

TEST_F(FreedesktopTrashTest, AFileOnAVolumeWithoutAUsableTrashIsCopiedIntoTheHomeTrash)
{
    const struct
    {
        const char *name;
        std::function<bool(const MountedTmpfs &volume)> spoil;
    } cases[] = {
        {"the top cannot be written", [](const MountedTmpfs &volume) { return volume.makeReadOnlyExcept("srv"); }},
        {"the volume's Trash is a file",
         [this](const MountedTmpfs &volume) { return writeFile(volume.path() + "/.Trash-" + uid(), "x"); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        MountedTmpfs volume;
        if (!volume.isMounted())
            GTEST_SKIP() << volume.reason().toStdString();
        const QString file = volume.path() + "/srv/in box/a file.com";
        ASSERT_TRUE(writeFile(file, c.name));
        ASSERT_TRUE(c.spoil(volume));
        const QDateTime before = QDateTime::currentDateTime();

        const QString trashed = trash.moveToTrash(file, &error);

        const QString folder = home.filePath(".local/share/Trash");
        EXPECT_EQ(trashed, folder + "/files/a file.com") << error.toStdString();
        EXPECT_EQ(TemporaryHome::readFile(trashed), c.name);
        EXPECT_FALSE(QFileInfo::exists(file));
        EXPECT_EQ(QDir(folder + "/files").entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                  QStringList{"a file.com"});
        EXPECT_EQ(recordedPath(folder + "/info/a file.com.trashinfo", before, QDateTime::currentDateTime()),
                  QFile::encodeName(QFileInfo(volume.path()).canonicalFilePath()) + "/srv/in%20box/a%20file.com");
        QDir(folder).removeRecursively();
    }
}

TEST_F(FreedesktopTrashTest, AFileThatCannotBeTrashedStaysWhereItWasAndLeavesNoRecord)
{
    const QString gone = home.filePath("gone.exe");
    EXPECT_EQ(trash.moveToTrash(gone, &error), QString());
    EXPECT_TRUE(error.contains(gone)) << error.toStdString();
    // The volume is full.
    MountedTmpfs volume(64 * 1024);
    if (!volume.isMounted())
        GTEST_SKIP() << volume.reason().toStdString();
    const QString file = volume.path() + "/eicar.com";
    ASSERT_TRUE(writeFile(file, "payload"));
    volume.fill();

    error.clear();
    EXPECT_EQ(trash.moveToTrash(file, &error), QString());
    EXPECT_FALSE(error.isEmpty());
    EXPECT_EQ(TemporaryHome::readFile(file), "payload");
    EXPECT_TRUE(QDir(volume.path() + "/.Trash-" + uid() + "/info").entryList(QDir::Files).isEmpty());
}

} // namespace
