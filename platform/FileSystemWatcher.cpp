#include "FileSystemWatcher.h"

#include "platform/InotifyWatcher.h"

#include <atomic>
#include <chrono>
#include <utility>

namespace {

std::function<FileSystemWatcher *(QObject *)> &factory()
{
    static std::function<FileSystemWatcher *(QObject *)> maker;
    return maker;
}

} // namespace

FileSystemWatcher *FileSystemWatcher::create(QObject *parent)
{
    if (factory())
        return factory()(parent);
    return new InotifyWatcher(parent);
}

void FileSystemWatcher::setFactory(std::function<FileSystemWatcher *(QObject *)> maker)
{
    factory() = std::move(maker);
}

quint64 FileSystemWatcher::nextEventId()
{
    static std::atomic<quint64> last{0};
    using namespace std::chrono;
    const auto now = quint64(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
    quint64 previous = last.load();
    quint64 next;
    do {
        next = qMax(previous + 1, now);
    } while (!last.compare_exchange_weak(previous, next));
    return next;
}
