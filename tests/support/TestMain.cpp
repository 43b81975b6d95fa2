#include "platform/BundleInfo.h"
#include "platform/Localization.h"

#include <QApplication>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    // Widget tests run without a display unless the caller chose a platform.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    BundleInfo::setBundleIdentifier(QStringLiteral(KORVANE_AGENT_ID));
    Localization::install(&app);
    return RUN_ALL_TESTS();
}
