#include "formats/ReleaseManifest.h"
#include "formats/Rollout.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <optional>

namespace {

std::optional<Rollout> read(const QByteArray& member) {
    return Rollout::from(QJsonDocument::fromJson("{\"rollout\":" + member + "}").object().value(QStringLiteral("rollout")));
}

QDateTime at(const char* moment) {
    return QDateTime::fromString(QString::fromLatin1(moment), Qt::ISODate);
}

} // namespace

// The share of installations a staged release is offered to: fixed, growing from a start, or
// halted; and anything malformed is ignored as a launcher that does not know rollouts ignores it.
class TestRollout : public QObject {
    Q_OBJECT

private slots:
    void fixedShareOffersThePlacesBelowIt() {
        const std::optional<Rollout> rollout = read(R"({"percent":10})");
        QVERIFY(rollout);
        const QDateTime now = QDateTime::currentDateTimeUtc();
        QCOMPARE(rollout->shareAt(now), 10.0);
        QVERIFY(rollout->offers(0, now));
        QVERIFY(rollout->offers(9.999, now));
        QVERIFY(!rollout->offers(10, now));
        QVERIFY(!rollout->offers(99.9, now));
        QCOMPARE(rollout->describe(now), QStringLiteral("10 % of installations"));
    }

    void haltedRolloutOffersNobodyMore() {
        const std::optional<Rollout> halted = read(R"({"percent":0})");
        QVERIFY(halted);
        QVERIFY(!halted->offers(0, QDateTime::currentDateTimeUtc()));
        QCOMPARE(halted->describe(QDateTime::currentDateTimeUtc()),
                 QStringLiteral("halted: offered to no more installations"));
        QVERIFY(read(R"({"percent":100})")->offers(99.999, QDateTime::currentDateTimeUtc()));
    }

    // Nobody before the start, the given share at it, all of them once the hours have passed.
    void growingShareFollowsTheClock() {
        const std::optional<Rollout> rollout = read(R"({"percent":10,"start":"2026-12-01T00:00:00Z","hours":10})");
        QVERIFY(rollout);
        QCOMPARE(rollout->shareAt(at("2026-11-30T23:59:59Z")), 0.0);
        QCOMPARE(rollout->shareAt(at("2026-12-01T00:00:00Z")), 10.0);
        QCOMPARE(rollout->shareAt(at("2026-12-01T05:00:00Z")), 55.0);
        QCOMPARE(rollout->shareAt(at("2026-12-01T10:00:00Z")), 100.0);
        QCOMPARE(rollout->shareAt(at("2027-01-01T00:00:00Z")), 100.0);
        QVERIFY(rollout->offers(50, at("2026-12-01T05:00:00Z")));
        QVERIFY(!rollout->offers(60, at("2026-12-01T05:00:00Z")));
        QCOMPARE(rollout->describe(at("2026-12-01T05:00:00Z")),
                 QStringLiteral("10 % of installations from 2026-12-01T00:00:00Z, growing to 100 % by "
                                "2026-12-01T10:00:00Z (now 55 %)"));
    }

    void encodedRolloutReadsBackTheSame() {
        for (const QByteArray& member : {QByteArray(R"({"percent":12.5})"),
                                        QByteArray(R"({"percent":1,"start":"2026-12-01T09:30:00Z","hours":36})")}) {
            const std::optional<Rollout> rollout = read(member);
            QVERIFY(rollout);
            QCOMPARE(read(rollout->encode()), rollout);
        }
    }

    // Wrong types and values out of range: ignored, so the release is offered to all.
    void malformedRolloutIsIgnored_data() {
        QTest::addColumn<QByteArray>("member");
        QTest::newRow("a number") << QByteArray("10");
        QTest::newRow("percent as text") << QByteArray(R"({"percent":"10"})");
        QTest::newRow("no percent") << QByteArray(R"({"hours":5,"start":"2026-12-01T00:00:00Z"})");
        QTest::newRow("negative") << QByteArray(R"({"percent":-1})");
        QTest::newRow("over 100") << QByteArray(R"({"percent":100.5})");
        QTest::newRow("start without hours") << QByteArray(R"({"percent":5,"start":"2026-12-01T00:00:00Z"})");
        QTest::newRow("hours without start") << QByteArray(R"({"percent":5,"hours":3})");
        QTest::newRow("local time") << QByteArray(R"({"percent":5,"start":"2026-12-01T00:00:00","hours":3})");
        QTest::newRow("zero hours") << QByteArray(R"({"percent":5,"start":"2026-12-01T00:00:00Z","hours":0})");
        QTest::newRow("hours past a year") << QByteArray(R"({"percent":5,"start":"2026-12-01T00:00:00Z","hours":9000})");
    }
    void malformedRolloutIsIgnored() {
        QFETCH(QByteArray, member);
        QCOMPARE(read(member), std::nullopt);
    }

    // In a manifest: read when well formed, written back after the other members, and a
    // malformed one leaves the manifest as it would be without it.
    void manifestCarriesItsRollout() {
        const QByteArray five = R"({"version":"0.3.1","platform":"macos-arm64","url":"https://r.example/a.tar.gz",)"
                                R"("sha256":"00","executable":"zentho")";
        const ReleaseManifest staged = ReleaseManifest::decode(five + R"(,"rollout":{"percent":25}})");
        QVERIFY(staged.rollout);
        QCOMPARE(staged.rollout->percent, 25.0);
        QCOMPARE(ReleaseManifest::decode(staged.encode()), staged);
        QVERIFY(staged.encode().endsWith(",\"rollout\":{\"percent\":25}}"));
        const ReleaseManifest broken = ReleaseManifest::decode(five + R"(,"rollout":{"percent":"all"}})");
        QCOMPARE(broken, ReleaseManifest::decode(five + "}"));
    }
};

QTEST_APPLESS_MAIN(TestRollout)
#include "TestRollout.moc"
