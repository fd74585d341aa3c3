#include "errors/LauncherError.h"
#include "formats/ReleaseManifest.h"

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

    // Releases published with chunks carry one more member; the five keys decode as before and
    // the member is read as an optional field.
    void aChunksMemberIsReadWhenWellFormed() {
        QJsonObject object = completeManifest();
        object.insert("chunks", QJsonObject{{"index", "https://release.invalid/builds/zentho-0.4.2-macos-arm64.chunks.json"},
                                            {"sha256", "AB41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d083"},
                                            {"store", "https://release.invalid/chunks"}});
        const ReleaseManifest manifest = ReleaseManifest::decode(json(object));
        QVERIFY(manifest.chunks.has_value());
        QCOMPARE(manifest.chunks->index.toString(),
                 QStringLiteral("https://release.invalid/builds/zentho-0.4.2-macos-arm64.chunks.json"));
        QCOMPARE(manifest.chunks->sha256, QStringLiteral("AB41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d083"));
        QCOMPARE(manifest.chunks->store.toString(), QStringLiteral("https://release.invalid/chunks"));
        ReleaseManifest withoutChunks = manifest;
        withoutChunks.chunks.reset();
        QCOMPARE(withoutChunks, ReleaseManifest::decode(json(completeManifest())));
        QVERIFY(!ReleaseManifest::decode(json(completeManifest())).chunks.has_value());
        // What encode writes reads back the same, with the member and without it.
        QCOMPARE(ReleaseManifest::decode(manifest.encode()), manifest);
        QCOMPARE(ReleaseManifest::decode(withoutChunks.encode()), withoutChunks);
        QVERIFY(!withoutChunks.encode().contains("chunks"));
    }

    // A release with a compressed index names it beside the JSON one; launchers that know no
    // compressed index see the same three keys as before.
    void aCompressedIndexIsReadWhenWellFormed() {
        QJsonObject chunks{{"index", "https://release.invalid/builds/i.chunks.json"},
                           {"sha256", "5d41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d083"},
                           {"store", "https://release.invalid/chunks"}};
        QJsonObject object = completeManifest();
        object.insert("chunks", chunks);
        const ReleaseManifest plain = ReleaseManifest::decode(json(object));
        QVERIFY(plain.chunks && !plain.chunks->compressedIndex.isValid() && plain.chunks->compressedSha256.isEmpty());
        QVERIFY(!plain.encode().contains("index_zst"));

        chunks.insert("index_zst", "https://release.invalid/builds/i.chunks.json.zst");
        chunks.insert("index_zst_sha256", "9e41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d0ff");
        object.insert("chunks", chunks);
        const ReleaseManifest manifest = ReleaseManifest::decode(json(object));
        QVERIFY(manifest.chunks.has_value());
        QCOMPARE(manifest.chunks->compressedIndex.toString(), QStringLiteral("https://release.invalid/builds/i.chunks.json.zst"));
        QCOMPARE(manifest.chunks->compressedSha256,
                 QStringLiteral("9e41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d0ff"));
        QCOMPARE(manifest.chunks->index, plain.chunks->index);
        QCOMPARE(manifest.chunks->sha256, plain.chunks->sha256);
        QCOMPARE(ReleaseManifest::decode(manifest.encode()), manifest);
    }
    // Its twin: a compressed index without a digest, with a short one or without an address is
    // left out alone, and the release's chunks are read from the JSON index.
    void aMalformedCompressedIndexLeavesTheJsonIndex_data() {
        QTest::addColumn<QJsonValue>("url");
        QTest::addColumn<QJsonValue>("sha256");
        const QJsonValue url("https://release.invalid/builds/i.chunks.json.zst");
        const QJsonValue digest("9e41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d0ff");
        QTest::newRow("no digest") << url << QJsonValue(QJsonValue::Undefined);
        QTest::newRow("short digest") << url << QJsonValue("9e41a9");
        QTest::newRow("digest a number") << url << QJsonValue(7);
        QTest::newRow("no address") << QJsonValue(QJsonValue::Undefined) << digest;
        QTest::newRow("empty address") << QJsonValue("") << digest;
        QTest::newRow("not a URL") << QJsonValue("http://[::1") << digest;
    }
    void aMalformedCompressedIndexLeavesTheJsonIndex() {
        QFETCH(QJsonValue, url);
        QFETCH(QJsonValue, sha256);
        QJsonObject chunks{{"index", "https://release.invalid/builds/i.chunks.json"},
                           {"sha256", "5d41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d083"},
                           {"store", "https://release.invalid/chunks"}};
        QJsonObject object = completeManifest();
        object.insert("chunks", chunks);
        const ReleaseManifest plain = ReleaseManifest::decode(json(object));
        if (!url.isUndefined())
            chunks.insert("index_zst", url);
        if (!sha256.isUndefined())
            chunks.insert("index_zst_sha256", sha256);
        object.insert("chunks", chunks);
        const ReleaseManifest manifest = ReleaseManifest::decode(json(object));
        QVERIFY(manifest.chunks.has_value());
        QVERIFY(!manifest.chunks->compressedIndex.isValid());
        QCOMPARE(manifest, plain);
    }

    void aMalformedChunksMemberIsIgnoredLikeAnyUnknownKey_data() {
        QTest::addColumn<QJsonValue>("chunks");
        const QJsonObject good{{"index", "https://release.invalid/i.json"},
                               {"sha256", "5d41a9c07b3e8f2a6c1d94e7b8a0f3c2d6e9b1a47c8f05e3d2b6a9c1f7e4d083"},
                               {"store", "https://release.invalid/chunks"}};
        QTest::newRow("a string") << QJsonValue("https://release.invalid/i.json");
        QTest::newRow("null") << QJsonValue(QJsonValue::Null);
        for (const char* key : {"index", "sha256", "store"}) {
            QJsonObject missing = good;
            missing.remove(key);
            QTest::newRow(qPrintable(QStringLiteral("without %1").arg(key))) << QJsonValue(missing);
            QJsonObject number = good;
            number.insert(key, 7);
            QTest::newRow(qPrintable(QStringLiteral("%1 a number").arg(key))) << QJsonValue(number);
        }
        QJsonObject shortDigest = good;
        shortDigest.insert("sha256", "5d41a9");
        QTest::newRow("short digest") << QJsonValue(shortDigest);
        QJsonObject badUrl = good;
        badUrl.insert("store", "http://[::1");
        QTest::newRow("store not a URL") << QJsonValue(badUrl);
    }
    void aMalformedChunksMemberIsIgnoredLikeAnyUnknownKey() {
        QFETCH(QJsonValue, chunks);
        QJsonObject object = completeManifest();
        object.insert("chunks", chunks);
        const ReleaseManifest manifest = ReleaseManifest::decode(json(object));
        QVERIFY(!manifest.chunks.has_value());
        QCOMPARE(manifest, ReleaseManifest::decode(json(completeManifest())));
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

    // The version becomes the build's folder in the storage: anything but one plain name would
    // put the build somewhere else, such as the chunk cache a later clear deletes.
    void aVersionThatIsNotOnePlainFolderNameFails_data() {
        QTest::addColumn<QString>("version");
        QTest::newRow("into the chunk cache") << QStringLiteral("../chunks");
        QTest::newRow("parent") << QStringLiteral("..");
        QTest::newRow("same folder") << QStringLiteral(".");
        QTest::newRow("empty") << QString();
        QTest::newRow("nested") << QStringLiteral("0.4/2");
        QTest::newRow("trailing slash") << QStringLiteral("0.4.2/");
        QTest::newRow("absolute") << QStringLiteral("/tmp/zentho");
        QTest::newRow("line feed") << QStringLiteral("0.4\n2");
        QTest::newRow("nul") << QString(QStringLiteral("0.4.2") + QChar(0));
        QTest::newRow("delete") << QStringLiteral("0.4.2\x7f");
        QTest::newRow("C1 control") << QStringLiteral("0.4.2\u0085");
    }
    void aVersionThatIsNotOnePlainFolderNameFails() {
        QFETCH(QString, version);
        QJsonObject object = completeManifest();
        object.insert("version", version);
        QCOMPARE(decodingErrorOf(json(object)),
                 QStringLiteral("The manifest's \"version\" is not a plain folder name."));
    }
    // Its twin: names that only look odd are one folder each and decode as written.
    void oddButPlainVersionsDecode_data() {
        QTest::addColumn<QString>("version");
        QTest::newRow("three dots") << QStringLiteral("...");
        QTest::newRow("leading dots") << QStringLiteral("..0.4.2");
        QTest::newRow("blank inside") << QStringLiteral("0.4.2 beta");
        QTest::newRow("backslash") << QStringLiteral("0.4\\2");
        QTest::newRow("not ASCII") << QStringLiteral("0.4.2-\u00e9t\u00e9");
    }
    void oddButPlainVersionsDecode() {
        QFETCH(QString, version);
        QJsonObject object = completeManifest();
        object.insert("version", version);
        QCOMPARE(decodingErrorOf(json(object)), QString());
        QCOMPARE(ReleaseManifest::decode(json(object)).version, version);
    }
    // The version is read first, so its refusal is the one reported over later keys' failures.
    void aHostileVersionIsReportedBeforeLaterKeys() {
        QCOMPARE(decodingErrorOf("{\"version\":\"../chunks\"}"),
                 QStringLiteral("The manifest's \"version\" is not a plain folder name."));
    }

    void valuesAreKeptExactlyAsWritten() {
        // The decoder judges only types and whether the version names one folder; platform,
        // digest and version comparisons belong to the consumers, so they must see the text
        // untouched.
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

    // Texts no correct release server writes: refused whole, even when the oddity sits in a
    // member the launcher never reads.
    void strictlyInvalidJsonFails_data() {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("error");
        const QByteArray valid = json(completeManifest()).trimmed();
        const QByteArray head = valid.left(valid.size() - 1);
        QTest::newRow("raw control character in a read value")
            << QByteArray("{\"version\":\"0.4.2\x01\"}")
            << "The manifest is not valid JSON: control character in a string at offset 17.";
        QTest::newRow("raw control character in an ignored member")
            << head + ",\"notes\":\"a\x1f\"}" << QString();
        QTest::newRow("raw line feed in an ignored member")
            << head + ",\"notes\":\"line one\nline two\"}" << QString();
        QTest::newRow("lone surrogate in an ignored member")
            << head + ",\"notes\":\"\\ud800\"}" << QString();
        QTest::newRow("lone surrogate in the executable")
            << QByteArray("{\"version\":\"0.4.2\",\"executable\":\"zentho\\udfff\"}")
            << "The manifest is not valid JSON: unpaired surrogate escape at offset 39.";
        QTest::newRow("bytes that are not UTF-8") << head + ",\"notes\":\"\xc0\xaf\"}" << QString();
    }
    void strictlyInvalidJsonFails() {
        QFETCH(QByteArray, body);
        QFETCH(QString, error);
        const QString got = decodingErrorOf(body);
        QVERIFY2(got.startsWith(QStringLiteral("The manifest is not valid JSON: ")), qPrintable(got));
        if (!error.isNull())
            QCOMPARE(got, error);
    }
    void escapedControlsAndSurrogatePairsDecode() {
        QJsonObject object = completeManifest();
        object.insert("notes", QStringLiteral("tab\there, a pad \U0001F3AE, bell \u0007"));
        const QByteArray body = json(object);
        QVERIFY(body.contains("\\t") && body.contains("\\u0007"));
        QCOMPARE(ReleaseManifest::decode(body), ReleaseManifest::decode(json(completeManifest())));
        QCOMPARE(ReleaseManifest::decode(QByteArray("{\"version\":\"\\ud83c\\udfae\",\"platform\":\"p\","
                                                    "\"url\":\"https://x/y\",\"sha256\":\"s\",\"executable\":\"e\"}"))
                     .version,
                 QString::fromUtf8("\xf0\x9f\x8e\xae"));
    }
    void outOfRangeNumberInAnIgnoredKeyDoesNotSinkTheManifest() {
        const QByteArray valid = json(completeManifest()).trimmed();
        for (const QByteArray number : {"1e400", "-1e400", "1e-400"}) {
            const QByteArray body = valid.left(valid.size() - 1) + ",\"n\":" + number + "}";
            QCOMPARE(decodingErrorOf(body), QString());
            QCOMPARE(ReleaseManifest::decode(body), ReleaseManifest::decode(valid));
        }
        // Its twin: the same number where a string is required still fails, as a wrong type.
        QCOMPARE(decodingErrorOf("{\"version\":1e400}"),
                 QStringLiteral("The manifest's \"version\" is not a string."));
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
