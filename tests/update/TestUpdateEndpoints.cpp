#include "update/UpdateEndpoints.h"

#include <QCoreApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTest>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace {

const QString gameVariable = QStringLiteral("ZENTHO_UPDATE_MANIFEST");
const QString launcherVariable = QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST");
const QString releaseHost = QStringLiteral(ZENTHO_RELEASE_HOST);

QString defaultGame() {
    return QStringLiteral("https://") + releaseHost + QStringLiteral("/release/macos-arm64-manifest.json");
}

QString defaultLauncher() {
    return QStringLiteral("https://") + releaseHost +
           QStringLiteral("/release/macos-launcher-arm64-manifest.json");
}

// The child's side: reads both process-wide values the way the launcher does and prints them.
// With "--change-between" it also proves that each is fixed at its own first read.
int printEndpoints(bool changeBetween) {
    const QString game = manifestURL().toString();
    if (changeBetween) {
        qputenv("ZENTHO_UPDATE_MANIFEST", "https://changed.invalid/game.json");
        qputenv("ZENTHO_LAUNCHER_UPDATE_MANIFEST", "https://changed.invalid/launcher.json");
    }
    // Several threads race for the launcher value's first read; they must all see one value.
    std::vector<std::thread> readers;
    std::vector<QString> seen(8);
    for (std::size_t i = 0; i < seen.size(); ++i)
        readers.emplace_back([&seen, i] { seen[i] = launcherManifestURL().toString(); });
    for (auto& reader : readers)
        reader.join();
    for (const QString& value : seen)
        if (value != seen.front())
            return 3;
    std::printf("%s\n%s\n%s\n", qPrintable(game), qPrintable(seen.front()),
                qPrintable(manifestURL().toString()));
    return 0;
}

struct Endpoints {
    QString game;
    QString launcher;
    QString gameAgain;
};

// Runs this test binary as a fresh process with `variables` set (a null value unsets the
// variable) and returns what it read.
Endpoints endpointsInFreshProcess(const QList<std::pair<QString, QString>>& variables,
                                  bool changeBetween = false) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(gameVariable);
    environment.remove(launcherVariable);
    for (const auto& [name, value] : variables)
        if (!value.isNull())
            environment.insert(name, value);
    QProcess child;
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
                {changeBetween ? QStringLiteral("--print-endpoints-change-between")
                               : QStringLiteral("--print-endpoints")});
    if (!child.waitForFinished(30000) || child.exitCode() != 0)
        qFatal("endpoint child failed: %d %s", child.exitCode(), child.readAllStandardError().constData());
    const QStringList lines = QString::fromUtf8(child.readAllStandardOutput()).split(QLatin1Char('\n'));
    return {lines.value(0), lines.value(1), lines.value(2)};
}

} // namespace

class TestUpdateEndpoints : public QObject {
    Q_OBJECT

private slots:
    // The pure decision.

    void httpsOverrideIsTakenWithPathAndQuery() {
        const QString other = QStringLiteral("https://127.0.0.1:8443/channel/beta.json?build=7");
        QCOMPARE(chooseEndpointURL(other, QUrl(defaultGame())), QUrl(other));
        QCOMPARE(chooseEndpointURL(std::nullopt, QUrl(defaultGame())), QUrl(defaultGame()));
    }

    void unusableOverridesFallBackToTheDefault_data() {
        QTest::addColumn<QString>("value");
        QTest::newRow("empty") << QStringLiteral("");
        QTest::newRow("http") << QStringLiteral("http://127.0.0.1:8080/manifest.json");
        QTest::newRow("ftp") << QStringLiteral("ftp://127.0.0.1/manifest.json");
        QTest::newRow("bare path") << QStringLiteral("/tmp/manifest.json");
        QTest::newRow("relative") << QStringLiteral("manifest.json");
        QTest::newRow("does not parse") << QStringLiteral("https://[::1/manifest.json");
        // The parser reports every one of these as "https"; the scheme as written is not.
        QTest::newRow("HTTPS") << QStringLiteral("HTTPS://127.0.0.1:8443/manifest.json");
        QTest::newRow("Https") << QStringLiteral("Https://127.0.0.1:8443/manifest.json");
        QTest::newRow("httpS") << QStringLiteral("httpS://127.0.0.1:8443/manifest.json");
    }
    void unusableOverridesFallBackToTheDefault() {
        QFETCH(QString, value);
        QCOMPARE(chooseEndpointURL(value, QUrl(defaultGame())), QUrl(defaultGame()));
    }

    void fileURLOverrideIsTaken() {
        const QString file = QStringLiteral("file:///tmp/manifest.json");
        QCOMPARE(chooseEndpointURL(file, QUrl(defaultGame())),
                 QUrl::fromLocalFile(QStringLiteral("/tmp/manifest.json")));
    }

    void blanksAreLeftToTheParser() {
        // Not trimmed first: Qt's strict parser refuses a URL with a blank around it, so the
        // default wins rather than the trimmed address.
        const QString address = QStringLiteral("https://127.0.0.1:8443/m.json");
        QCOMPARE(parseEndpointURL(QLatin1Char(' ') + address), std::nullopt);
        QCOMPARE(parseEndpointURL(address + QLatin1Char(' ')), std::nullopt);
        QCOMPARE(chooseEndpointURL(QLatin1Char(' ') + address, QUrl(defaultGame())), QUrl(defaultGame()));
        QCOMPARE(chooseEndpointURL(address + QLatin1Char('\t'), QUrl(defaultGame())), QUrl(defaultGame()));
        QCOMPARE(chooseEndpointURL(address, QUrl(defaultGame())), QUrl(address));
    }

