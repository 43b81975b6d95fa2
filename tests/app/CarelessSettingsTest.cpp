#include "RealEngineAgentFixture.h"

#include <QDir>
#include <QFileInfo>

namespace {

// Settings a user may well type, or find in a hand-edited file, that must
// never leave a watched folder unscanned.
class CarelessSettingsTest : public RealEngineAgentFixture
{
protected:
    void SetUp() override { launchWatching(); }

    void prefer(const QVariantMap &values) const
    {
        QVariantMap all = values;
        all.insert(QStringLiteral("VardenFolderArray"), QVariantList{folder(QStringLiteral("~/Watched"))});
        home.writeDomain(companionDomain, all);
    }
};

TEST_F(CarelessSettingsTest, AnInfectedFileInTheWatchedFolderIsListedWhateverTheSettingsSay)
{
    const auto exclusion = [](const QString &pattern, bool regEx) {
        return QVariantList{QVariantMap{{QStringLiteral("excludePattern"), pattern},
                                        {QStringLiteral("excludeEnabled"), true},
                                        {QStringLiteral("excludeRegEx"), regEx}}};
    };
    // A word of the home folder's name, as "bar" is in /home/crowbar.
    const QString homeWord = QFileInfo(home.path()).fileName();
    struct Row
    {
        const char *name;
        QVariantMap settings;
    } rows[] = {
        {"a literal exclusion that the home folder's name holds",
         {{QStringLiteral("ExcludePatterns"), exclusion(homeWord, false)}}},
        {"a regular expression that matches the whole home",
         {{QStringLiteral("ExcludePatterns"), exclusion(".*" + homeWord + ".*", true)}}},
        {"the quarantine folder above the watched folder",
         {{QStringLiteral("QuarantineFolder"), QStringLiteral("~")}, {QStringLiteral("QuarantineInfected"), true}}},
        {"the watched folder as quarantine folder, quarantining off",
         {{QStringLiteral("QuarantineFolder"), QStringLiteral("~/Watched")}}},
        {"a scanner argument the engine does not know",
         {{QStringLiteral("AdditionalCmdLineArgs"), QStringLiteral("--bogus")}}},
    };
    int n = 0;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        prefer(row.settings);
        const QString file = write(QStringLiteral("careless-%1.com").arg(++n));
        EXPECT_TRUE(waitUntilListed(file));
        ASSERT_TRUE(waitUntilIdle());
    }
}

} // namespace
