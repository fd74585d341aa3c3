#include "ScopedDataHome.h"
#include "TestFiles.h"

#include "errors/FileError.h"
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
    void encoderEscapesEveryControlCharacter_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("escaped");
        QTest::newRow("backspace") << QStringLiteral("a\bb") << QByteArray("a\\bb");
        QTest::newRow("form feed") << QStringLiteral("a\fb") << QByteArray("a\\fb");
        QTest::newRow("carriage return") << QStringLiteral("a\rb") << QByteArray("a\\rb");
        QTest::newRow("tab") << QStringLiteral("a\tb") << QByteArray("a\\tb");
        QTest::newRow("line feed") << QStringLiteral("a\nb") << QByteArray("a\\nb");
        QTest::newRow("0x1F") << QStringLiteral("a\x1f" "b") << QByteArray("a\\u001fb");
        QTest::newRow("0x00") << QString(QChar(u'a')) + QChar(0) + QChar(u'b') << QByteArray("a\\u0000b");
        QTest::newRow("0x0B") << QStringLiteral("a\x0b" "b") << QByteArray("a\\u000bb");
        QTest::newRow("0x7F stays") << QStringLiteral("a\x7f" "b") << QByteArray("a\x7f" "b");
    }
    void encoderEscapesEveryControlCharacter() {
        QFETCH(QString, text);
        QFETCH(QByteArray, escaped);
        const InstalledState state{text, QStringLiteral("p")};
        QCOMPARE(state.encode(), "{\"version\":\"" + escaped + "\",\"path\":\"p\"}");
        // What the writer escapes, the strict reader reads back unchanged.
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
        QTest::newRow("escaped control") << QByteArray("{\"version\":\"0.2\\u0001\",\"path\":\"/p\"}") << true << "0.2\x01";
        QTest::newRow("raw control in version")
            << QByteArray("{\"version\":\"0.2\x01\",\"path\":\"/p\"}") << false << "";
        QTest::newRow("raw line feed in path")
            << QByteArray("{\"version\":\"0.2.0\",\"path\":\"/p\nq\"}") << false << "";
        QTest::newRow("raw tab in an extra member")
            << QByteArray("{\"version\":\"0.2.0\",\"path\":\"/p\",\"n\":\"\t\"}") << false << "";
        QTest::newRow("lone surrogate in path")
            << QByteArray("{\"version\":\"0.2.0\",\"path\":\"/p\\ud800\"}") << false << "";
        QTest::newRow("surrogate pair in path")
            << QByteArray("{\"version\":\"0.2.0\",\"path\":\"/p\\ud83c\\udfae\"}") << true << "0.2.0";
        QTest::newRow("bytes that are not UTF-8")
            << QByteArray("{\"version\":\"0.2.0\",\"path\":\"/p\xe0\x80\xaf\"}") << false << "";
        QTest::newRow("out-of-range number in an extra member")
            << QByteArray("{\"version\":\"0.2.0\",\"path\":\"/p\",\"n\":1e400}") << true << "0.2.0";
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
    void relativePathIsTakenFromTheStateFilesFolder() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "{\"version\":\"0.2.0\",\"path\":\"versions\\/0.2.0\"}");
        // Wherever the launcher was started from.
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(QDir::tempPath()));
        const InstalledState state = InstalledState::read(files, home.statePath(), kFallback);
        QVERIFY(QDir::setCurrent(before));
        QCOMPARE(state, (InstalledState{"0.2.0", home.launcherRoot() + "/versions/0.2.0"}));
    }
    void controlCharacterInTheFileReadsAsFallback() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "{\"version\":\"0.2.0\",\"path\":\"\\/v\\/0.2.0\x01\"}");
        QCOMPARE(InstalledState::read(files, home.statePath(), kFallback), kFallback);
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
        QVERIFY_THROWS_EXCEPTION(FileError,
                                 (InstalledState{"0.3.0", "/v/0.3.0"}.write(files, home.statePath())));
        QCOMPARE(TestFiles::readFile(home.statePath()), old);
        QCOMPARE(QDir(home.launcherRoot()).entryList({".current-macos*"}, QDir::Files | QDir::Hidden),
                 QStringList());
    }
    void writeIntoAMissingFolderFails() {
        ScopedDataHome home;
        QVERIFY_THROWS_EXCEPTION(FileError,
                                 (InstalledState{"0.3.0", "/v"}.write(files, home.statePath())));
        QVERIFY(!QFile::exists(home.statePath()));
    }
};

QTEST_GUILESS_MAIN(TestInstalledState)
#include "TestInstalledState.moc"
