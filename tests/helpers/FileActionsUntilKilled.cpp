// Quarantines, trashes and puts back the listed files, one move after the
// other, until it is killed. Each step of a move is printed as it is done,
// with a short random pause after it, so that a test which kills this
// process can tell inside which step the kill landed.
//
//   file_actions_until_killed LIST-FILE QUARANTINE-FOLDER

#include "Tarnlib/Tarnlib/QXUtils.h"
#include "tests/support/QuietUtilsDelegate.h"
#include "ui/FileActionJournal.h"
#include "ui/InfectedFileActions.h"
#include "ui/InfectedItemsStore.h"
#include "ui/QXTInfectedViewArrayController.h"

#include <QApplication>
#include <QItemSelectionModel>
#include <QRandomGenerator>
#include <QTimer>

#include <cstdio>
#include <unistd.h>

namespace {

void say(const char *step)
{
    char line[64];
    const int length = std::snprintf(line, sizeof line, "%s\n", step);
    if (::write(STDOUT_FILENO, line, size_t(length)) < 0)
        ::_exit(3);
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: file_actions_until_killed LIST-FILE QUARANTINE-FOLDER\n");
        return 2;
    }
    // The list is saved about once a second: the time between its save and
    // the journal's trim is stretched, so that kills land there often enough.
    FileActionJournal::setStepObserver([](const char *step) {
        say(step);
        const bool saved = qstrcmp(step, "saved") == 0;
        ::usleep(QRandomGenerator::global()->bounded(saved ? 200000 : 3000));
    });

    QXTInfectedViewArrayController list;
    QItemSelectionModel selection(&list);
    list.setSelectionModel(&selection);
    QuietUtilsDelegate delegate;
    QXUtils utils(&delegate);
    utils.setQuarantineLocation(QString::fromLocal8Bit(argv[2]));
    InfectedFileActions actions(&list, &utils, [](const QString &) {});
    InfectedItemsStore store(&list, QString::fromLocal8Bit(argv[1]));
    actions.setJournal(store.journal());
    if (list.rowCount() == 0)
        return 2;
    say("started");

    int next = QRandomGenerator::global()->bounded(list.rowCount());
    QTimer mover;
    QObject::connect(&mover, &QTimer::timeout, [&] {
        const int row = next++ % list.rowCount();
        selection.select(list.index(row, 0), QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
        if (!list.arrangedObjects().at(row).value(QStringLiteral("status")).toString().isEmpty())
            actions.putBack();
        else if (row % 2 == 0)
            actions.quarantineFile();
        else
            actions.deleteFile();
    });
    mover.start(0);
    return app.exec();
}
