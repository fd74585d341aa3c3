#include "TreeSnapshot.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFile>
#include <QHash>

#include <sys/stat.h>
#include <unistd.h>

namespace TreeSnapshot {

namespace {

QString kindOf(mode_t mode) {
    if (S_ISREG(mode))
        return QStringLiteral("file");
    if (S_ISDIR(mode))
        return QStringLiteral("folder");
    if (S_ISLNK(mode))
        return QStringLiteral("link");
    return QStringLiteral("other");
}

QString digestOf(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("unreadable");
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return QString::fromLatin1(hash.result().toHex());
}

} // namespace

QStringList of(const QString& folder, Times times) {
    QStringList paths;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths << it.next();
    paths.sort();

    QStringList lines;
    QHash<QPair<quint64, quint64>, QString> firstNameOfFile;
    for (const QString& path : paths) {
        struct stat st {};
        if (::lstat(QFile::encodeName(path).constData(), &st) != 0) {
            lines << path + QStringLiteral(" vanished");
            continue;
        }
        const QString relative = path.mid(folder.size() + 1);
        QString line = relative + QLatin1Char(' ') + kindOf(st.st_mode) +
                       QStringLiteral(" %1").arg(st.st_mode & 07777, 4, 8, QLatin1Char('0'));
        if (S_ISREG(st.st_mode)) {
            line += QStringLiteral(" %1 %2").arg(st.st_size).arg(digestOf(path));
            if (times == Times::compared)
                line += QStringLiteral(" %1").arg(qlonglong(st.st_mtim.tv_sec));
            const auto identity = qMakePair(quint64(st.st_dev), quint64(st.st_ino));
            if (st.st_nlink > 1) {
                if (firstNameOfFile.contains(identity))
                    line += QStringLiteral(" same-file-as ") + firstNameOfFile.value(identity);
                else
                    firstNameOfFile.insert(identity, relative);
            }
        } else if (S_ISLNK(st.st_mode)) {
            // The target as stored, not resolved: a dangling or outward link shows as it is.
            char target[4096];
            const ssize_t length =
                ::readlink(QFile::encodeName(path).constData(), target, sizeof target);
            line += QStringLiteral(" -> ") + QString::fromUtf8(target, length < 0 ? 0 : length);
        }
        lines << line;
    }
    return lines;
}

} // namespace TreeSnapshot
