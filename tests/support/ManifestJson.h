#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// The bytes of a release manifest as a test publishes it: the five members in the order pack
// writes them, on one line, then any further members exactly as given. Further members are raw
// JSON text, so a test can put there what no encoder would write (a raw control byte, a lone
// surrogate, a number out of range); signatures are made over these exact bytes.
class ManifestJson {
public:
    // A game release: platform "macos-arm64", executable "zentho".
    ManifestJson(QString version, QString url, QString sha256);
    // A launcher release: platform "macos-launcher-arm64", executable "ZenthoLauncher.app".
    static ManifestJson launcher(QString version, QString url, QString sha256);

    ManifestJson& platform(QString platform);
    ManifestJson& executable(QString executable);
    // Appends `rawMember` ("\"notes\":\"\"") after the members before it.
    ManifestJson& member(QByteArray rawMember);
    // Ends the text with a line feed, as pack writes its manifests.
    ManifestJson& lineEnd();

    QByteArray bytes() const;
    operator QByteArray() const { return bytes(); }

private:
    QString version_;
    QString platform_ = QStringLiteral("macos-arm64");
    QString url_;
    QString sha256_;
    QString executable_ = QStringLiteral("zentho");
    QList<QByteArray> members_;
    bool lineEnd_ = false;
};
