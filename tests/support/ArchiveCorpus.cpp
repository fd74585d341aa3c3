#include "ArchiveCorpus.h"

#include <QProcess>
#include <QTest>

namespace ArchiveCorpus {

namespace {

// Makes every archive named in cases() (argument "all") or the one with many entries ("many")
// in the folder given first. Trees on disk go through GNU tar; entries no careful tool writes,
// and the broken gzip streams, are put together byte by byte.
const char* const kScript = R"PY(
import gzip, io, os, random, subprocess, sys, tarfile

out, which = sys.argv[1], sys.argv[2]
work = os.path.join(out, "trees")
rng = random.Random(14)
FILE = tarfile.REGTYPE

def path(name):
    return os.path.join(out, name + ".tar.gz")

def write(name, data):
    with open(path(name), "wb") as f:
        f.write(data)

def gz(raw):
    return gzip.compress(raw, compresslevel=6, mtime=0)

def tree(name, files=(), folders=(), links=(), hardlinks=(), modes=()):
    root = os.path.join(work, name)
    for folder in folders:
        os.makedirs(os.path.join(root, folder), exist_ok=True)
    for relative, data in files:
        full = os.path.join(root, relative)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as f:
            f.write(data)
    for relative, target in links:
        os.symlink(target, os.path.join(root, relative))
    for relative, target in hardlinks:
        os.link(os.path.join(root, target), os.path.join(root, relative))
    # Deepest first, so a folder that forbids writing is closed after what is inside it.
    for relative, mode in sorted(modes, key=lambda m: -m[0].count("/")):
        os.chmod(os.path.join(root, relative), mode)
    return root

def tar_gz(name, root, *options):
    subprocess.run(["tar", "-czf", path(name), *options, "-C", root, "."], check=True)

def raw_tar(entries):
    buf = io.BytesIO()
    with tarfile.open(fileobj=buf, mode="w", format=tarfile.GNU_FORMAT) as t:
        for name, kind, data, link in entries:
            info = tarfile.TarInfo(name)
            info.type, info.linkname, info.mode, info.mtime = kind, link, 0o644, 1700000000
            if kind == tarfile.DIRTYPE:
                info.mode = 0o755
            if kind == tarfile.REGTYPE:
                info.size = len(data)
                t.addfile(info, io.BytesIO(data))
            else:
                t.addfile(info)
    return buf.getvalue()

game = [("zentho", b"#!/bin/sh\nexit 0\n"), ("data/pak0", b"pak0" * 1000)]
noise = bytes(rng.getrandbits(8) for _ in range(256 * 1024))

if which == "many":
    entries = [("d%03d/" % d, tarfile.DIRTYPE, b"", "") for d in range(100)]
    entries += [("d%03d/f%04d" % (d, f), tarfile.REGTYPE, b"", "")
                for d in range(100) for f in range(1000)]
    write("many", gzip.compress(raw_tar(entries), compresslevel=1, mtime=0))
    sys.exit(0)

build = tree("build", files=game + [("readme", b"read me\n"), ("data/noise", noise)],
             folders=["data/maps/empty"], modes=[("zentho", 0o755), ("readme", 0o600)])
tar_gz("build", build)
whole = open(path("build"), "rb").read()

long_dir = "a" * 60 + "/" + "b" * 60
long_file = long_dir + "/file-" + "c" * 90
named = tree("named", files=game + [(long_file, b"long\n"), ("donn\u00e9es/\u00e9t\u00e9.txt", b"summer\n")],
             links=[("shortcut", long_file)])
tar_gz("gnu-long-names", named, "--format=gnu")
tar_gz("pax-headers", named, "--format=pax")
tar_gz("hard-links", tree("linked", files=game, hardlinks=[("data/pak1", "data/pak0")],
                          links=[("current", "data/pak0"), ("dangling", "nowhere")]))
tar_gz("empty-folders", tree("folders", folders=["a/b/c", "d", "e/f"]))
tar_gz("modes", tree("modes", files=game + [("locked/file", b"x"), ("private", b"p"),
                                            ("readonly", b"r")],
                     modes=[("private", 0o600), ("readonly", 0o444), ("locked", 0o555),
                            ("zentho", 0o700)]))
subprocess.run(["tar", "-cf", os.path.join(out, "named-member.tar"), "-C", build, "."], check=True)
with open(path("gzip-name-field"), "wb") as f:
    subprocess.run(["gzip", "-c", os.path.join(out, "named-member.tar")], stdout=f, check=True)
write("no-entries", gz(raw_tar([])))

write("absolute-name", gz(raw_tar([("zentho", FILE, game[0][1], ""), ("/abs/member", FILE, b"x", "")])))
write("climbing-name", gz(raw_tar([("zentho", FILE, game[0][1], ""),
                                   ("game/../../escaped", FILE, b"x", "")])))
write("lone-dots", gz(raw_tar([("..", tarfile.DIRTYPE, b"", "")])))
write("write-through-link", gz(raw_tar([("link", tarfile.SYMTYPE, b"", "../outside"),
                                        ("link/escaped", FILE, b"x", "")])))
write("hard-link-out", gz(raw_tar([("h", tarfile.LNKTYPE, b"", "/etc/hostname")])))

plain = subprocess.run(["gzip", "-dc", path("build")], stdout=subprocess.PIPE, check=True).stdout
write("corrupt", b"\x1f\x8b\x08\x00 not deflate at all")
write("truncated", whole[: len(whole) // 2])
write("trailing-garbage", whole + b"junk")
write("trailing-zeros", whole + bytes(1024))
write("two-members", whole + gz(raw_tar([("second", FILE, b"2", "")])))
write("plain-tar", plain)
write("double-gzip", gz(whole))
write("not-a-tar", gz(noise))
write("empty-file", b"")
)PY";

bool runScript(const QString& folder, const QString& which) {
    QProcess python;
    python.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    python.start(QStringLiteral("python3"),
                 {QStringLiteral("-c"), QString::fromUtf8(kScript), folder, which});
    return python.waitForFinished(120000) && python.exitStatus() == QProcess::NormalExit &&
           python.exitCode() == 0;
}

} // namespace

const QList<Case>& cases() {
    static const QList<Case> all{
        {"build", true, true},
        {"gnu-long-names", true, true},
        {"pax-headers", true, true},
        {"hard-links", true, true},
        {"empty-folders", true, true},
        {"modes", true, true},
        {"gzip-name-field", true, true},
        {"no-entries", true, true},
        // tar warns and unpacks what it safely can: exit status 0.
        {"absolute-name", true, true},
        // tar refuses to unpack these: only the literal run may say so.
        {"lone-dots", true, false},
        {"climbing-name", true, false},
        {"write-through-link", true, false},
        {"hard-link-out", true, false},
        {"corrupt", false, false},
        {"truncated", false, false},
        {"trailing-garbage", false, false},
        {"trailing-zeros", false, false},
        {"two-members", false, false},
        {"plain-tar", false, false},
        {"double-gzip", false, false},
        {"not-a-tar", false, false},
        {"empty-file", false, false},
    };
    return all;
}

bool make(const QString& folder) {
    return runScript(folder, QStringLiteral("all"));
}

bool makeMany(const QString& folder) {
    return runScript(folder, QStringLiteral("many"));
}

QString pathOf(const QString& folder, const char* name) {
    return folder + QLatin1Char('/') + QLatin1String(name) + QStringLiteral(".tar.gz");
}

QString cutEntry(const char* name) {
    return qstrcmp(name, "truncated") == 0 ? QStringLiteral("data/noise") : QString();
}

} // namespace ArchiveCorpus
