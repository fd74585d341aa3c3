// The remote target: whatever rclone reaches (S3, R2, GCS, B2, WebDAV, SFTP...), driven through
// its command line so that its configuration, credentials and retries stay rclone's own.

#include "PublishTarget.h"

#include <ProcessCapture.h>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryFile>

#include <map>
#include <stdexcept>
#include <string>

namespace {

// rclone's exit status for a folder or file that is not there.
constexpr int kNotFound = 3;

std::string lastLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    const std::size_t newline = text.rfind('\n');
    return newline == std::string::npos ? text : text.substr(newline + 1);
}

class RcloneTarget final : public PublishTarget {
public:
    RcloneTarget(const QString& remote, const QString& program) : remote_(remote) {
        const QString found = program.contains(QLatin1Char('/')) ? QFileInfo(program).absoluteFilePath()
                                                                 : QStandardPaths::findExecutable(program);
        if (found.isEmpty() || !QFileInfo(found).isExecutable())
            throw std::runtime_error("cannot find rclone (\"" + program.toStdString() +
                                     "\"); install it or give --rclone PROGRAM");
        program_ = found.toStdString();
        listRemote();
    }

    QString name(const QString& relative) const override {
        return remote_.endsWith(QLatin1Char(':')) || remote_.endsWith(QLatin1Char('/'))
                   ? remote_ + relative
                   : remote_ + QLatin1Char('/') + relative;
    }

    // Most object stores keep no SHA-256 of their own, so rclone reads the file back to hash it.
    // Only an archive or index already there is read: on a rerun of a publish that failed.
    std::optional<QString> sha256(const QString& relative) override {
        if (!sizes_.count(relative))
            return std::nullopt;
        const CapturedProcessResult hashed = rclone({"hashsum", "sha256", "--download", where(relative)});
        return QString::fromStdString(hashed.output.substr(0, hashed.output.find(' '))).toLower();
    }

    std::optional<QByteArray> read(const QString& relative) override {
        if (!sizes_.count(relative))
            return std::nullopt;
        return QByteArray::fromStdString(rclone({"cat", where(relative)}).output);
    }

    std::optional<QString> localCopy(const QString& relative, const QString& scratch) override {
        if (!sizes_.count(relative))
            return std::nullopt;
        const QString local = scratch + QLatin1Char('/') + QFileInfo(relative).fileName();
        rclone({"copyto", where(relative), local.toStdString()});
        return local;
    }

    // A chunk's name is its content's digest and an upload lands whole, so one of the store
    // file's size under its name is that chunk; reading every chunk back would cost what the
    // store saves.
    bool holdsChunk(const QString& relative, const QString& storeFile, qint64, const QString&) override {
        const auto held = sizes_.find(relative);
        return held != sizes_.end() && held->second == QFileInfo(storeFile).size();
    }

    void putAll(const QString& from, const std::vector<QString>& names, const QString& to) override {
        if (names.empty())
            return;
        QTemporaryFile list;
        if (!list.open())
            throw std::runtime_error("cannot make a temporary file: " + list.errorString().toStdString());
        for (const QString& each : names)
            list.write(each.toUtf8() + '\n');
        list.flush();
        rclone({"copy", "--files-from-raw", list.fileName().toStdString(), "--no-traverse", "--ignore-times",
                from.toStdString(), where(to)});
    }

    void put(const QString& from, const QString& relative) override {
        rclone({"copyto", "--ignore-times", from.toStdString(), where(relative)});
    }

private:
    std::string where(const QString& relative) const { return name(relative).toStdString(); }

    CapturedProcessResult rclone(std::vector<std::string> arguments, bool missingIsFine = false) const {
        const std::string what = "rclone " + arguments.front();
        arguments.insert(arguments.begin(), {"--retries", "3", "--low-level-retries", "5"});
        CapturedProcessResult result = ProcessCapture::run(program_, arguments);
        if (result.status != 0 && !(missingIsFine && result.status == kNotFound))
            throw std::runtime_error(what + " failed (status " + std::to_string(result.status) +
                                     "): " + lastLine(result.errors));
        return result;
    }

    // One listing of everything under the remote, so that checking thousands of chunks costs one
    // request per page rather than one program run each.
    void listRemote() {
        const CapturedProcessResult listed = rclone(
            {"lsjson", "--recursive", "--files-only", "--no-mimetype", "--no-modtime", remote_.toStdString()},
            true);
        if (listed.status == kNotFound)
            return;
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(listed.output));
        if (!document.isArray())
            throw std::runtime_error("rclone lsjson gave no listing of " + remote_.toStdString());
        for (const QJsonValue& entry : document.array()) {
            const QJsonObject file = entry.toObject();
            sizes_[file.value(QLatin1String("Path")).toString()] = qint64(file.value(QLatin1String("Size")).toDouble());
        }
    }

    QString remote_;
    std::string program_;
    std::map<QString, qint64> sizes_; // every file under the remote, by relative path
};

} // namespace

std::unique_ptr<PublishTarget> PublishTarget::rclone(const QString& remote, const QString& program) {
    return std::make_unique<RcloneTarget>(remote, program);
}
