#include "FuzzApplication.h"
#include "Tarnlib/Tarnlib/QXUpdater.h"
#include "Tarnlib/Tarnlib/QXUpdaterDelegate.h"

namespace {

// Takes the progress reports as the agent would, without showing them.
class Delegate : public QXUpdaterDelegate
{
public:
    void updateStarted() override {}
    void updateFinishedWithStatus(int) override {}
    void updateProgressWithMessage(const QString &message) override { last = message; }
    void updateProgressWithPercentDone(double percent) override { done = percent; }
    bool updaterNeedsExit1FreshclamFlag() const override { return false; }
    void setUpdaterNeedsExit1FreshclamFlag(bool) override {}
    bool logUpdates() const override { return false; }
    QString enginePath() const override { return {}; }
    QString updateLogPath() const override { return {}; }
    bool wantUpdatePercentages() const override { return true; }

    QString last;
    double done = 0;
};

// The updater's output handler is protected: a subclass hands it the chunks.
class Updater : public QXUpdater
{
public:
    using QXUpdater::notifiedForStdOutput;
    using QXUpdater::QXUpdater;
};

} // namespace

// The definitions updater's output, in the pieces a pipe hands over: a 0x01
// byte in the input marks the end of a read.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    static Delegate delegate;
    static Updater updater(&delegate);
    updater.setDelegateWantsUpdates(true);
    for (const QByteArray &read : fuzzInput(data, size).split('\x01'))
        if (!read.isEmpty())
            updater.notifiedForStdOutput(read);
    QCoreApplication::sendPostedEvents();
    return 0;
}
