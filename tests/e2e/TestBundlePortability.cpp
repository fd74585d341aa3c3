// A launcher bundle must run on any current x86-64 desktop: the release tool refuses to seal,
// pack or verify one that needs a library it neither carries nor may take from the system, one
// that asks for a newer GNU C library than the floor, and one with code for another machine,
// naming the file at fault. Each case is a copy of the built 0.2.0 bundle with one such file put
// into it, against the untouched copy, which passes.

#include "ReleaseTool.h"
#include "TestFiles.h"

#include "trust/BundleSignature.h"
#include "trust/Ed25519Key.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

bool run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    const bool ok = process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit &&
                    process.exitCode() == 0;
    if (!ok)
        qWarning("%s: %s", qPrintable(program), process.readAll().constData());
    return ok;
}

} // namespace

class TestBundlePortability : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    int copies_ = 0;

    QString freshCopy() {
        const QString bundle = dir_.filePath(QStringLiteral("%1/ZenthoLauncher.app").arg(++copies_));
        QDir().mkpath(QFileInfo(bundle).absolutePath());
        ReleaseTool::copyTree(ReleaseTool::launcherBundle020(), bundle);
        return bundle;
    }
    ReleaseTool::Run seal(const QString& bundle) {
        return ReleaseTool::run({QStringLiteral("sign-bundle"), QStringLiteral("--key"),
                                 qEnvironmentVariable("ZENTHO_BUILD_DIR") + QStringLiteral("/signing/test.key"), bundle});
    }
    // A plugin that needs one more library, put where plugins live.
    QString pluginNeeding(const QString& bundle, const QString& library) {
        const QString plugin = bundle + QStringLiteral("/Contents/PlugIns/platforms/libextra.so");
        QFile::copy(bundle + QStringLiteral("/Contents/PlugIns/platforms/libqoffscreen.so"), plugin);
        run(QStringLiteral("patchelf"), {QStringLiteral("--add-needed"), library, plugin});
        return plugin;
    }

