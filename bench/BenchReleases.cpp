#include "BenchReleases.h"

#include "ReleaseTool.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <cstdio>

Release packRelease(const TestServer& server, const QString& source, const QString& version, const QString& out,
             const QString& store, const QString& buildsPath) {
    QElapsedTimer clock;
    clock.start();
    const ReleaseTool::Run run = ReleaseTool::packGame(
        source, version, server.url(buildsPath).toString(), out,
        {QStringLiteral("--chunks"), store, QStringLiteral("--chunks-url"), server.url(QStringLiteral("/rate8m/chunks")).toString(),
         QStringLiteral("--chunk-pack")},
        30 * 60 * 1000);
    Release release;
    release.seconds = double(clock.elapsed()) / 1000;
    if (!run.ok()) {
        std::fprintf(stderr, "pack %s failed (status %d): %s\n", qPrintable(version), run.exitCode, run.errors.constData());
        return release;
    }
    release.archive = run.line(QStringLiteral("archive"));
    release.index = run.line(QStringLiteral("index"));
    release.manifest = run.line(QStringLiteral("manifest"));
    release.chunks = run.line(QStringLiteral("chunks"));
    release.pack = run.line(QStringLiteral("pack"));
    release.newChunkBytes = run.line(QStringLiteral("new chunk bytes")).section(QLatin1Char(' '), 0, 0).toLongLong();
    const QString builds = server.documentRoot() + QStringLiteral("/builds/");
    if (QDir().mkpath(builds) && QFile::link(release.archive, builds + QFileInfo(release.archive).fileName()) &&
        QFile::link(release.index, builds + QFileInfo(release.index).fileName()) &&
        QFile::link(release.pack, builds + QFileInfo(release.pack).fileName()))
        release.archiveBytes = QFileInfo(release.archive).size();
    return release;
}


QString serveRelease(const TestServer& server, const Release& release, const QString& name, Offer offer,
                      quint16 relayPort) {
    QFile file(release.manifest);
    file.open(QIODevice::ReadOnly);
    QJsonObject manifest = QJsonDocument::fromJson(file.readAll()).object();
    if (offer == Offer::archive)
        manifest.remove(QStringLiteral("chunks"));
    if (offer == Offer::store) {
        QJsonObject chunks = manifest.value(QStringLiteral("chunks")).toObject();
        chunks.remove(QStringLiteral("pack"));
        manifest.insert(QStringLiteral("chunks"), chunks);
    }
    QString text = QString::fromUtf8(QJsonDocument(manifest).toJson());
    if (relayPort != 0) {
        // The certificate names 127.0.0.1, so only the port changes.
        const QRegularExpression origin(QRegularExpression::escape(server.url(QStringLiteral("/")).toString()) +
                                        QStringLiteral("(rate50m/|rate8m/)?"));
        text.replace(origin, QStringLiteral("https://127.0.0.1:%1/").arg(relayPort));
    }
    server.writeFile(QStringLiteral("manifests/") + name, text.toUtf8());
    return server.url(QStringLiteral("/manifests/") + name).toString();
}
