// The folder target: the server's document root on this machine.

#include "PublishTarget.h"
#include "ReleaseFiles.h"

#include "formats/ChunkStore.h"

#include <QFile>
#include <QFileInfo>

namespace {

class FolderTarget final : public PublishTarget {
public:
    explicit FolderTarget(const QString& root) : root_(root) {}

    QString name(const QString& relative) const override { return root_ + QLatin1Char('/') + relative; }

    std::optional<QString> sha256(const QString& relative) override {
        const QFileInfo held(name(relative));
        if (!held.exists())
            return std::nullopt;
        if (!held.isFile())
            return QStringLiteral("not a file");
        return ReleaseFiles::sha256OfFile(name(relative));
    }

    std::optional<QByteArray> read(const QString& relative) override {
        if (!QFileInfo::exists(name(relative)))
            return std::nullopt;
        return ReleaseFiles::readFile(name(relative));
    }

    std::optional<QString> localCopy(const QString& relative, const QString&) override {
        if (!QFileInfo(name(relative)).isFile())
            return std::nullopt;
        return name(relative);
    }

    // A chunk already there is kept when it decodes to its name; a damaged one is replaced by the
    // store's, which has the same name and so the same content.
    bool holdsChunk(const QString& relative, const QString&, qint64 size, const QString& sha256) override {
        QFile file(name(relative));
        if (!file.open(QIODevice::ReadOnly))
            return false;
        try {
            ChunkStore::decode(file.readAll(), size, sha256);
            return true;
        } catch (const ChunkStoreError&) {
            return false;
        }
    }

    void putAll(const QString& from, const std::vector<QString>& names, const QString& to) override {
        for (const QString& each : names)
            put(from + QLatin1Char('/') + each, to + QLatin1Char('/') + each);
    }

    void put(const QString& from, const QString& relative) override {
        ReleaseFiles::copyFileDurably(from, name(relative));
    }

private:
    QString root_;
};

} // namespace

std::unique_ptr<PublishTarget> PublishTarget::folder(const QString& folder) {
    return std::make_unique<FolderTarget>(folder);
}
