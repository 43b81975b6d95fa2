#pragma once

#include "companion/CompanionSettings.h"
#include "companion/PreferencesWindow.h"
#include "platform/BundleInfo.h"
#include "tests/support/AnsweringAlertPresenter.h"
#include "tests/support/FreshPreferences.h"

#include <QCheckBox>
#include <QDir>
#include <QLineEdit>
#include <QProcess>
#include <QSpinBox>
#include <QTableWidget>
#include <gtest/gtest.h>

#include <memory>
#include <optional>

// Runs a test as the companion, in a home of its own, with alerts answered.
class CompanionFixture : public ::testing::Test
{
protected:
    CompanionFixture()
    {
        BundleInfo::setBundleIdentifier(BundleInfo::companionIdentifier());
        home.emplace();
    }
    ~CompanionFixture() override
    {
        window.reset();
        settings.reset();
        home.reset();
        BundleInfo::setBundleIdentifier(QStringLiteral(KORVANE_AGENT_ID));
    }

    PreferencesWindow *openWindow(const QString &agentProgram = QStringLiteral("/opt/k/KorvaneVarden"))
    {
        settings = std::make_unique<CompanionSettings>();
        window = std::make_unique<PreferencesWindow>(settings.get(), agentProgram);
        return window.get();
    }
    template <typename Widget> Widget *control(const char *name) const
    {
        auto *widget = window->findChild<Widget *>(QLatin1String(name));
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }
    QString makeFolder(const QString &relative) const
    {
        QDir().mkpath(home->filePath(relative));
        return home->filePath(relative);
    }

    // The built program, as scripts run it; output holds both its streams.
    static int runKorvane(const QStringList &arguments, QString *output = nullptr)
    {
        QProcess korvane;
        korvane.start(KORVANE_BINARY_DIR "/bin/Korvane", arguments);
        EXPECT_TRUE(korvane.waitForFinished(20000));
        if (output)
            *output = QString::fromUtf8(korvane.readAllStandardOutput() + korvane.readAllStandardError());
        return korvane.exitCode();
    }

    std::optional<FreshPreferences> home;
    AnsweringAlertPresenter alerts;
    std::unique_ptr<CompanionSettings> settings;
    std::unique_ptr<PreferencesWindow> window;
};
