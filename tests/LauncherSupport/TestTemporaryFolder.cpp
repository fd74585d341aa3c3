#include <TemporaryFolder.h>

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

// Every file the launcher makes in the temporary folder (process captures, downloads) goes where
// this one rule says; a $TMPDIR that names no usable folder falls back to /tmp.
class TestTemporaryFolder : public QObject {
    Q_OBJECT

    QByteArray saved_;
    bool hadValue_ = false;

private slots:
    void init() {
        hadValue_ = qEnvironmentVariableIsSet("TMPDIR");
        saved_ = qgetenv("TMPDIR");
    }
    void cleanup() {
        if (hadValue_)
            qputenv("TMPDIR", saved_);
        else
            qunsetenv("TMPDIR");
    }

    void existingFolderIsUsedWithoutTrailingSlashes() {
        QTemporaryDir dir;
        qputenv("TMPDIR", QFile::encodeName(dir.path() + QStringLiteral("//")));
        QCOMPARE(QString::fromStdString(temporaryFolder()), dir.path());
    }

    void unusableValuesFallBackToTmp_data() {
        QTest::addColumn<QByteArray>("value");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("missing folder") << QByteArray("/nonexistent/zentho-no-such-folder");
        QTest::newRow("relative") << QByteArray("tmp");
        QTest::newRow("a file") << QByteArray("/etc/hostname");
    }
    void unusableValuesFallBackToTmp() {
        QFETCH(QByteArray, value);
        qputenv("TMPDIR", value);
        QCOMPARE(temporaryFolder(), std::string("/tmp"));
    }

    void unsetFallsBackToTmp() {
        qunsetenv("TMPDIR");
        QCOMPARE(temporaryFolder(), std::string("/tmp"));
    }
};

QTEST_GUILESS_MAIN(TestTemporaryFolder)
#include "TestTemporaryFolder.moc"
