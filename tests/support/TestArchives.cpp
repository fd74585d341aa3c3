#include "TestArchives.h"

#include "TestFiles.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace TestArchives {

namespace {

QByteArray runChecked(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        QTest::qFail(qPrintable(program + QStringLiteral(" failed: ") +
                                QString::fromUtf8(process.readAllStandardError())),
                     __FILE__, __LINE__);
        return {};
    }
    return process.readAllStandardOutput();
}

} // namespace

QByteArray tar(const QStringList& arguments) {
    return runChecked(QStringLiteral("/usr/bin/tar"), arguments);
}

void create(const QString& archive, const QString& folder, const QStringList& members,
            const QStringList& options) {
    QStringList arguments{QStringLiteral("-czf"), archive};
    arguments << options << QStringLiteral("-C") << folder << members;
    tar(arguments);
}

QByteArray bytesOf(const QString& folder, const QStringList& members, const QStringList& options) {
    QTemporaryDir out;
    const QString archive = out.filePath(QStringLiteral("a.tar.gz"));
    create(archive, folder, members, options);
    return TestFiles::readFile(archive);
}

void createWithName(const QString& archive, const QString& name, const QString& scratch) {
    TestFiles::writeFile(scratch + QStringLiteral("/member"), "payload\n");
    // -P keeps the rewritten name exactly as given instead of tar's own clean-up of it.
    create(archive, scratch, {QStringLiteral("member")},
           {QStringLiteral("-P"), QStringLiteral("--transform=s|^member$|%1|").arg(name)});
}

void createBuild(const QString& archive, const QString& scratch) {
    TestFiles::makeBuild(scratch);
    create(archive, scratch, {QStringLiteral("zentho")});
}

QString sha256sum(const QString& path) {
    const QByteArray out = runChecked(QStringLiteral("/usr/bin/sha256sum"), {path});
    return QString::fromLatin1(out.left(64));
}

} // namespace TestArchives
