// The one fetch both release manifests go through: status, the opt-in detached signature over
// the exact bytes, decoding, the "expires" of a signed manifest and the platform, in that order,
// over a real nginx and from local files.

#include "ManifestJson.h"
#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "errors/LauncherError.h"
#include "formats/ManifestExpiry.h"
#include "formats/ReleaseManifest.h"
#include "net/HttpClient.h"
#include "trust/ManifestSignature.h"
#include "update/ManifestFetch.h"

#include <QDateTime>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

QByteArray manifestJson(const QString& platform, const QString& extra = {}) {
    ManifestJson json(QStringLiteral("0.2.0"), QStringLiteral("https://127.0.0.1/a.tar.gz"), QStringLiteral("00"));
    json.platform(platform).lineEnd();
    // `extra` is written as it comes after the last member, its comma included.
    if (!extra.isEmpty())
        json.member(extra.mid(1).toUtf8());
    return json;
}

QByteArray signatureBy(const Ed25519Key& key, const QByteArray& bytes) {
    return QByteArray::fromStdString(key.sign(bytes.toStdString()));
}

QString expiresIn(qint64 seconds) {
    return QStringLiteral(",\"expires\":\"%1\"")
        .arg(ManifestExpiry::text(QDateTime::currentDateTimeUtc().addSecs(seconds)));
}

HttpClient http;

