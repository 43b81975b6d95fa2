#include "platform/DesktopEntryWorkspace.h"
#include "tests/support/LogCapture.h"

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
