// How the launcher changes a player's mimeapps.list: its own handler in, or out, and every other
// line as it was.

#include "desktop/MimeAppsList.h"

#include <QTest>

namespace {
const QString kType = QStringLiteral("x-scheme-handler/zentho");
const QString kEntry = QStringLiteral("zentho-launcher.desktop");
} // namespace

class TestMimeAppsList : public QObject {
    Q_OBJECT

private slots:
    void defaultGoesIntoTheDefaultsSection_data() {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("after");
        QTest::newRow("no file") << QByteArray() << QByteArray("[Default Applications]\nx-scheme-handler/zentho=zentho-launcher.desktop\n");
        QTest::newRow("other sections only")
            << QByteArray("[Added Associations]\nimage/png=viewer.desktop;\n")
            << QByteArray("[Added Associations]\nimage/png=viewer.desktop;\n[Default Applications]\n"
                          "x-scheme-handler/zentho=zentho-launcher.desktop\n");
        QTest::newRow("before the next section, an earlier handler replaced")
            << QByteArray("[Default Applications]\ntext/html=browser.desktop;other.desktop;\n"
                          "x-scheme-handler/zentho=old.desktop\n\n[Added Associations]\nimage/png=viewer.desktop;\n")
            << QByteArray("[Default Applications]\ntext/html=browser.desktop;other.desktop;\n"
                          "x-scheme-handler/zentho=zentho-launcher.desktop\n\n[Added Associations]\nimage/png=viewer.desktop;\n");
        QTest::newRow("already there")
            << QByteArray("[Default Applications]\nx-scheme-handler/zentho=zentho-launcher.desktop\n")
            << QByteArray("[Default Applications]\nx-scheme-handler/zentho=zentho-launcher.desktop\n");
        QTest::newRow("an added association stays")
            << QByteArray("[Added Associations]\nx-scheme-handler/zentho=old.desktop;\n")
            << QByteArray("[Added Associations]\nx-scheme-handler/zentho=old.desktop;\n[Default Applications]\n"
                          "x-scheme-handler/zentho=zentho-launcher.desktop\n");
    }
    void defaultGoesIntoTheDefaultsSection() {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, after);
        QCOMPARE(MimeAppsList::withDefault(before, kType, kEntry), after);
    }

    void withoutTakesOnlyTheEntry_data() {
        QTest::addColumn<QByteArray>("before");
        QTest::addColumn<QByteArray>("after");
        QTest::newRow("the only handler") << QByteArray("[Default Applications]\nx-scheme-handler/zentho=zentho-launcher.desktop\n")
                                          << QByteArray("[Default Applications]\n");
        QTest::newRow("one of several")
            << QByteArray("[Added Associations]\nx-scheme-handler/zentho=a.desktop;zentho-launcher.desktop;b.desktop;\n")
            << QByteArray("[Added Associations]\nx-scheme-handler/zentho=a.desktop;b.desktop;\n");
        QTest::newRow("other types untouched")
            << QByteArray("[Default Applications]\ntext/html=zentho-launcher.desktop;\n")
            << QByteArray("[Default Applications]\ntext/html=zentho-launcher.desktop;\n");
    }
    void withoutTakesOnlyTheEntry() {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, after);
        QCOMPARE(MimeAppsList::without(before, kType, kEntry), after);
    }

    void emptyMeansHeadersAndBlanksOnly() {
        QVERIFY(MimeAppsList::isEmpty(""));
        QVERIFY(MimeAppsList::isEmpty("[Default Applications]\n\n[Added Associations]\n"));
        QVERIFY(!MimeAppsList::isEmpty("[Default Applications]\ntext/html=b.desktop\n"));
    }
};

QTEST_APPLESS_MAIN(TestMimeAppsList)
#include "TestMimeAppsList.moc"
