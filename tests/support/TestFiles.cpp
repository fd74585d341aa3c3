#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>

namespace TestFiles {

void makeFolder(const QString& path) {
    QVERIFY2(QDir().mkpath(path), qPrintable(path));
}

void writeFile(const QString& path, const QByteArray& bytes, int mode) {
    makeFolder(QFileInfo(path).path());
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
    QCOMPARE(file.write(bytes), bytes.size());
    file.close();
    QCOMPARE(::chmod(QFile::encodeName(path).constData(), static_cast<mode_t>(mode)), 0);
}

int modeOf(const QString& path) {
    struct stat info {};
    if (::lstat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return int(info.st_mode & 07777);
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

QByteArray randomBytes(qsizetype size, quint32 seed) {
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = char(generator.generate() & 0xff);
    return bytes;
}

void writeScript(const QString& path, const QByteArray& body) {
    writeFile(path, "#!/bin/sh\n" + body, 0755);
}

void makeBuild(const QString& folder) {
    writeScript(folder + QStringLiteral("/zentho"), "exit 0\n");
}

} // namespace TestFiles
