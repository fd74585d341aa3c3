#include "ScopedDataHome.h"
#include "TestFiles.h"

#include "platform/FileManager.h"
#include "storage/InstalledState.h"

#include <QDir>
#include <QTest>

namespace {
const InstalledState kFallback{QStringLiteral("0.1.190"), QStringLiteral("/seed/SeedRuntime")};
}

class TestInstalledState : public QObject {
    Q_OBJECT

    FileManager& files = FileManager::defaultManager();

private slots:
    void encoderOutputIsByteExact() {
        const InstalledState state{"0.2.0", "/home/u/.local/share/Zentho/launcher/versions/0.2.0"};
        QCOMPARE(state.encode(),
                 QByteArray("{\"version\":\"0.2.0\",\"path\":\"\\/home\\/u\\/.local\\/share\\/Zentho\\/launcher\\/versions\\/0.2.0\"}"));
    }
    void encoderEscapesQuotesBackslashesAndControls() {
        const InstalledState state{"a\"b\\c", "x\ny\x01"};
        QCOMPARE(state.encode(), QByteArray("{\"version\":\"a\\\"b\\\\c\",\"path\":\"x\\ny\\u0001\"}"));
        QCOMPARE(InstalledState::decode(state.encode()), state);
    }
    void encoderKeepsNonAsciiAsUtf8() {
        const InstalledState state{"0.2.0", "/home/zoë/Spiele"};
        QCOMPARE(state.encode(), QByteArray("{\"version\":\"0.2.0\",\"path\":\"\\/home\\/zo\xc3\xab\\/Spiele\"}"));
        QCOMPARE(InstalledState::decode(state.encode()), state);
    }

    void decode_data() {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QString>("version");
        QTest::newRow("encoder form") << QByteArray("{\"version\":\"0.2.0\",\"path\":\"\\/p\"}") << true << "0.2.0";
        QTest::newRow("reordered, spaced, plain slash")
            << QByteArray(" {\n \"path\" : \"/p\", \"version\": \"0.3\" }\n") << true << "0.3";
        QTest::newRow("extra member") << QByteArray("{\"version\":\"1\",\"path\":\"/p\",\"notes\":5}") << true << "1";
        QTest::newRow("only version") << QByteArray("{\"version\":\"0.2.0\"}") << false << "";
        QTest::newRow("only path") << QByteArray("{\"path\":\"/p\"}") << false << "";
        QTest::newRow("version not a string") << QByteArray("{\"version\":2,\"path\":\"/p\"}") << false << "";
        QTest::newRow("null path") << QByteArray("{\"version\":\"2\",\"path\":null}") << false << "";
        QTest::newRow("not JSON") << QByteArray("version=0.2.0") << false << "";
        QTest::newRow("array") << QByteArray("[\"0.2.0\",\"/p\"]") << false << "";
        QTest::newRow("empty") << QByteArray() << false << "";
    }
    void decode() {
        QFETCH(QByteArray, json);
        QFETCH(bool, valid);
        QFETCH(QString, version);
        const auto state = InstalledState::decode(json);
        QCOMPARE(state.has_value(), valid);
        if (valid)
            QCOMPARE(state->version, version);
    }

    void missingFileReadsAsFallback() {
        ScopedDataHome home;
        QCOMPARE(InstalledState::read(files, home.statePath(), kFallback), kFallback);
    }
    void validFileReadsAsItsRecord() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "{\"version\":\"0.2.0\",\"path\":\"\\/v\\/0.2.0\"}");
        QCOMPARE(InstalledState::read(files, home.statePath(), kFallback),
                 (InstalledState{"0.2.0", "/v/0.2.0"}));
    }
    void unreadableFileReadsAsFallback() {
        ScopedDataHome home;
        TestFiles::makeFolder(home.statePath()); // a folder cannot be read as a file
        QCOMPARE(InstalledState::read(files, home.statePath(), kFallback), kFallback);
    }
    void invalidFileReadsAsFallback() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "{\"version\":\"0.2.0\"}");
        QCOMPARE(InstalledState::read(files, home.statePath(), kFallback), kFallback);
    }

    void writeCreatesTheFileAndLeavesNoTemporary() {
        ScopedDataHome home;
        TestFiles::makeFolder(home.launcherRoot());
        const InstalledState state{"0.2.0", home.versionsRoot() + "/0.2.0"};
        state.write(files, home.statePath());
        QCOMPARE(TestFiles::readFile(home.statePath()), state.encode());
        QCOMPARE(QDir(home.launcherRoot()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{"current-macos.json"});
    }
    void writeReplacesAnExistingFile() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "old");
        const InstalledState state{"0.3.0", "/v/0.3.0"};
        state.write(files, home.statePath());
        QCOMPARE(TestFiles::readFile(home.statePath()), state.encode());
        QCOMPARE(QDir(home.launcherRoot()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{"current-macos.json"});
    }
    void failedWriteLeavesTheOldFileUntouched() {
        ScopedDataHome home;
        const QByteArray old = "{\"version\":\"0.2.0\",\"path\":\"\\/v\\/0.2.0\"}";
        TestFiles::writeFile(home.statePath(), old);
        // A folder where the temporary record must go makes the write fail (even for root).
        TestFiles::makeFolder(home.statePath() + ".tmp/blocker");
        QVERIFY_THROWS_EXCEPTION(std::system_error,
                                 (InstalledState{"0.3.0", "/v/0.3.0"}.write(files, home.statePath())));
        QCOMPARE(TestFiles::readFile(home.statePath()), old);
        QCOMPARE(QDir(home.launcherRoot()).entryList({".current-macos*"}, QDir::Files | QDir::Hidden),
                 QStringList());
    }
    void writeIntoAMissingFolderFails() {
        ScopedDataHome home;
        QVERIFY_THROWS_EXCEPTION(std::system_error,
                                 (InstalledState{"0.3.0", "/v"}.write(files, home.statePath())));
        QVERIFY(!QFile::exists(home.statePath()));
    }
};

QTEST_GUILESS_MAIN(TestInstalledState)
#include "TestInstalledState.moc"
