#pragma once

#include <QString>
#include <QStringList>

#include <functional>

// A minimal Debian root (debootstrap --variant=minbase) plus only what every desktop has, made
// once from the Debian archive and kept in a cache folder: what proves that the launcher bundle
// brings everything else itself. Making one takes a few minutes and about 300 MB; later calls
// reuse it. It is never written after it is made: FreshSystem runs things over a copy-on-use
// layer on top of it.
//
// A base counts as made only when its stamp holds the current recipe (the suite and the package
// list), written after everything else succeeded: an interrupted or failed creation, or one from
// an older recipe, is removed and made again, never used. Processes creating the same base wait
// for each other through a lock file beside it.
class FreshDebianBase {
public:
    // Lines from debootstrap and apt as they come, for a test to show what the minutes go to.
    using Progress = std::function<void(const QString& line)>;

    struct Source {
        QString cacheFolder; // holds one folder per suite
        QString mirror;      // the Debian archive, e.g. http://deb.debian.org/debian
    };
    // $ZENTHO_FRESH_SYSTEMS_DIR (else $ZENTHO_BUILD_DIR/fresh-systems) and deb.debian.org.
    static Source defaultSource();

    // `suite` is "bookworm" (Debian 12) or "trixie" (Debian 13).
    explicit FreshDebianBase(const QString& suite, Source source = defaultSource());

    QString suite() const { return suite_; }
    // <cacheFolder>/<suite>: the root, its stamp, the lock and the logs of the last creation.
    QString folder() const;
    // The root itself; only usable once ready().
    QString root() const;
    // Whether a complete creation of the current recipe is cached.
    bool ready() const;

    // Makes the base unless ready(), and returns root(). Throws std::runtime_error naming the
    // step that failed and the tail of its log (debootstrap's own log too) when the archive
    // cannot be reached or a package cannot be installed; nothing half-made is left as the base.
    QString ensure(const Progress& progress = {}) const;

    // The packages installed on top of minbase for `suite`.
    static QStringList desktopPackages(const QString& suite);
    // What the stamp of a complete base of this recipe holds: the suite and its packages.
    QString recipe() const;

private:
    void create(const Progress& progress) const;

    QString suite_;
    Source source_;
};
