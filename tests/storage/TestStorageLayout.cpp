#include "ScopedDataHome.h"

#include "platform/FileManager.h"
#include "storage/StorageLayout.h"

#include <QDir>
#include <QTest>

#include <pwd.h>
#include <unistd.h>

namespace {

// Sets or unsets an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<QByteArray> value)
        : name_(name), had_(qEnvironmentVariableIsSet(name)), old_(qgetenv(name)) {
        if (value)
            qputenv(name, *value);
        else
            qunsetenv(name);
    }
    ~ScopedEnv() {
        if (had_)
            qputenv(name_, old_);
        else
            qunsetenv(name_);
    }

private:
    const char* name_;
    bool had_;
    QByteArray old_;
};

QString accountHome() {
    return QString::fromLocal8Bit(::getpwuid(::getuid())->pw_dir);
}

} // namespace

class TestStorageLayout : public QObject {
    Q_OBJECT

private slots:
    void rootLivesInTheXdgDataFolder() {
        ScopedDataHome home;
        StorageLayout layout(FileManager::defaultManager());
        QCOMPARE(layout.launcherRoot(), home.path() + "/Zentho/launcher");
        QCOMPARE(layout.versionsRoot(), home.path() + "/Zentho/launcher/versions");
        QCOMPARE(layout.stateURL(), home.path() + "/Zentho/launcher/current-macos.json");
    }
    void withoutXdgTheHomeDefaultIsUsed() {
        ScopedEnv xdg("XDG_DATA_HOME", std::nullopt);
        ScopedEnv home("HOME", QByteArray("/home/someone"));
        StorageLayout layout(FileManager::defaultManager());
        QCOMPARE(layout.launcherRoot(), QStringLiteral("/home/someone/.local/share/Zentho/launcher"));
    }
    void relativeXdgIsIgnoredLikeAnUnsetOne() {
        ScopedEnv xdg("XDG_DATA_HOME", QByteArray("relative/data"));
        ScopedEnv home("HOME", QByteArray("/home/someone"));
        StorageLayout layout(FileManager::defaultManager());
        QCOMPARE(layout.launcherRoot(), QStringLiteral("/home/someone/.local/share/Zentho/launcher"));
    }
    void noDataFolderAtAllFallsBackBelowTheAccountsHome() {
        ScopedEnv xdg("XDG_DATA_HOME", std::nullopt);
        ScopedEnv home("HOME", QByteArray());
        QCOMPARE(FileManager::defaultManager().applicationSupportFolders(), QStringList());
        StorageLayout layout(FileManager::defaultManager());
        QCOMPARE(layout.launcherRoot(), accountHome() + "/.local/share/Zentho/launcher");
    }

    void theRootFolderAsDataHomeGivesNoDoubledSlash() {
        ScopedEnv xdg("XDG_DATA_HOME", QByteArray("/"));
        StorageLayout layout(FileManager::defaultManager());
        QCOMPARE(layout.launcherRoot(), QStringLiteral("/Zentho/launcher"));
        QCOMPARE(layout.versionsRoot(), QStringLiteral("/Zentho/launcher/versions"));
        QCOMPARE(layout.stateURL(), QStringLiteral("/Zentho/launcher/current-macos.json"));
        QCOMPARE(layout.dataFolder(), QStringLiteral("/Zentho"));
    }
    void slashesAroundTheDataHomeAreNotDoubled() {
        ScopedEnv xdg("XDG_DATA_HOME", QByteArray("//srv//data/"));
        StorageLayout layout(FileManager::defaultManager());
        QCOMPARE(layout.launcherRoot(), QStringLiteral("/srv/data/Zentho/launcher"));
        QCOMPARE(layout.dataFolder(), QStringLiteral("/srv/data/Zentho"));
    }

    void rootIsComputedOnceAndKept() {
        ScopedDataHome first;
        StorageLayout layout(FileManager::defaultManager());
        const QString root = layout.launcherRoot();
        {
            ScopedDataHome second;
            ScopedEnv home("HOME", QByteArray("/elsewhere"));
            QCOMPARE(layout.launcherRoot(), root);
            QCOMPARE(layout.versionsRoot(), root + "/versions");
            // A fresh layout does see the change: the cache, not the environment, held it.
            StorageLayout fresh(FileManager::defaultManager());
            QCOMPARE(fresh.launcherRoot(), second.path() + "/Zentho/launcher");
            QVERIFY(fresh.launcherRoot() != root);
        }
    }

    void dataFolderIsTheParentOfTheRoot() {
        ScopedDataHome home;
        StorageLayout layout(FileManager::defaultManager());
        QCOMPARE(layout.dataFolder(), home.path() + "/Zentho");
        QVERIFY(!layout.dataFolder().endsWith(QLatin1String("launcher")));
        QVERIFY(!layout.dataFolder().endsWith(QLatin1Char('/')));
    }

    void readingLocationsCreatesNothing() {
        ScopedDataHome home;
        StorageLayout layout(FileManager::defaultManager());
        layout.launcherRoot();
        layout.versionsRoot();
        layout.stateURL();
        layout.dataFolder();
        QCOMPARE(QDir(home.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
                 QStringList());
    }
};

QTEST_GUILESS_MAIN(TestStorageLayout)
#include "TestStorageLayout.moc"
