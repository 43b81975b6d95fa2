#include "platform/MessageBoxAlertPresenter.h"

#include <QApplication>
#include <QMessageBox>
#include <QTest>
#include <QTimer>
#include <QWindow>
#include <gtest/gtest.h>

#include <functional>

namespace {

// Escape, or closing the box from its title bar, is not a choice of the
// alternate (unsafe) answer: it gives the default one.
TEST(MessageBoxAlertPresenterTest, EscapeOrClosingTheBoxGivesTheDefaultAnswer)
{
    const std::function<void(QMessageBox *)> dismissals[] = {
        [](QMessageBox *box) { QTest::keyClick(box, Qt::Key_Escape); },
        [](QMessageBox *box) { box->windowHandle()->close(); },
    };
    const QString others[] = {QString(), QStringLiteral("Other")};
    MessageBoxAlertPresenter presenter;
    for (const QString &other : others) {
        for (size_t way = 0; way < std::size(dismissals); ++way) {
            SCOPED_TRACE(testing::Message() << "other button '" << other.toStdString() << "', dismissal " << way);
            bool dismissed = false;
            QTimer poll;
            QObject::connect(&poll, &QTimer::timeout, [&] {
                auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
                if (!box || dismissed || !box->windowHandle())
                    return;
                dismissed = true;
                dismissals[way](box);
                // A box that ignored the dismissal must not hang the test.
                QTimer::singleShot(2000, box, [box] { box->done(-2); });
            });
            poll.start(20);
            const int answer = presenter.runModal(
                {QStringLiteral("Abort the scans?"), QStringLiteral("No"), QStringLiteral("Yes"), other, QString()});
            EXPECT_TRUE(dismissed);
            EXPECT_EQ(answer, AlertPresenter::DefaultReturn);
        }
    }
}

} // namespace
