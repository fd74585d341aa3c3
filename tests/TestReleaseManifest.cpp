#include "model/LauncherError.h"
#include "update/ReleaseManifest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

namespace {

QJsonObject completeManifest() {
    return QJsonObject{
        {"version", "0.4.2"},
        {"platform", "macos-arm64"},
        {"url", "https://release.invalid/builds/zentho-0.4.2-macos-arm64.tar.gz"},
        {"sha256", "5d41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d083"},
        {"executable", "zentho"},
    };
}

QByteArray json(const QJsonObject& object) {
    return QJsonDocument(object).toJson();
}

// The decoding error's text, or a null string when the body decoded.
QString decodingErrorOf(const QByteArray& body) {
    try {
        ReleaseManifest::decode(body);
    } catch (const ManifestDecodingError& error) {
        return QString::fromStdString(error.what());
    }
    return QString();
}

} // namespace

class TestReleaseManifest : public QObject {
    Q_OBJECT

private slots:
    void completeManifestDecodesEveryField() {
        const ReleaseManifest manifest = ReleaseManifest::decode(json(completeManifest()));
        QCOMPARE(manifest.version, QStringLiteral("0.4.2"));
        QCOMPARE(manifest.platform, QStringLiteral("macos-arm64"));
        QCOMPARE(manifest.url,
                 QUrl(QStringLiteral("https://release.invalid/builds/zentho-0.4.2-macos-arm64.tar.gz")));
        QCOMPARE(manifest.sha256,
                 QStringLiteral("5d41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d083"));
        QCOMPARE(manifest.executable, QStringLiteral("zentho"));
    }

    void extraKeysAreIgnored() {
        QJsonObject object = completeManifest();
        object.insert("notes", "Faster loading.");
        object.insert("Version", "9.9.9");
        QCOMPARE(ReleaseManifest::decode(json(object)), ReleaseManifest::decode(json(completeManifest())));
    }

    void everyKeyIsRequired_data() {
        QTest::addColumn<QString>("key");
        for (const char* key : {"version", "platform", "url", "sha256", "executable"})
            QTest::newRow(key) << QString::fromLatin1(key);
    }
    void everyKeyIsRequired() {
        QFETCH(QString, key);
        QJsonObject object = completeManifest();
        object.remove(key);
        QCOMPARE(decodingErrorOf(json(object)),
                 QStringLiteral("The manifest is missing \"%1\".").arg(key));
    }

    void keysAreCaseSensitive() {
        QJsonObject object = completeManifest();
        object.remove("executable");
        object.insert("Executable", "zentho");
        QCOMPARE(decodingErrorOf(json(object)), QStringLiteral("The manifest is missing \"executable\"."));
    }

    void firstFailureInFieldOrderIsReported() {
        QJsonObject object = completeManifest();
        object.remove("executable");
        object.insert("sha256", 42);
        object.remove("platform");
        QCOMPARE(decodingErrorOf(json(object)), QStringLiteral("The manifest is missing \"platform\"."));
    }

    void nullAndWrongTypesFail() {
        QJsonObject object = completeManifest();
        object.insert("version", QJsonValue::Null);
        QCOMPARE(decodingErrorOf(json(object)), QStringLiteral("The manifest's \"version\" is null."));
        object = completeManifest();
        object.insert("version", 4.2);
        QCOMPARE(decodingErrorOf(json(object)),
                 QStringLiteral("The manifest's \"version\" is not a string."));
        object = completeManifest();
        object.insert("url", QJsonObject{{"href", "https://release.invalid/x.tar.gz"}});
        QCOMPARE(decodingErrorOf(json(object)), QStringLiteral("The manifest's \"url\" is not a string."));
    }

    void bodiesThatAreNotAManifestObjectFail() {
        QVERIFY(decodingErrorOf("").startsWith(QStringLiteral("The manifest is not valid JSON")));
        QVERIFY(decodingErrorOf("<!DOCTYPE html><html></html>")
                    .startsWith(QStringLiteral("The manifest is not valid JSON")));
        QVERIFY(decodingErrorOf("{\"version\": \"0.4.2\",").startsWith(
            QStringLiteral("The manifest is not valid JSON")));
        QCOMPARE(decodingErrorOf("[]"), QStringLiteral("The manifest is not a JSON object."));
        QCOMPARE(decodingErrorOf("{}"), QStringLiteral("The manifest is missing \"version\"."));
    }

    void relativeURLDecodes() {
        QJsonObject object = completeManifest();
        object.insert("url", "builds/x.tar.gz");
        const ReleaseManifest manifest = ReleaseManifest::decode(json(object));
        QVERIFY(manifest.url.isRelative());
        QCOMPARE(manifest.url.toString(), QStringLiteral("builds/x.tar.gz"));
    }

    void urlThatDoesNotParseFails_data() {
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << QString();
        QTest::newRow("unclosed IPv6 bracket") << QStringLiteral("https://[::1/x.tar.gz");
        QTest::newRow("blank in host") << QStringLiteral("https://release server/x.tar.gz");
    }
    void urlThatDoesNotParseFails() {
        QFETCH(QString, text);
        QJsonObject object = completeManifest();
        object.insert("url", text);
        QCOMPARE(decodingErrorOf(json(object)), QStringLiteral("The manifest's \"url\" is not a valid URL."));
    }

    void valuesAreKeptExactlyAsWritten() {
        // The decoder judges only types; platform, digest and version checks belong to the
        // consumers, so they must see the text untouched.
        QJsonObject object = completeManifest();
        object.insert("platform", "macOS-arm64 ");
        object.insert("sha256", "sha256:5D41A9C07B3E8F2A6C1D94E7B8A0F3C2D6E9B1A47C8F05E3D2B6A9C1F7E4D083\n");
        object.insert("version", "0.4.02");
        const ReleaseManifest manifest = ReleaseManifest::decode(json(object));
        QCOMPARE(manifest.platform, QStringLiteral("macOS-arm64 "));
        QCOMPARE(manifest.sha256,
                 QStringLiteral("sha256:5D41A9C07B3E8F2A6C1D94E7B8A0F3C2D6E9B1A47C8F05E3D2B6A9C1F7E4D083\n"));
        QCOMPARE(manifest.version, QStringLiteral("0.4.02"));
        QVERIFY(manifest.version != ReleaseManifest::decode(json(completeManifest())).version);
    }

    void decodingErrorIsNotALauncherError() {
        try {
            ReleaseManifest::decode("{}");
            QFAIL("decoding {} must fail");
        } catch (const LauncherError&) {
            QFAIL("a decoding error must pass through as itself");
        } catch (const ManifestDecodingError& error) {
            QCOMPARE(describeError(error), QStringLiteral("The manifest is missing \"version\"."));
        }
    }

    void encodingWritesTheFiveKeysInFieldOrder() {
        const ReleaseManifest manifest = ReleaseManifest::decode(json(completeManifest()));
        const QByteArray text = manifest.encode();
        QCOMPARE(ReleaseManifest::decode(text), manifest);
        qsizetype previous = -1;
        for (const char* key : {"\"version\"", "\"platform\"", "\"url\"", "\"sha256\"", "\"executable\""}) {
            const qsizetype at = text.indexOf(key);
            QVERIFY2(at > previous, key);
            previous = at;
        }
        ReleaseManifest other = manifest;
        other.version = QStringLiteral("0.4.3");
        QVERIFY(ReleaseManifest::decode(other.encode()) != manifest);
    }
};

QTEST_MAIN(TestReleaseManifest)
#include "TestReleaseManifest.moc"
