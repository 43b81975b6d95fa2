#include "FakeFileManager.h"

namespace {
const QString serviceName = QStringLiteral("org.freedesktop.FileManager1");
const QString objectPath = QStringLiteral("/org/freedesktop/FileManager1");
} // namespace

FakeFileManager::FakeFileManager(const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
    , _bus(bus)
{
    if (!_bus.registerObject(objectPath, this, QDBusConnection::ExportAllSlots))
        return;
    _registered = _bus.registerService(serviceName);
    if (!_registered)
        _bus.unregisterObject(objectPath);
}

FakeFileManager::~FakeFileManager()
{
    if (!_registered)
        return;
    _bus.unregisterService(serviceName);
    _bus.unregisterObject(objectPath);
}

void FakeFileManager::ShowItems(const QStringList &uris, const QString &startupId)
{
    _calls.append({uris, startupId});
}
