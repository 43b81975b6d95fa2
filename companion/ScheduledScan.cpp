#include "ScheduledScan.h"

#include "platform/UserFolders.h"
#include "platform/UserServiceManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

const QString unitName = QStringLiteral("korvane-scheduled-scan");
const QString timerUnit = unitName + QStringLiteral(".timer");
const char *const weekdays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

void setError(QString *error, const QString &text)
{
    if (error)
        *error = text;
}

QString unitFolder()
{
    return UserFolders::configHome() + QStringLiteral("/systemd/user");
}

// What `systemctl enable` makes, made by hand when no manager runs.
QString wantsLink()
{
    return unitFolder() + QStringLiteral("/timers.target.wants/") + timerUnit;
}

// One word of an Exec line: quoted, with systemd's C escapes, and "%" and "$"
// doubled so that no specifier or variable is expanded in a path.
QString execWord(const QString &word)
{
    QString quoted = QStringLiteral("\"");
    for (const QChar c : word) {
        switch (c.unicode()) {
        case '\\':
            quoted += QLatin1String("\\\\");
            break;
        case '"':
            quoted += QLatin1String("\\\"");
            break;
        case '%':
            quoted += QLatin1String("%%");
            break;
        case '$':
            quoted += QLatin1String("$$");
            break;
        case '\n':
            quoted += QLatin1String("\\n");
            break;
        case '\t':
            quoted += QLatin1String("\\t");
            break;
        default:
            if (c.unicode() < 0x20 || c.unicode() == 0x7f)
                quoted += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
            else
                quoted += c;
        }
    }
    return quoted + QLatin1Char('"');
}

QString readText(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool writeText(const QString &path, const QString &text, QString *error)
{
    QSaveFile out(path);
    if (out.open(QIODevice::WriteOnly) && out.write(text.toUtf8()) >= 0 && out.commit())
        return true;
    setError(error, QStringLiteral("could not write %1: %2").arg(path, out.errorString()));
    return false;
}

bool removeFile(const QString &path, QString *error)
{
    // A dangling link is not "existing" for QFileInfo::exists.
    if (!QFileInfo(path).isSymLink() && !QFileInfo::exists(path))
        return true;
    if (QFile::remove(path))
        return true;
    setError(error, QStringLiteral("could not remove %1").arg(path));
    return false;
}

} // namespace

QString ScheduledScan::servicePath()
{
    return unitFolder() + QLatin1Char('/') + unitName + QStringLiteral(".service");
}

QString ScheduledScan::timerPath()
{
    return unitFolder() + QLatin1Char('/') + timerUnit;
}

bool ScheduledScan::isWritten()
{
    return QFileInfo::exists(timerPath());
}

QString ScheduledScan::problem(const Schedule &schedule)
{
    if (!schedule.enabled)
        return {};
    if (schedule.hour < 0 || schedule.hour > 23)
        return QStringLiteral("The hour of the scheduled scan must be from 0 to 23, not %1.").arg(schedule.hour);
    if (schedule.weekday < 0 || schedule.weekday > 7)
        return QStringLiteral("The day of the scheduled scan must be every day or one weekday (1 to 7), not %1.")
            .arg(schedule.weekday);
    if (schedule.folders.isEmpty())
        return QStringLiteral("The scheduled scan needs at least one folder to scan.");
    for (const QString &folder : schedule.folders) {
        const QString path = UserFolders::expandTilde(folder);
        if (QDir::isRelativePath(path))
            return QStringLiteral("The folder “%1” of the scheduled scan must be an absolute path (or start with "
                                  "“~/”).")
                .arg(folder);
        if (!QFileInfo(path).isDir())
            return QStringLiteral("The folder %1 of the scheduled scan does not exist.").arg(path);
    }
    return {};
}

