#include "SelfTest.h"

#include "platform/UserFolders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

// The standard anti-virus test file, which every engine knows.
const QByteArray testFile = QByteArrayLiteral(R"(X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*)");

} // namespace

SelfTest::SelfTest(std::function<bool()> busy, QObject *parent)
    : QObject(parent)
    , _busy(std::move(busy))
{
    _deadline.setSingleShot(true);
    connect(&_deadline, &QTimer::timeout, this, &SelfTest::deadlinePassed);
}

QString SelfTest::folder()
{
    const QString path = UserFolders::logs() + QStringLiteral("/self-test");
    QDir().mkpath(path);
    // Nobody else has anything to do in there.
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

bool SelfTest::owns(const QString &path) const
{
    return !_folder.isEmpty() && (path == _folder || path.startsWith(_folder + QLatin1Char('/')));
}

void SelfTest::start(int deadlineMs)
{
    cancel();
    _folder = folder();
    _file = _folder + QStringLiteral("/test-file.com");
    QFile::remove(_file);
    QSaveFile out(_file);
    if (!out.open(QIODevice::WriteOnly) || out.write(testFile) != testFile.size() || !out.commit()) {
        fail(QStringLiteral("the self-test could not write its test file %1: %2").arg(_file, out.errorString()));
        return;
    }
    _reached = Written;
    _deadline.start(deadlineMs);
}

void SelfTest::cancel()
{
    _deadline.stop();
    _reached = NotStarted;
    if (!_file.isEmpty())
        QFile::remove(_file);
}

void SelfTest::eventSeen(const QString &path)
{
    if (path == _file && _reached == Written)
        _reached = EventSeen;
}

void SelfTest::dispatched(const QString &path)
{
    if (path == _file && (_reached == Written || _reached == EventSeen))
        _reached = Dispatched;
}

void SelfTest::found(const QString &path)
{
    if (path != _file || _reached == NotStarted || _reached == Found)
        return;
    _reached = Found;
    _deadline.stop();
    QFile::remove(_file);
    emit passed();
}

void SelfTest::scanEnded()
{
    if (_reached == Dispatched)
        fail(QStringLiteral("self-test: the engine did not find its test file"));
}

void SelfTest::deadlinePassed()
{
    switch (_reached) {
    case Written:
        fail(QStringLiteral("self-test: no folder event came for its test file"));
        break;
    case EventSeen:
        // Held back behind a scan of the user's files: that scan's end tells.
        if (_busy()) {
            _deadline.start(1000);
            return;
        }
        fail(QStringLiteral("self-test: its test file never reached the engine"));
        break;
    default:
        // Dispatched: the scan's end decides.
        break;
    }
}

void SelfTest::fail(const QString &reason)
{
    _deadline.stop();
    _reached = NotStarted;
    if (!_file.isEmpty())
        QFile::remove(_file);
    emit failed(reason);
}
