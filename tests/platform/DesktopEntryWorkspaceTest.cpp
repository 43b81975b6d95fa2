#include "platform/DesktopEntryWorkspace.h"
#include "tests/support/FakeFileManager.h"
#include "tests/support/LogCapture.h"

#include <QDBusConnection>
#include <QDesktopServices>
#include <QTest>
#include <QUrl>
#include <gtest/gtest.h>

namespace {

// Takes the URLs that QDesktopServices would hand to xdg-open.
class UrlRecorder : public QObject
{
    Q_OBJECT
public:
    UrlRecorder() { QDesktopServices::setUrlHandler(QStringLiteral("file"), this, "open"); }
    ~UrlRecorder() override { QDesktopServices::unsetUrlHandler(QStringLiteral("file")); }

    QList<QUrl> opened;

public slots:
    void open(const QUrl &url) { opened.append(url); }
};

TEST(DesktopEntryWorkspaceTest, ShowingAFileAsksTheFileManagerToSelectItByItsUri)
{
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("file-manager"));
    {
        FakeFileManager fileManager(bus);
        ASSERT_TRUE(fileManager.isRegistered());
        UrlRecorder folders;
        DesktopEntryWorkspace workspace;

        EXPECT_TRUE(workspace.selectFile(QStringLiteral("/home/u/Down loads/50% off.exe")));
        EXPECT_TRUE(workspace.selectFile(QStringLiteral("/home/u/b")));

        ASSERT_TRUE(QTest::qWaitFor([&] { return fileManager.calls().size() == 2; }, 10000));
        EXPECT_EQ(fileManager.calls().at(0).uris, QStringList{"file:///home/u/Down%20loads/50%25%20off.exe"});
        EXPECT_EQ(fileManager.calls().at(0).startupId, QString(""));
        EXPECT_EQ(fileManager.calls().at(1).uris, QStringList{"file:///home/u/b"});
        QTest::qWait(100);
        EXPECT_TRUE(folders.opened.isEmpty());
    }
    QDBusConnection::disconnectFromBus(QStringLiteral("file-manager"));
}

TEST(DesktopEntryWorkspaceTest, WithoutAFileManagerOnTheBusTheFilesFolderIsOpened)
{
    LogCapture log;
    UrlRecorder folders;
    DesktopEntryWorkspace workspace;

    EXPECT_TRUE(workspace.selectFile(QStringLiteral("/home/u/Down loads/eicar.com")));

    ASSERT_TRUE(QTest::qWaitFor([&] { return !folders.opened.isEmpty(); }, 10000));
    EXPECT_EQ(folders.opened, QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/home/u/Down loads"))});
    EXPECT_TRUE(log.anyContains(QStringLiteral("no file manager showed the file")));
}

} // namespace

#include "DesktopEntryWorkspaceTest.moc"
