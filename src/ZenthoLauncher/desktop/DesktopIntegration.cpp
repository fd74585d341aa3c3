#include "desktop/DesktopIntegration.h"

#include "desktop/MimeAppsList.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#ifndef ZENTHO_APPSTREAM_ID
#error "ZENTHO_APPSTREAM_ID must be defined by the build"
#endif

namespace {

const QString kEntryName = QStringLiteral("zentho-launcher.desktop");
const QString kLinkType = QStringLiteral("x-scheme-handler/zentho");

QString absoluteOr(const QString& value, const QString& fallback) {
    return QDir::isAbsolutePath(value) ? QDir::cleanPath(value) : fallback;
}

// A compiled-in template of data/ with its @NAME@ placeholders filled in.
QByteArray filledIn(const QString& resource, const QList<std::pair<QByteArray, QString>>& values) {
    QFile file(QStringLiteral(":/ZenthoLauncher/desktop/") + resource);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("the launcher was built without its %s", qPrintable(resource));
    QByteArray text = file.readAll();
    for (const auto& [name, value] : values)
        text.replace('@' + name + '@', value.toUtf8());
    return text;
}

// A desktop-entry string value: backslashes escaped, nothing else.
QString stringValue(const QString& text) {
    QString escaped = text;
    return escaped.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
}

// Removes the folders from `folder` up to, not including, `top` while they are empty: those an
// integration made for its files. rmdir never removes a folder that holds anything.
void removeEmptyFolders(QString folder, const QString& top) {
    while (folder.startsWith(top + QLatin1Char('/')) && QDir().rmdir(folder))
        folder = QFileInfo(folder).absolutePath();
}

} // namespace

DesktopIntegration::Folders DesktopIntegration::playerFolders(const FileManager& files) {
    const QString home = absoluteOr(qEnvironmentVariable("HOME"), files.homeFolderForCurrentUser());
    return {absoluteOr(qEnvironmentVariable("XDG_DATA_HOME"), home + QStringLiteral("/.local/share")),
            absoluteOr(qEnvironmentVariable("XDG_CONFIG_HOME"), home + QStringLiteral("/.config"))};
}

DesktopIntegration::DesktopIntegration(const FileManager& files, Folders folders)
    : files_(files), folders_(std::move(folders)) {}

QString DesktopIntegration::entryPath() const {
    return folders_.dataHome + QStringLiteral("/applications/") + kEntryName;
}

QString DesktopIntegration::iconPath() const {
    return folders_.dataHome + QStringLiteral("/icons/hicolor/scalable/apps/zentho-launcher.svg");
}

QString DesktopIntegration::metainfoPath() const {
    return folders_.dataHome + QStringLiteral("/metainfo/") + QStringLiteral(ZENTHO_APPSTREAM_ID) +
           QStringLiteral(".metainfo.xml");
}

QString DesktopIntegration::mimeappsPath() const {
    return folders_.configHome + QStringLiteral("/mimeapps.list");
}

QString DesktopIntegration::execValue(const QString& executable) {
    static const QRegularExpression special(QStringLiteral("[] \\t\\r\\n\"'\\\\><~|&;$*?#()`%[{}!^]"));
    if (!executable.contains(special))
        return executable;
    // A quoted argument: backslash, quote, backquote and dollar escaped, "%" doubled; then the
    // whole is a string value, whose backslashes are escaped once more.
    QString quoted;
    for (const QChar c : executable) {
        if (c == QLatin1Char('\\') || c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$'))
            quoted += QLatin1Char('\\');
        quoted += c;
        if (c == QLatin1Char('%'))
            quoted += QLatin1Char('%');
    }
    return QLatin1Char('"') + stringValue(quoted) + QLatin1Char('"');
}

std::optional<QString> DesktopIntegration::integratedExecutable() const {
    QFile entry(entryPath());
    if (!entry.open(QIODevice::ReadOnly))
        return std::nullopt;
    // TryExec names the launcher as a plain string value, unlike Exec, which may be quoted.
    for (const QByteArray& line : entry.readAll().split('\n')) {
        if (line.startsWith("TryExec="))
            return QString::fromUtf8(line.mid(8)).replace(QStringLiteral("\\\\"), QStringLiteral("\\"));
    }
    return QString();
}

DesktopIntegration::Need DesktopIntegration::needFor(const QString& executable) const {
    const std::optional<QString> integrated = integratedExecutable();
    if (!integrated)
        return Need::integrate;
    if (QFileInfo(*integrated).canonicalFilePath() == QFileInfo(executable).canonicalFilePath())
        return Need::nothing;
    // Another copy of the launcher that still exists keeps its entry; one that is gone was this
    // bundle before it was moved.
    return files_.isExecutableFile(*integrated) ? Need::nothing : Need::repoint;
}

void DesktopIntegration::integrate(const QString& executable) const {
    for (const QString& path : {entryPath(), iconPath(), metainfoPath(), mimeappsPath()})
        files_.createDirectory(QFileInfo(path).absolutePath());
    files_.writeAtomically(entryPath(), filledIn(QStringLiteral("zentho-launcher.desktop.in"),
                                                 {{"ZENTHO_LAUNCHER_EXEC", execValue(executable)},
                                                  {"ZENTHO_LAUNCHER_COMMAND", stringValue(executable)}}));
    files_.writeAtomically(iconPath(), filledIn(QStringLiteral("zentho-launcher.svg"), {}));
    files_.writeAtomically(metainfoPath(), filledIn(QStringLiteral("zentho-launcher.metainfo.xml.in"),
                                                    {{"ZENTHO_APPSTREAM_ID", QStringLiteral(ZENTHO_APPSTREAM_ID)}}));
    QFile mimeapps(mimeappsPath());
    const QByteArray text = mimeapps.open(QIODevice::ReadOnly) ? mimeapps.readAll() : QByteArray();
    files_.writeAtomically(mimeappsPath(), MimeAppsList::withDefault(text, kLinkType, kEntryName));
}

QStringList DesktopIntegration::remove() const {
    QStringList removed;
    for (const QString& path : {entryPath(), iconPath(), metainfoPath()}) {
        if (QFile::exists(path) && QFile::remove(path)) {
            removed.append(path);
            removeEmptyFolders(QFileInfo(path).absolutePath(), folders_.dataHome);
        }
    }
    QFile mimeapps(mimeappsPath());
    if (mimeapps.open(QIODevice::ReadOnly)) {
        const QByteArray before = mimeapps.readAll();
        const QByteArray after = MimeAppsList::without(before, kLinkType, kEntryName);
        if (after != before) {
            if (MimeAppsList::isEmpty(after))
                files_.removeItem(mimeappsPath());
            else
                files_.writeAtomically(mimeappsPath(), after);
            removed.append(mimeappsPath());
        }
    }
    return removed;
}
