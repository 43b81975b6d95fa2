#include "KorvaneVarden_AppDelegate.h"
#include "platform/BundleInfo.h"
#include "platform/Localization.h"
#include "platform/SessionInstance.h"
#include "platform/SystemLog.h"

#include <QApplication>
#include <QTimer>

namespace {

// A second agent in one session would scan every file again and rewrite the
// same list: it asks the running one to show its list and leaves.
int handOver(const SessionInstance &instance)
{
    QString error;
    if (!instance.activateRunningInstance(&error)) {
        SystemLog::log(QStringLiteral("KorvaneVarden already runs in this session and did not answer: %1").arg(error));
        return 1;
    }
    SystemLog::log(QStringLiteral("KorvaneVarden already runs in this session: it shows its infected items"));
    return 0;
}

} // namespace

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
    // Said at once, not at the first check, which waits for the engine.
    const QUrl feed = BundleInfo::feedURL();
    if (!feed.isValid() || feed.isRelative())
        SystemLog::log(QStringLiteral("no feed address in %1: no update checks").arg(BundleInfo::infoPath()));

    SessionInstance instance(BundleInfo::bundleIdentifier());
    // Before the list file or the engine is touched.
    if (instance.isRunningElsewhere())
        return handOver(instance);

    KorvaneVarden_AppDelegate delegate;
    bool handedOver = false;
    QObject::connect(&app, &QCoreApplication::aboutToQuit, &delegate, [&delegate, &handedOver] {
        if (!handedOver)
            delegate.applicationWillTerminate();
    });
    QObject::connect(&instance, &SessionInstance::activated, &delegate,
                     [&delegate] { delegate.showInfectionListWindow(nullptr); });
    QTimer::singleShot(0, &delegate, [&delegate, &instance, &handedOver] {
        delegate.applicationDidFinishLaunching();
        instance.listen();
        // Korvane tells by this name whether the agent runs in this session,
        // and may ask it at once to quit or restart: the name comes only once
        // the agent listens for that.
        if (instance.isBusConnected() && !instance.claimName()) {
            // Another agent started at the same moment and took the name first.
            handedOver = true;
            QCoreApplication::exit(handOver(instance));
        }
    });
    return app.exec();
}
