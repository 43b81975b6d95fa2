#include <QProcess>
#include <QProcessEnvironment>
#include <gtest/gtest.h>

namespace {

// The helper hands data between two threads in one way and exits; the
// suite's own suppressions apply, so that they are shown to hide no race.
struct HandOver
{
    QByteArray errors;
    int exitCode = -1;
};

HandOver handOver(const char *mode)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(
        QStringLiteral("TSAN_OPTIONS"),
        QStringLiteral("suppressions=" KORVANE_SOURCE_DIR "/scripts/sanitizers/tsan.supp:halt_on_error=0:exitcode=66"));
    QProcess helper;
    helper.setProcessEnvironment(environment);
    helper.start(QStringLiteral(KORVANE_BINARY_DIR "/bin/thread_hand_overs"), {QString::fromLatin1(mode)});
    HandOver run;
    if (helper.waitForFinished(120000) && helper.exitStatus() == QProcess::NormalExit)
        run.exitCode = helper.exitCode();
    run.errors = helper.readAllStandardError();
    return run;
}

TEST(ThreadHandOverTest, HandOversThroughQtAreNotReportedAndRacesAreEvenAfterTheThreadStartedAChild)
{
    const struct
    {
        const char *mode;
        bool race;
    } cases[] = {
        {"queued", false},   {"connection", false}, {"pool", false},
        {"finished", false}, {"racy", true},        {"racy-child", true},
    };
    for (const auto &c : cases) {
        const HandOver run = handOver(c.mode);
        EXPECT_EQ(run.errors.contains("WARNING: ThreadSanitizer"), c.race) << c.mode << "\n"
                                                                           << run.errors.toStdString();
        EXPECT_EQ(run.exitCode, c.race ? 66 : 0) << c.mode;
    }
}

} // namespace
