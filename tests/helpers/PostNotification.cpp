// post_notification NAME OBJECT: posts one distributed notification on the
// session bus and exits at once, as the agent does when it quits.

#include "platform/DBusDistributedNotificationCenter.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: post_notification NAME OBJECT\n");
        return 2;
    }
    QCoreApplication app(argc, argv);
    DBusDistributedNotificationCenter center;
    if (!center.isConnected())
        return 1;
    center.postNotificationName(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2]));
    // The most abrupt exit: no event loop, no destructors, no flushing on the way out.
    std::_Exit(0);
}
