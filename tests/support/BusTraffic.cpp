#include "BusTraffic.h"

#include <QRegularExpression>
#include <QTest>

bool BusTraffic::start()
{
    _monitor.start(
        QStringLiteral("dbus-monitor"),
        {QStringLiteral("--session"), QStringLiteral("type='method_call',interface='org.freedesktop.DBus'")});
    if (!_monitor.waitForStarted(10000))
        return false;
    // It announces itself with the name it is given.
    return QTest::qWaitFor([this] { return text().contains(QLatin1String("member=NameAcquired")); }, 10000);
}

BusTraffic::~BusTraffic()
{
    _monitor.kill();
    _monitor.waitForFinished(5000);
}

QString BusTraffic::text()
{
    _traffic += _monitor.readAllStandardOutput();
    return QString::fromUtf8(_traffic);
}

qsizetype BusTraffic::positionOfCall(const QString &member, const QString &argumentPart)
{
    const QRegularExpression call(
        QStringLiteral("member=%1\\n\\s+string \"[^\"\\n]*%2").arg(member, QRegularExpression::escape(argumentPart)));
    // The monitor may not have written it out yet.
    qsizetype position = -1;
    return QTest::qWaitFor([&] { return (position = call.match(text()).capturedStart()) >= 0; }, 5000) ? position : -1;
}
