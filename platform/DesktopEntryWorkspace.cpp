#include "DesktopEntryWorkspace.h"

#include "SystemLog.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QUrl>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTextStream>

namespace {

// Splits an Exec value by the quoting rules of desktop entries.
QStringList splitExec(const QString &exec)
{
    QStringList words;
    QString word;
    bool quoted = false;
    bool inWord = false;
    for (qsizetype i = 0; i < exec.size(); ++i) {
        const QChar c = exec.at(i);
        if (quoted) {
            if (c == QLatin1Char('\\') && i + 1 < exec.size()) {
                word += exec.at(++i);
            } else if (c == QLatin1Char('"')) {
                quoted = false;
            } else {
                word += c;
            }
        } else if (c == QLatin1Char('"')) {
            quoted = true;
            inWord = true;
        } else if (c.isSpace()) {
            if (inWord)
                words << word;
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord)
        words << word;
    return words;
}

} // namespace

QStringList DesktopEntryWorkspace::commandOfDesktopEntry(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    QTextStream in(&file);
    bool inMainGroup = false;
    QString exec;
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line.startsWith(QLatin1Char('[')))
            inMainGroup = line == QLatin1String("[Desktop Entry]");
        else if (inMainGroup && line.startsWith(QLatin1String("Exec=")))
            exec = line.mid(5);
    }
    QStringList command;
    for (const QString &word : splitExec(exec)) {
        // Field codes stand for files or URLs to open; we open none.
        if (word.size() == 2 && word.startsWith(QLatin1Char('%')))
            continue;
        command << QString(word).replace(QLatin1String("%%"), QLatin1String("%"));
    }
    return command;
}

bool DesktopEntryWorkspace::launchAppWithBundleIdentifier(const QString &identifier)
{
    const QString entry =
        QStandardPaths::locate(QStandardPaths::ApplicationsLocation, identifier + QStringLiteral(".desktop"));
    if (entry.isEmpty()) {
        SystemLog::log(QStringLiteral("no desktop entry for %1").arg(identifier));
        return false;
    }
    QStringList command = commandOfDesktopEntry(entry);
    if (command.isEmpty()) {
        SystemLog::log(QStringLiteral("desktop entry %1 has no command").arg(entry));
        return false;
    }
    const QString program = command.takeFirst();
    return QProcess::startDetached(program, command);
}

bool DesktopEntryWorkspace::isApplicationActive(const QString &identifier)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() && bus.interface()->isServiceRegistered(identifier).value();
}

bool DesktopEntryWorkspace::openFile(const QString &path)
{
    return QDesktopServices::openUrl(QUrl::fromLocalFile(path));
}

bool DesktopEntryWorkspace::openURL(const QUrl &url)
{
    return QDesktopServices::openUrl(url);
}

bool DesktopEntryWorkspace::selectFile(const QString &path)
{
    const QUrl folder = QUrl::fromLocalFile(QFileInfo(path).path());
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return QDesktopServices::openUrl(folder);
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)} << QString();
    // Not waited for: a file manager started for the call may take a while,
    // and the main thread must not hang on it.
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [folder](QDBusPendingCallWatcher *finished) {
        if (finished->isError()) {
            SystemLog::log(QStringLiteral("no file manager showed the file (%1); opening %2")
                               .arg(finished->error().message(), folder.toLocalFile()));
            QDesktopServices::openUrl(folder);
        }
        finished->deleteLater();
    });
    return true;
}
