#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

// Players who build the launcher with the README's first command give no build type; they must
// still get an optimised launcher. A build type given on purpose is kept.
class TestBuildType : public QObject {
    Q_OBJECT

    // Configures the source tree into a fresh folder and returns the build type it settled on.
    static QString configuredBuildType(const QStringList& extraArguments) {
        QTemporaryDir build;
        QProcess cmake;
        cmake.setProcessChannelMode(QProcess::MergedChannels);
        cmake.start(QStringLiteral("cmake"),
                    QStringList{QStringLiteral("-S"), qEnvironmentVariable("ZENTHO_SOURCE_DIR"),
                                QStringLiteral("-B"), build.path(),
                                QStringLiteral("-DBUILD_TESTING=OFF")} +
                        extraArguments);
        if (!cmake.waitForFinished(120000) || cmake.exitCode() != 0) {
            qWarning().noquote() << cmake.readAll();
            return QStringLiteral("<configure failed>");
        }
        QFile cache(build.filePath(QStringLiteral("CMakeCache.txt")));
        if (!cache.open(QIODevice::ReadOnly))
            return QStringLiteral("<no cache>");
        const QRegularExpression line(QStringLiteral("^CMAKE_BUILD_TYPE:[A-Z]+=(.*)$"),
                                      QRegularExpression::MultilineOption);
        const QRegularExpressionMatch match = line.match(QString::fromUtf8(cache.readAll()));
        return match.hasMatch() ? match.captured(1) : QStringLiteral("<unset>");
    }

private slots:
    void noBuildTypeMeansAnOptimisedRelease() {
        QCOMPARE(configuredBuildType({}), QStringLiteral("Release"));
    }

    void givenBuildTypeIsKept() {
        QCOMPARE(configuredBuildType({QStringLiteral("-DCMAKE_BUILD_TYPE=Debug")}),
                 QStringLiteral("Debug"));
    }
};

QTEST_GUILESS_MAIN(TestBuildType)
#include "TestBuildType.moc"