QString ScheduledScan::serviceText(const Schedule &schedule, const QString &korvaneProgram)
{
    QStringList exec{execWord(korvaneProgram), QStringLiteral("--scan"), QStringLiteral("--notify")};
    for (const QString &folder : schedule.folders)
        exec << execWord(QDir::cleanPath(UserFolders::expandTilde(folder)));
    return QStringLiteral("# Written by Korvane: change the scheduled scan in Korvane's preferences.\n"
                          "[Unit]\n"
                          "Description=Korvane's scheduled virus scan\n"
                          "Documentation=man:Korvane(1)\n"
                          "# Skipped on battery power; the timer tries again at its next time.\n"
                          "ConditionACPower=true\n"
                          "\n"
                          "[Service]\n"
                          "Type=oneshot\n"
                          "ExecStart=%1\n"
                          // Exit 1 means infected files were found, which the scan log and notification tell.
                          "SuccessExitStatus=1\n"
                          "Nice=10\n"
                          "IOSchedulingClass=idle\n")
        .arg(exec.join(QLatin1Char(' ')));
}

QString ScheduledScan::timerText(const Schedule &schedule)
{
    const QString day = schedule.weekday >= 1 && schedule.weekday <= 7
                            ? QLatin1String(weekdays[schedule.weekday - 1]) + QLatin1Char(' ')
                            : QString();
    return QStringLiteral("# Written by Korvane: change the scheduled scan in Korvane's preferences.\n"
                          "[Unit]\n"
                          "Description=Korvane's scheduled virus scan\n"
                          "\n"
                          "[Timer]\n"
                          "OnCalendar=%1*-*-* %2:00:00\n"
                          // A time missed while the computer was off runs at the next start.
                          "Persistent=true\n"
                          "\n"
                          "[Install]\n"
                          "WantedBy=timers.target\n")
        .arg(day)
        .arg(schedule.hour, 2, 10, QLatin1Char('0'));
}

bool ScheduledScan::apply(const Schedule &schedule, const QString &korvaneProgram, QString *error, QString *note)
{
    UserServiceManager *manager = UserServiceManager::sharedManager();
    const bool running = manager->isRunning();
    const QString noManager = QStringLiteral("No systemd user manager runs now, so the scheduled scan starts with "
                                             "your next login.");

    if (!schedule.enabled) {
        if (!isWritten() && !QFileInfo::exists(servicePath()) && !QFileInfo(wantsLink()).isSymLink())
            return true;
        QString failure;
        if (running && isWritten())
            manager->control({QStringLiteral("disable"), QStringLiteral("--now"), timerUnit}, &failure);
        for (const QString &path : {wantsLink(), timerPath(), servicePath()}) {
            if (!removeFile(path, error))
                return false;
        }
        if (running)
            manager->control({QStringLiteral("daemon-reload")}, &failure);
        if (!failure.isEmpty()) {
            setError(error, failure);
            return false;
        }
        return true;
    }

    const QString refusal = problem(schedule);
    if (!refusal.isEmpty()) {
        setError(error, refusal);
        return false;
    }
    const QString service = serviceText(schedule, korvaneProgram);
    const QString timer = timerText(schedule);
    if (readText(servicePath()) == service && readText(timerPath()) == timer && QFileInfo(wantsLink()).isSymLink())
        return true;
    if (!QDir().mkpath(unitFolder())) {
        setError(error, QStringLiteral("could not create %1").arg(unitFolder()));
        return false;
    }
    if (!writeText(servicePath(), service, error) || !writeText(timerPath(), timer, error))
        return false;

    // The link that `systemctl enable` makes; made here too, so that a manager
    // that starts later runs the timer.
    const QString link = wantsLink();
    if (!QFileInfo(link).isSymLink()
        && (!QDir().mkpath(QFileInfo(link).absolutePath()) || !QFile::link(timerPath(), link))) {
        setError(error, QStringLiteral("could not create %1").arg(link));
        return false;
    }
    if (!running) {
        if (note)
            *note = noManager;
        return true;
    }
    // Restarted so that a changed time takes effect now.
    for (const QStringList &arguments :
         {QStringList{QStringLiteral("daemon-reload")}, QStringList{QStringLiteral("enable"), timerUnit},
          QStringList{QStringLiteral("restart"), timerUnit}}) {
        if (!manager->control(arguments, error))
            return false;
    }
    return true;
}