    void noDefaultMeansDevNull() {
        QCOMPARE(chooseEndpointURL(std::nullopt, std::nullopt),
                 QUrl(QStringLiteral("file:///dev/null")));
        QCOMPARE(chooseEndpointURL(QStringLiteral("http://127.0.0.1/m.json"), std::nullopt),
                 QUrl(QStringLiteral("file:///dev/null")));
        QCOMPARE(releaseServerURL(QStringLiteral("release server"), QStringLiteral("/m.json")),
                 std::nullopt);
    }

    void defaultsAreTheReleaseServerPaths() {
        QCOMPARE(defaultManifestURL(), std::optional<QUrl>(QUrl(defaultGame())));
        QCOMPARE(defaultLauncherManifestURL(), std::optional<QUrl>(QUrl(defaultLauncher())));
        QCOMPARE(defaultManifestURL()->scheme(), QStringLiteral("https"));
        QCOMPARE(defaultManifestURL()->port(), -1);
        QVERIFY(defaultManifestURL()->userInfo().isEmpty());
    }

    // The process-wide values, each read in a fresh process.

    void unsetVariablesGiveTheReleaseServer() {
        const Endpoints read = endpointsInFreshProcess({});
        QCOMPARE(read.game, defaultGame());
        QCOMPARE(read.launcher, defaultLauncher());
    }

    void emptyVariablesGiveTheReleaseServer() {
        const Endpoints read = endpointsInFreshProcess({{gameVariable, ""}, {launcherVariable, ""}});
        QCOMPARE(read.game, defaultGame());
        QCOMPARE(read.launcher, defaultLauncher());
    }

    void httpsVariablesAreUsed() {
        const Endpoints read = endpointsInFreshProcess(
            {{gameVariable, "https://127.0.0.1:9443/g/m.json?channel=beta"},
             {launcherVariable, "https://127.0.0.1:9443/l/m.json"}});
        QCOMPARE(read.game, QStringLiteral("https://127.0.0.1:9443/g/m.json?channel=beta"));
        QCOMPARE(read.launcher, QStringLiteral("https://127.0.0.1:9443/l/m.json"));
    }

    void httpVariablesAreIgnored() {
        const Endpoints read = endpointsInFreshProcess(
            {{gameVariable, "http://127.0.0.1:9080/m.json"}, {launcherVariable, "http://127.0.0.1:9080/l.json"}});
        QCOMPARE(read.game, defaultGame());
        QCOMPARE(read.launcher, defaultLauncher());
    }

    void upperCaseHttpsVariablesAreIgnored() {
        const Endpoints read = endpointsInFreshProcess(
            {{gameVariable, "HTTPS://127.0.0.1:9443/m.json"}, {launcherVariable, "Https://127.0.0.1:9443/l.json"}});
        QCOMPARE(read.game, defaultGame());
        QCOMPARE(read.launcher, defaultLauncher());
    }

    void fileURLVariableIsUsedButABarePathIsNot() {
        Endpoints read = endpointsInFreshProcess({{gameVariable, "file:///tmp/manifest.json"}});
        QCOMPARE(read.game, QStringLiteral("file:///tmp/manifest.json"));
        read = endpointsInFreshProcess({{gameVariable, "/tmp/manifest.json"}});
        QCOMPARE(read.game, defaultGame());
    }

    void blankAroundVariableIsNotTrimmed() {
        Endpoints read = endpointsInFreshProcess({{gameVariable, " https://127.0.0.1:9443/m.json"}});
        QCOMPARE(read.game, defaultGame());
        read = endpointsInFreshProcess({{gameVariable, "https://127.0.0.1:9443/m.json"}});
        QCOMPARE(read.game, QStringLiteral("https://127.0.0.1:9443/m.json"));
    }

    void eachVariableAffectsOnlyItsOwnManifest() {
        Endpoints read = endpointsInFreshProcess({{gameVariable, "https://127.0.0.1:9443/g.json"}});
        QCOMPARE(read.game, QStringLiteral("https://127.0.0.1:9443/g.json"));
        QCOMPARE(read.launcher, defaultLauncher());
        read = endpointsInFreshProcess({{launcherVariable, "https://127.0.0.1:9443/l.json"}});
        QCOMPARE(read.game, defaultGame());
        QCOMPARE(read.launcher, QStringLiteral("https://127.0.0.1:9443/l.json"));
    }

    void eachValueIsFixedAtItsOwnFirstRead() {
        // The game value is read before the environment changes and keeps its value; the
        // launcher value is first read after the change and sees it.
        const Endpoints read = endpointsInFreshProcess({}, true);
        QCOMPARE(read.game, defaultGame());
        QCOMPARE(read.gameAgain, defaultGame());
        QCOMPARE(read.launcher, QStringLiteral("https://changed.invalid/launcher.json"));
        const Endpoints unchanged = endpointsInFreshProcess({}, false);
        QCOMPARE(unchanged.launcher, defaultLauncher());
    }
};

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--print-endpoints") == 0)
        return printEndpoints(false);
    if (argc == 2 && std::strcmp(argv[1], "--print-endpoints-change-between") == 0)
        return printEndpoints(true);
    QCoreApplication app(argc, argv);
    TestUpdateEndpoints test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestUpdateEndpoints.moc"
