#include "FuzzApplication.h"
#include "Tarnlib/Tarnlib/QXScanner.h"
#include "Tarnlib/Tarnlib/QXScannerDelegate.h"

namespace {

// Answers as the agent's settings would and takes the reports unseen.
class Delegate : public QXScannerDelegate
{
public:
    QStringList obtainFilesForSavedSearchAtPath(const QString &, bool *) override { return {}; }
    bool engineSupportsFileListFlag() const override { return true; }
    bool quarantineFiles() const override { return false; }
    bool scanEmailFiles() const override { return false; }
    bool logScans() const override { return false; }
    bool suppressSummary() const override { return false; }
    bool useClamd() const override { return true; }
    QStringList exclusionStrings() const override { return {}; }
    QStringList exclusionStringsForRootVolScan() const override { return {}; }
    QString enginePath() const override { return {}; }
    QString pathToScanLog() const override { return {}; }
    QStringList pathsToScan() const override { return {}; }
    QString quarantineLocation() const override { return {}; }
    QString additionalCmdArgs() const override { return {}; }
    bool hasAdditionalCmdArgs() const override { return false; }
    bool wantScanStatusUpdates() const override { return true; }
    void scanStarted() override {}
    void scanFinishedWithStatus(int) override {}
    void scanCrashed(const QString &) override {}
    void filesLeftUnscanned(const QStringList &) override {}
    void infectionFound(const QString &) override {}
    void appendToConsole(const QString &) override {}
    void updateProgressWithMessage(const QString &) override {}
    void updateProgressBar() override {}
    void updateProgressWithPercentDone(double) override {}
};

} // namespace

// Feeds the scanner the output of one daemon client as a run does.
struct ScannerOutputFuzzer
{
    // The input: the listed names, one a line, up to a 0x02 byte; then the
    // client's output, a 0x01 byte ending each read. A first byte of 0x03
    // scans the first name alone, as a name with a newline in it is.
    static void run(QXScanner &scanner, const QByteArray &input)
    {
        QByteArray output = input;
        const bool alone = output.startsWith('\x03');
        if (alone)
            output.remove(0, 1);
        QStringList listed;
        const qsizetype end = output.indexOf('\x02');
        if (end >= 0) {
            listed = QString::fromUtf8(output.left(end)).split(QLatin1Char('\n'));
            output.remove(0, end + 1);
        }
        scanner._childOutputs = std::vector<QXScanner::ChildOutput>(1);
        QXScanner::ChildOutput &child = scanner._childOutputs.front();
        child.listed = listed;
        child.unanswered = QSet<QString>(listed.cbegin(), listed.cend());
        scanner._pathAlone = alone && !listed.isEmpty() ? listed.first() : QString();
        for (const QByteArray &read : output.split('\x01'))
            if (!read.isEmpty())
                scanner.notifiedForChildOutput(0, read);
        scanner.takeRest(child);
        scanner._pathAlone.clear();
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzApplication();
    static Delegate delegate;
    static QXScanner scanner(&delegate);
    ScannerOutputFuzzer::run(scanner, fuzzInput(data, size));
    // The reports run as the main thread would run them.
    QCoreApplication::sendPostedEvents();
    return 0;
}
