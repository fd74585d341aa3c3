#include "formats/StrictJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <cmath>

// The one JSON reader: refuses what no correct writer produces, keeps reading what QJsonDocument
// reads, and lets an out-of-range number through as a value nobody has to look at.
class TestStrictJson : public QObject {
    Q_OBJECT

private slots:
    void correctTextsReadAsQtReadsThem_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::newRow("object") << QByteArray("{\"version\":\"0.2.0\",\"path\":\"\\/p\"}");
        QTest::newRow("blanks everywhere") << QByteArray(" \t\r\n{ \"a\" : [ 1 , -2.5e3 , true , false , null ] }\n");
        QTest::newRow("escapes") << QByteArray("[\"\\\"\\\\\\/\\b\\f\\n\\r\\t\\u0000\\u001f\\u00e9\\u20ac\"]");
        QTest::newRow("surrogate pair escape") << QByteArray("[\"\\ud83c\\udfae\", \"\\uD83C\\uDFAE\"]");
        QTest::newRow("UTF-8 of every length") << QByteArray("[\"A \xc3\xa9 \xe2\x82\xac \xf0\x9f\x8e\xae \xf4\x8f\xbf\xbf\"]");
        QTest::newRow("nested") << QByteArray("{\"a\":{\"b\":[[],{}],\"c\":0},\"d\":-0}");
        QTest::newRow("byte-order mark") << QByteArray("\xef\xbb\xbf{\"a\":1}");
        QTest::newRow("repeated key") << QByteArray("{\"a\":1,\"a\":2}");
        QTest::newRow("numbers") << QByteArray("[0,1,-1,0.5,1e2,1E+2,1e-2,123456789012345678901234567890]");
    }
    void correctTextsReadAsQtReadsThem() {
        QFETCH(QByteArray, text);
        const StrictJson strict = StrictJson::parse(text);
        QVERIFY2(strict.ok(), qPrintable(strict.error));
        QJsonParseError error{};
        const QJsonDocument qt = QJsonDocument::fromJson(text, &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        const QJsonValue expected = qt.isObject() ? QJsonValue(qt.object()) : QJsonValue(qt.array());
        QCOMPARE(strict.value, expected);
    }

    void refusedTexts_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("reason");
        QTest::newRow("raw 0x01 in a string") << QByteArray("{\"a\":\"x\x01y\"}") << "control character in a string";
        QTest::newRow("raw tab in a string") << QByteArray("{\"a\":\"x\ty\"}") << "control character in a string";
        QTest::newRow("raw line feed in a key") << QByteArray("{\"a\nb\":1}") << "control character in a string";
        QTest::newRow("raw NUL in a string") << QByteArray("{\"a\":\"x\0y\"}", 11) << "control character in a string";
        QTest::newRow("raw 0x1f in a string") << QByteArray("{\"a\":\"\x1f\"}") << "control character in a string";
        QTest::newRow("lone high surrogate") << QByteArray("{\"a\":\"\\ud800\"}") << "unpaired surrogate escape";
        QTest::newRow("lone low surrogate") << QByteArray("{\"a\":\"\\udc00\"}") << "unpaired surrogate escape";
        QTest::newRow("pair reversed") << QByteArray("{\"a\":\"\\udc00\\ud800\"}") << "unpaired surrogate escape";
        QTest::newRow("high then letter") << QByteArray("{\"a\":\"\\ud800x\"}") << "unpaired surrogate escape";
        QTest::newRow("high then high") << QByteArray("{\"a\":\"\\ud800\\ud800\"}") << "unpaired surrogate escape";
        QTest::newRow("high then other escape") << QByteArray("{\"a\":\"\\ud800\\u0041\"}") << "unpaired surrogate escape";
        QTest::newRow("invalid byte") << QByteArray("{\"a\":\"\xff\"}") << "invalid UTF-8";
        QTest::newRow("2-byte overlong") << QByteArray("{\"a\":\"\xc0\xaf\"}") << "invalid UTF-8";
        QTest::newRow("3-byte overlong") << QByteArray("{\"a\":\"\xe0\x80\xaf\"}") << "invalid UTF-8";
        QTest::newRow("4-byte overlong") << QByteArray("{\"a\":\"\xf0\x80\x80\xaf\"}") << "invalid UTF-8";
        QTest::newRow("encoded surrogate") << QByteArray("{\"a\":\"\xed\xa0\x80\"}") << "invalid UTF-8";
        QTest::newRow("past U+10FFFF") << QByteArray("{\"a\":\"\xf4\x90\x80\x80\"}") << "invalid UTF-8";
        QTest::newRow("cut sequence") << QByteArray("{\"a\":\"\xe2\x82\"}") << "invalid UTF-8";
        QTest::newRow("bad escape") << QByteArray("{\"a\":\"\\x41\"}") << "illegal escape";
        QTest::newRow("short \\u") << QByteArray("{\"a\":\"\\u12\"}") << "illegal \\u escape";
        QTest::newRow("unterminated string") << QByteArray("{\"a\":\"abc") << "unterminated string";
        QTest::newRow("unterminated object") << QByteArray("{\"a\":1") << "unterminated object";
        QTest::newRow("trailing comma") << QByteArray("{\"a\":1,}") << "expected a key";
        QTest::newRow("garbage after") << QByteArray("{}x") << "unexpected text after the end";
        QTest::newRow("scalar at the top") << QByteArray("\"s\"") << "expected an object or an array";
        QTest::newRow("empty") << QByteArray() << "expected an object or an array";
        QTest::newRow("leading zero") << QByteArray("[01]") << "expected a comma or the end of the array";
        QTest::newRow("bare point") << QByteArray("[1.]") << "illegal number";
        QTest::newRow("bare exponent") << QByteArray("[1e]") << "illegal number";
        QTest::newRow("plus sign") << QByteArray("[+1]") << "illegal value";
        QTest::newRow("NaN") << QByteArray("[NaN]") << "illegal value";
        QTest::newRow("single quotes") << QByteArray("{'a':1}") << "expected a key";
        QTest::newRow("too deep") << QByteArray(600, '[') + QByteArray(600, ']') << "too deeply nested";
    }
    void refusedTexts() {
        QFETCH(QByteArray, text);
        QFETCH(QString, reason);
        const StrictJson strict = StrictJson::parse(text);
        QVERIFY(!strict.ok());
        QVERIFY2(strict.error.startsWith(reason + QStringLiteral(" at offset ")), qPrintable(strict.error));
        QCOMPARE(strict.value.type(), QJsonValue::Undefined);
    }

    void theOffsetPointsAtTheFault() {
        QCOMPARE(StrictJson::parse("{\"abc\":\"d\x02\"}").error,
                 QStringLiteral("control character in a string at offset 9"));
    }

    void outOfRangeNumbersAreReadNotRefused() {
        const StrictJson strict = StrictJson::parse("{\"big\":1e400,\"small\":-1e400,\"tiny\":1e-400,\"a\":\"x\"}");
        QVERIFY2(strict.ok(), qPrintable(strict.error));
        const QJsonObject object = strict.value.toObject();
        QVERIFY(std::isinf(object.value("big").toDouble()));
        QVERIFY(object.value("big").toDouble() > 0);
        QVERIFY(std::isinf(object.value("small").toDouble()));
        QVERIFY(object.value("small").toDouble() < 0);
        QCOMPARE(object.value("tiny").toDouble(), 0.0);
        QCOMPARE(object.value("a").toString(), QStringLiteral("x"));
    }

    void escapedControlsAndPairsBecomeTheirCharacters() {
        const StrictJson strict = StrictJson::parse("[\"\\u0001\\u0000\\ud83c\\udfae\"]");
        QVERIFY(strict.ok());
        QCOMPARE(strict.value.toArray().first().toString(),
                 QString(QChar(1)) + QChar(0) + QString::fromUtf8("\xf0\x9f\x8e\xae"));
    }
};

QTEST_GUILESS_MAIN(TestStrictJson)
#include "TestStrictJson.moc"
