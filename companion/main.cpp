#include "CompanionApplication.h"
#include "CompanionSettings.h"
#include "OnDemandScan.h"
#include "ScheduledScanNotice.h"
#include "platform/AgentStatusService.h"
#include "platform/BundleInfo.h"
#include "platform/DistributedNotificationCenter.h"
#include "platform/Localization.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QTextStream>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace {

int changeFolders(const QStringList &add, const QStringList &remove)
{
    CompanionSettings settings;
    QString error;
    for (const QString &folder : add) {
        if (!settings.addWatchedFolder(folder, &error)) {
            std::fprintf(stderr, "Korvane: %s\n", qPrintable(error));
            return 1;
        }
    }
    for (const QString &folder : remove) {
        if (!settings.removeWatchedFolder(folder, &error)) {
            std::fprintf(stderr, "Korvane: %s\n", qPrintable(error));
            return 1;
        }
    }
    if (!settings.save(&error)) {
        std::fprintf(stderr, "Korvane: %s\n", qPrintable(error));
        return 1;
    }
    // Scripts may run without a desktop, so the agent is not started here.
    if (!CompanionApplication::isAgentRunning())
        std::printf("Korvane: KorvaneVarden is not running; it reads the settings when it starts.\n");
    return 0;
}

// Exits 0 only when the guard is protected, so that a script or a fleet's
// monitoring can ask.
int printStatus(QTextStream &out)
{
    const std::optional<AgentStatusService::Answer> answer = AgentStatusService::ask();
    if (!answer) {
        out << "off" << Qt::endl << "- the agent does not run in this session" << Qt::endl;
        return 1;
    }
    out << answer->level << Qt::endl;
    for (const QString &reason : answer->reasons)
        out << "- " << reason << Qt::endl;
    return answer->level == QLatin1String("protected") ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    BundleInfo::setBundleIdentifier(BundleInfo::companionIdentifier());

    // Scripts use the command line where no display may exist: only the
    // window and URLs need one.
    bool graphical = true;
    for (int i = 1; i < argc; ++i) {
        const QByteArray word(argv[i]);
        if (word.startsWith('-') && word != "--show-preferences" && word != "--show-scan"
            && !word.startsWith("--show-results"))
            graphical = false;
    }
    std::unique_ptr<QCoreApplication> app(graphical ? new QApplication(argc, argv) : new QCoreApplication(argc, argv));
    QCoreApplication::setApplicationName(QStringLiteral("Korvane"));
    QCoreApplication::setApplicationVersion(BundleInfo::shortVersionString());
    Localization::install(app.get());
    if (graphical) {
        QApplication::setDesktopFileName(BundleInfo::companionIdentifier());
    }

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Korvane: the settings of the KorvaneVarden virus guard."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption show(QStringLiteral("show-preferences"), QStringLiteral("Show the preferences window."));
    const QCommandLineOption add(QStringLiteral("add-folder"), QStringLiteral("Watch DIR as well."),
                                 QStringLiteral("DIR"));
    const QCommandLineOption remove(QStringLiteral("remove-folder"), QStringLiteral("Stop watching DIR."),
                                    QStringLiteral("DIR"));
    const QCommandLineOption list(QStringLiteral("list-folders"), QStringLiteral("Print the watched folders."));
    const QCommandLineOption status(QStringLiteral("status"),
                                    QStringLiteral("Print whether the guard protects, and why not; exit 0 only when "
                                                   "it does."));
    const QCommandLineOption first(QStringLiteral("first-run"),
                                   QStringLiteral("Write the first settings (the Downloads folder, start at login) "
                                                  "when there are none, and exit."));
    const QCommandLineOption scan(QStringLiteral("scan"),
                                  QStringLiteral("Scan the files and folders given, without a window; exit 0 clean, "
                                                 "1 infected, 2 an error."));
    const QCommandLineOption quarantine(QStringLiteral("quarantine"),
                                        QStringLiteral("With --scan: move infected files into the quarantine folder."));
    const QCommandLineOption standalone(QStringLiteral("standalone"),
                                        QStringLiteral("With --scan: use the stand-alone scanner, not the daemon."));
    const QCommandLineOption showScan(QStringLiteral("show-scan"),
                                      QStringLiteral("Show the Scan page and scan the files and folders given."));
    const QCommandLineOption notify(QStringLiteral("notify"),
                                    QStringLiteral("With --scan: when something is found, keep the results and show "
                                                   "a notification whose click opens them (waits up to 10 minutes)."));
    const QCommandLineOption showResults(QStringLiteral("show-results"),
                                         QStringLiteral("Show the results a scan with --notify kept in FILE."),
                                         QStringLiteral("FILE"));
    parser.addOptions(
        {show, add, remove, list, first, status, scan, quarantine, standalone, notify, showScan, showResults});
    parser.addPositionalArgument(QStringLiteral("URL"),
                                 QStringLiteral("A korvane: URL, such as korvane://update; with --scan or "
                                                "--show-scan, the files and folders to scan."),
                                 QStringLiteral("[URL|PATH...]"));
    parser.process(*app);

    if (parser.isSet(scan)) {
        QTextStream out(stdout);
        QList<InfectedItem> rows;
        const int result =
            OnDemandScan::runFromCommandLine(parser.positionalArguments(), parser.isSet(quarantine),
                                             parser.isSet(standalone), out, QXUtils::defaultEngineCandidates(), &rows);
        if (parser.isSet(notify) && !rows.isEmpty()) {
            const QString problem = ScheduledScanNotice::keep(rows);
            if (!problem.isEmpty())
                out << "Korvane: the results could not be kept: " << problem << Qt::endl;
            constexpr int tenMinutes = 10 * 60 * 1000;
            ScheduledScanNotice::notifyAndWait(
                rows.size() == 1
                    ? QCoreApplication::translate("main", "1 infected file. Click to see it.")
                    : QCoreApplication::translate("main", "%1 infected files. Click to see them.").arg(rows.size()),
                QCoreApplication::applicationFilePath(), tenMinutes);
        }
        return result;
    }
    if (!graphical) {
        QTextStream out(stdout);
        int result = 0;
        if (parser.isSet(first)) {
            bool ok = false;
            out << "Korvane: " << CompanionApplication::firstRun(&ok) << Qt::endl;
            result = ok ? 0 : 1;
        }
        if (result == 0 && (parser.isSet(add) || parser.isSet(remove)))
            result = changeFolders(parser.values(add), parser.values(remove));
        if (result == 0 && parser.isSet(list)) {
            for (const QString &folder : CompanionSettings().watchedFolders())
                out << folder << Qt::endl;
        }
        if (result == 0 && parser.isSet(status))
            result = printStatus(out);
        return result;
    }

    CompanionApplication companion;
    bool handled = false;
    QStringList toScan;
    const QString resultsFile =
        parser.isSet(showResults) ? QFileInfo(parser.value(showResults)).absoluteFilePath() : QString();
    if (!resultsFile.isEmpty()) {
        handled = true;
    } else if (parser.isSet(showScan)) {
        toScan = CompanionApplication::localPaths(parser.positionalArguments());
        handled = true;
    } else {
        for (const QString &argument : parser.positionalArguments()) {
            // "Open With Korvane" from a file manager hands files and folders.
            const QStringList local = CompanionApplication::localPaths({argument});
            if (local.isEmpty())
                handled = companion.openUrl(QUrl(argument)) || handled;
            toScan << local;
        }
        handled = handled || !toScan.isEmpty();
    }
    const bool scanning = parser.isSet(showScan) || !toScan.isEmpty();
    // A second start asks for the window as soon as it finds the name taken,
    // so the name is claimed only once that request would be heard.
    companion.observeAgent();
    if (!companion.claimBusName()) {
        // One companion per session: the running one shows its window.
        DistributedNotificationCenter::defaultCenter()->removeObserver(&companion);
        if (scanning) {
            CompanionApplication::askRunningCompanionToScan(toScan);
            return 0;
        }
        if (!resultsFile.isEmpty()) {
            CompanionApplication::askRunningCompanionToShowResults(resultsFile);
            return 0;
        }
        if (!handled || parser.isSet(show)) {
            DistributedNotificationCenter::defaultCenter()->postNotificationName(
                QStringLiteral("KorvaneShouldOpenPrefs"), QStringLiteral("Korvane"));
            return 0;
        }
        return app->exec();
    }
    // A scan asked for from a file manager is not a wish to be guarded.
    if (!scanning && !CompanionApplication::isAgentRunning())
        companion.startAgent();
    if (!handled || parser.isSet(show))
        companion.showPreferences();
    if (scanning)
        companion.showScan(toScan);
    if (!resultsFile.isEmpty())
        companion.showResults(resultsFile);
    return app->exec();
}
