#include "KorvaneVarden_AppDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/SystemLog.h"

#include <QApplication>
#include <QDBusConnection>
#include <QTimer>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("KorvaneVarden"));
    QApplication::setApplicationDisplayName(QStringLiteral("KorvaneVarden"));
    QApplication::setApplicationVersion(BundleInfo::shortVersionString());
    QApplication::setDesktopFileName(BundleInfo::bundleIdentifier());
    // The agent lives in the tray: closing its window must not end it.
    QApplication::setQuitOnLastWindowClosed(false);
    Localization::install(&app);

    KorvaneVarden_AppDelegate delegate;
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate,
                     [&delegate] { delegate.applicationWillTerminate(); });
    QTimer::singleShot(0, &delegate, [&delegate] {
        delegate.applicationDidFinishLaunching();
        // Korvane tells by this name whether the agent runs in this session,
        // and may ask it at once to quit or restart: the name comes only once
        // the agent listens for that.
        QDBusConnection::sessionBus().registerService(BundleInfo::bundleIdentifier());
    });
    return app.exec();
}
