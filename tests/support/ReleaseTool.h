#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// Runs the publisher's tool, zentho-release, from the build folder, the way a release engineer
// would, and hands back what it did.
namespace ReleaseTool {

struct Run {
    int exitCode = -1; // -1 when it crashed or did not end
    QByteArray output;
    QByteArray errors;

    bool ok() const { return exitCode == 0; }
    // A failure reported the way every subcommand must: exactly one line on standard error.
    bool failedWithOneLine() const { return exitCode > 0 && errors.count('\n') == 1 && errors.endsWith('\n'); }
    // The text after "`key`: " on the output line that starts so; empty when there is none.
    QString line(const QString& key) const;
};

// Runs the tool; a run that takes longer than `timeoutMs` is killed and counts as not ended.
Run run(const QStringList& arguments, int timeoutMs = 120000);

// pack --platform macos-arm64 for a game build folder; returns the run (run.line("manifest") is
// the manifest's path).
Run packGame(const QString& source, const QString& version, const QString& urlBase,
             const QString& out, const QStringList& extra = {}, int timeoutMs = 120000);
// packGame with a chunk store: the chunks go to `store`, the manifest names them at `storeUrl`.
Run packGameWithChunks(const QString& source, const QString& version, const QString& urlBase,
                       const QString& out, const QString& store, const QString& storeUrl,
                       const QStringList& extra = {});
// verify `manifest` `archive`, with `extra` options first.
Run verify(const QString& manifest, const QString& archive, const QStringList& extra = {});
// verify of what `packed` wrote.
Run verify(const Run& packed, const QStringList& extra = {});
// publish --to `documentRoot` --chunks `store` of the release whose manifest is `manifest`.
Run publishWithChunks(const QString& documentRoot, const QString& store, const QString& manifest);

// Where packChunkedAndPublish puts a release: its archive and index named at `urlBase`, its
// chunks in `store` named at `storeUrl`, the tool's output in `out`, all published into
// `documentRoot`.
struct ChunkedRelease {
    QString urlBase;
    QString out;
    QString store;
    QString storeUrl;
    QString documentRoot;
};
// packGameWithChunks and then publishWithChunks: the pack's run when both went well (its lines
// name the manifest and the index), else the one that failed.
Run packChunkedAndPublish(const QString& source, const QString& version, const ChunkedRelease& release,
                          const QStringList& extra = {});

// Why the release tests cannot run with this build (the tool or the 0.2.0 stand-in is not
// built), or empty when they can.
QString missingFromTheBuild();

// pack --platform macos-launcher-arm64 for a bundle folder, whose name is the executable, with its
// seal checked against the test keys.
Run packLauncher(const QString& bundle, const QString& version, const QString& urlBase,
                 const QString& out, const QStringList& extra = {});
// The same with no --key: the seal must pass with the keys the build's own launcher trusts, as the
// releases players' launchers take must.
Run packLauncherForPlayers(const QString& bundle, const QString& version, const QString& urlBase,
                           const QString& out);

// The public test keys that seal bundles, and those that sign manifests.
QString testSealKey();
QString testSealKeyNext();
QString testManifestKey();     // private; ".pub" beside it
QString testManifestKeyNext(); // private; ".pub" beside it

// A game build of `version` in `folder`: the 0.2.0 stand-in as its program and 600 kB of data
// in which only the version's own bytes differ from version to version, so a release packed
// with chunks after another adds a chunk or two.
void makeSmallGame(const QString& folder, const QString& version);

// The stand-in game built as version 0.2.0, and the launcher bundle built as 0.2.0.
QString standinGame020();
QString launcherBundle020();

// A copy of the bundle `from` at `bundle`, sealed with `key` (the test key unless given) by
// sign-bundle.
QString sealedCopy(const QString& from, const QString& bundle, const QString& key = {});
QString seedRuntimeOf(const QString& bundle);
// A launcher release put together by hand, past pack's checks: the archive at `archive` is made
// again from `bundle` as it is now, and the manifest at `manifest` gets its digest and, when
// `version` is given, that version.
void repackByHand(const QString& manifest, const QString& archive, const QString& bundle,
                  const QString& version = {});

// Changes one byte in the middle of a file, keeping its size and mode.
void flipOneByte(const QString& path);

// Copies a folder tree as it is (modes, symlinks) with cp -a; fails the test when cp does.
void copyTree(const QString& from, const QString& to);

} // namespace ReleaseTool