// Runs the fetch and returns the text of what it threw; a null string when it succeeded.
QString failureOf(const QUrl& url, const ManifestKind& kind, const TrustedKeys& keys) {
    try {
        awaitResult(fetchReleaseManifest(http, url, kind, keys));
    } catch (const LauncherError& error) {
        return error.errorDescription();
    } catch (const std::exception& error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

} // namespace

class TestManifestFetch : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    Ed25519Key current_ = Ed25519Key::generate();
    Ed25519Key next_ = Ed25519Key::generate();
    Ed25519Key foreign_ = Ed25519Key::generate();
    TrustedKeys trusted_;
    int serial_ = 0;

    // Serves `bytes` as a fresh manifest and, when given, `signature` beside it; returns its URL.
    QUrl serve(const QByteArray& bytes, const std::optional<QByteArray>& signature) {
        const QString name = QStringLiteral("/m%1/manifest.json").arg(++serial_);
        server_->writeFile(name.mid(1), bytes);
        if (signature)
            server_->writeFile(name.mid(1) + QStringLiteral(".sig"), *signature);
        return server_->url(name);
    }
    // How often nginx was asked for `url`, every request answered so far counted.
    int requestsFor(const QUrl& url) const {
        server_->awaitLogged();
        return server_->accessLog().count(QStringLiteral("GET ") + url.path() + QLatin1Char(' '));
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        TestServer::trustInThisProcess();
        server_ = std::make_unique<TestServer>();
        trusted_.add(current_);
        trusted_.add(next_);
    }

    void theSignatureSitsBesideTheManifest() {
        QCOMPARE(ManifestSignature::signatureURL(QUrl(QStringLiteral("https://h/release/m.json"))),
                 QUrl(QStringLiteral("https://h/release/m.json.sig")));
        QCOMPARE(ManifestSignature::signatureURL(QUrl(QStringLiteral("https://h/a%20b.json?k=v#f"))),
                 QUrl(QStringLiteral("https://h/a%20b.json.sig?k=v#f")));
        QCOMPARE(ManifestSignature::signatureURL(QUrl::fromLocalFile(QStringLiteral("/tmp/m.json"))),
                 QUrl::fromLocalFile(QStringLiteral("/tmp/m.json.sig")));
    }

    void withoutKeysNoSignatureIsFetchedOrChecked() {
        // A forged signature and a manifest that expired long ago: neither matters.
        const QByteArray bytes = manifestJson(QStringLiteral("macos-arm64"), expiresIn(-86400));
        const QUrl url = serve(bytes, QByteArray(64, 'x'));
        const ReleaseManifest manifest = awaitResult(fetchReleaseManifest(http, url, ManifestKind::game(), {}));
        QCOMPARE(manifest.version, QStringLiteral("0.2.0"));
        QCOMPARE(requestsFor(url), 1);
        QCOMPARE(requestsFor(ManifestSignature::signatureURL(url)), 0);
    }

    void withKeysTheSignatureIsFetchedOnce() {
        const QByteArray bytes = manifestJson(QStringLiteral("macos-arm64"));
        const QUrl url = serve(bytes, signatureBy(current_, bytes));
        QCOMPARE(failureOf(url, ManifestKind::game(), trusted_), QString());
        QCOMPARE(requestsFor(url), 1);
        QCOMPARE(requestsFor(ManifestSignature::signatureURL(url)), 1);
    }

    void signedManifests_data() {
        QTest::addColumn<bool>("launcher");
        QTest::addColumn<QString>("signer");
        QTest::addColumn<QString>("extra");
        QTest::addColumn<QString>("tamper");
        QTest::addColumn<QString>("expected"); // the error's text after "The <noun>", empty: accepted
        for (const bool launcher : {false, true}) {
            const char* side = launcher ? "launcher: " : "game: ";
            const auto row = [&](const char* name) -> QTestData& {
                return QTest::newRow((QByteArray(side) + name).constData()) << launcher;
            };
            row("current key") << "current" << "" << "" << "";
            row("next key") << "next" << "" << "" << "";
            row("expires tomorrow") << "current" << expiresIn(86400) << "" << "";
            row("unsigned") << "" << "" << "" << " is not signed.";
            row("forged") << "current" << "" << "bytes" << " is not signed by a trusted key.";
            row("foreign key") << "foreign" << "" << "" << " is not signed by a trusted key.";
            row("short signature") << "current" << "" << "signature" << " is not signed by a trusted key.";
            row("expired") << "current" << expiresIn(-60) << "" << " expired at ";
            row("expires unreadable") << "current" << ",\"expires\":\"tomorrow\"" << ""
                                       << "'s \"expires\" is not a time such as 2030-01-31T00:00:00Z.";
            row("expires without zone") << "current" << ",\"expires\":\"2999-01-31T00:00:00\"" << ""
                                         << "'s \"expires\" is not a time such as 2030-01-31T00:00:00Z.";
        }
    }
    void signedManifests() {
        QFETCH(bool, launcher);
        QFETCH(QString, signer);
        QFETCH(QString, extra);
        QFETCH(QString, tamper);
        QFETCH(QString, expected);
        const ManifestKind kind = launcher ? ManifestKind::launcher() : ManifestKind::game();
        QByteArray bytes = manifestJson(kind.platform, extra);
        std::optional<QByteArray> signature;
        if (!signer.isEmpty()) {
            const Ed25519Key& key = signer == QLatin1String("current") ? current_
                                    : signer == QLatin1String("next")  ? next_
                                                                       : foreign_;
            signature = signatureBy(key, bytes);
        }
        if (tamper == QLatin1String("bytes"))
            bytes.replace("0.2.0", "6.6.6");
        if (tamper == QLatin1String("signature"))
            signature->chop(1);

        const QString failure = failureOf(serve(bytes, signature), kind, trusted_);
        if (expected.isEmpty())
            QCOMPARE(failure, QString());
        else
            QVERIFY2(failure.startsWith(QStringLiteral("The ") + kind.noun + expected), qPrintable(failure));
    }

    void statusIsCheckedBeforeTheSignatureIsFetched() {
        const QByteArray bytes = manifestJson(QStringLiteral("macos-launcher-arm64"));
        serve(bytes, signatureBy(current_, bytes));
        const QUrl url = server_->url(QStringLiteral("/status/404/m%1/manifest.json").arg(serial_));
        QCOMPARE(failureOf(url, ManifestKind::launcher(), trusted_),
                 LauncherError::badLauncherManifest().errorDescription());
        QCOMPARE(requestsFor(ManifestSignature::signatureURL(url)), 0);
    }

    void aSignedManifestStillNeedsItsPlatformAndItsKeys() {
        // Signed by a trusted key, but the game's manifest where the launcher's is expected.
        QByteArray bytes = manifestJson(QStringLiteral("macos-arm64"));
        QCOMPARE(failureOf(serve(bytes, signatureBy(current_, bytes)), ManifestKind::launcher(), trusted_),
                 LauncherError::wrongLauncherPlatform().errorDescription());
        // Signed, but not a manifest: the decoding error passes through as it is.
        bytes = "{\"version\":\"0.2.0\"}";
        QCOMPARE(failureOf(serve(bytes, signatureBy(current_, bytes)), ManifestKind::game(), trusted_),
                 QStringLiteral("The manifest is missing \"platform\"."));
    }

    void aLocalManifestIsSignedBesideItToo() {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("manifest.json"));
        const QByteArray bytes = manifestJson(QStringLiteral("macos-arm64"));
        TestFiles::writeFile(path, bytes);
        const QUrl url = QUrl::fromLocalFile(path);
        QCOMPARE(failureOf(url, ManifestKind::game(), trusted_), QStringLiteral("The update manifest is not signed."));
        TestFiles::writeFile(path + QStringLiteral(".sig"), signatureBy(next_, bytes));
        QCOMPARE(failureOf(url, ManifestKind::game(), trusted_), QString());
        TestFiles::writeFile(path + QStringLiteral(".sig"), signatureBy(foreign_, bytes));
        QCOMPARE(failureOf(url, ManifestKind::game(), trusted_),
                 QStringLiteral("The update manifest is not signed by a trusted key."));
    }
};

QTEST_GUILESS_MAIN(TestManifestFetch)
#include "TestManifestFetch.moc"