private slots:
    void untouchedBundleIsSealedAndPacked() {
        const QString bundle = freshCopy();
        const ReleaseTool::Run sealed = seal(bundle);
        QVERIFY2(sealed.ok(), sealed.errors.constData());
        const ReleaseTool::Run packed = ReleaseTool::packLauncher(
            bundle, QStringLiteral("0.2.0"), QStringLiteral("https://release.example/release"), dir_.filePath(QStringLiteral("dist")));
        QVERIFY2(packed.ok(), packed.errors.constData());
    }

    void libraryNeitherCarriedNorFromTheSystemIsRefused() {
        const QString bundle = freshCopy();
        pluginNeeding(bundle, QStringLiteral("libnowhere.so.1"));
        const ReleaseTool::Run sealed = seal(bundle);
        QVERIFY(sealed.failedWithOneLine());
        QCOMPARE(sealed.errors, (QStringLiteral("zentho-release sign-bundle: ") + bundle + QStringLiteral(": Contents/PlugIns/platforms/libextra.so needs libnowhere.so.1, "
                                                        "which is neither in the bundle nor provided by every desktop\n"))
                                    .toUtf8());
        QVERIFY(!QFile::exists(bundle + QStringLiteral("/Contents/_CodeSignature/Signature")));
    }

    // The twin: what every desktop provides may be needed without being carried, and so may a
    // library the bundle carries.
    void systemAndCarriedLibrariesPass() {
        const QString bundle = freshCopy();
        const QString plugin = pluginNeeding(bundle, QStringLiteral("libfontconfig.so.1"));
        run(QStringLiteral("patchelf"), {QStringLiteral("--add-needed"), QStringLiteral("libicuuc.so.72"), plugin});
        QVERIFY2(seal(bundle).ok(), "a plugin needing fontconfig and the carried ICU");
    }

    // The libraries carry no search path of their own: the programs hand theirs down. A program
    // that does not (here the seed game with its DT_RPATH taken out) would start with libraries
    // that cannot find what they need, so the bundle is refused, naming the first such library.
    void librariesFindTheirsOnlyThroughEveryProgram() {
        const QString bundle = freshCopy();
        QVERIFY(run(QStringLiteral("patchelf"),
                    {QStringLiteral("--remove-rpath"), bundle + QStringLiteral("/Contents/Resources/SeedRuntime/zentho")}));
        const ReleaseTool::Run sealed = seal(bundle);
        QVERIFY(sealed.failedWithOneLine());
        QVERIFY2(sealed.errors.contains(": Contents/Frameworks/lib") &&
                     sealed.errors.contains(", which is neither in the bundle nor provided by every desktop\n"),
                 sealed.errors.constData());
        // The twin: given back as a RUNPATH, which the loader does not hand down, it is still refused;
        // as a DT_RPATH it passes.
        QVERIFY(run(QStringLiteral("patchelf"), {QStringLiteral("--set-rpath"), QStringLiteral("$ORIGIN/../../Frameworks"),
                                                 bundle + QStringLiteral("/Contents/Resources/SeedRuntime/zentho")}));
        QVERIFY(seal(bundle).failedWithOneLine());
        QVERIFY(run(QStringLiteral("patchelf"), {QStringLiteral("--force-rpath"), QStringLiteral("--set-rpath"),
                                                 QStringLiteral("$ORIGIN/../../Frameworks"),
                                                 bundle + QStringLiteral("/Contents/Resources/SeedRuntime/zentho")}));
        const ReleaseTool::Run fixed = seal(bundle);
        QVERIFY2(fixed.ok(), fixed.errors.constData());
    }

    // A bundle sealed by other means than sign-bundle is checked again by pack, which names the
    // check that failed.
    void packRefusesABundleSealedWithoutTheCheck() {
        const QString bundle = freshCopy();
        pluginNeeding(bundle, QStringLiteral("libnowhere.so.1"));
        BundleSignature::sign(QFile::encodeName(bundle).toStdString(),
                              Ed25519Key::fromFile((qEnvironmentVariable("ZENTHO_BUILD_DIR") +
                                                    QStringLiteral("/signing/test.key")).toStdString()));
        const ReleaseTool::Run refused = ReleaseTool::packLauncher(
            bundle, QStringLiteral("0.2.0"), QStringLiteral("https://release.example/release"), dir_.filePath(QStringLiteral("refused")));
        QVERIFY(refused.failedWithOneLine());
        QVERIFY2(refused.errors.contains("libraries: Contents/PlugIns/platforms/libextra.so needs libnowhere.so.1"),
                 refused.errors.constData());
        QVERIFY(!QFile::exists(dir_.filePath(QStringLiteral("refused"))));
    }

    void newerGnuCLibraryThanTheFloorIsRefused() {
        // arc4random came with the GNU C library 2.36, newer than the 2.35 floor.
        const QString source = dir_.filePath(QStringLiteral("newer.c"));
        TestFiles::writeFile(source, "#include <stdlib.h>\nunsigned int draw(void) { return arc4random(); }\n");
        const QString bundle = freshCopy();
        const QString library = bundle + QStringLiteral("/Contents/Frameworks/libnewer.so");
        QVERIFY(run(QStringLiteral("gcc"), {QStringLiteral("-shared"), QStringLiteral("-fPIC"), QStringLiteral("-o"), library, source}));
        const ReleaseTool::Run sealed = seal(bundle);
        QVERIFY(sealed.failedWithOneLine());
        QVERIFY2(sealed.errors.contains("Contents/Frameworks/libnewer.so needs GLIBC_2.36 of libc.so.6, newer than "
                                        "the GNU C library 2.35 the bundle may ask for"),
                 sealed.errors.constData());
    }

    // The twin: the same library built against what the floor allows passes.
    void gnuCLibraryWithinTheFloorPasses() {
        const QString source = dir_.filePath(QStringLiteral("older.c"));
        TestFiles::writeFile(source, "#include <stdlib.h>\nint draw(void) { return rand(); }\n");
        const QString bundle = freshCopy();
        QVERIFY(run(QStringLiteral("gcc"), {QStringLiteral("-shared"), QStringLiteral("-fPIC"), QStringLiteral("-o"),
                                            bundle + QStringLiteral("/Contents/Frameworks/libolder.so"), source}));
        QVERIFY(seal(bundle).ok());
    }

    void codeForAnotherMachineIsRefused() {
        const QString bundle = freshCopy();
        const QString library = bundle + QStringLiteral("/Contents/Frameworks/libother.so");
        QVERIFY(QFile::copy(bundle + QStringLiteral("/Contents/Frameworks/libzstd.so.1"), library));
        // e_machine, at offset 18: AArch64 (183).
        QFile file(library);
        QVERIFY(file.open(QIODevice::ReadWrite) && file.seek(18));
        file.write(QByteArray("\xb7\x00", 2));
        file.close();
        const ReleaseTool::Run sealed = seal(bundle);
        QVERIFY(sealed.failedWithOneLine());
        QVERIFY2(sealed.errors.contains("Contents/Frameworks/libother.so is not x86-64 code"), sealed.errors.constData());
    }
};

QTEST_GUILESS_MAIN(TestBundlePortability)
#include "TestBundlePortability.moc"
