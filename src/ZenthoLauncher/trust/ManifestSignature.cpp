#include "trust/ManifestSignature.h"

namespace ManifestSignature {

QUrl signatureURL(const QUrl& manifest) {
    QUrl url = manifest;
    url.setPath(manifest.path(QUrl::FullyEncoded) + QStringLiteral(".sig"), QUrl::TolerantMode);
    return url;
}

void checkSignature(const QByteArray& manifest, const QByteArray& signature,
                    const TrustedKeys& keys, const QString& noun) {
    if (signature.size() != kSize || !keys.verify(manifest.toStdString(), signature.toStdString()))
        throw ManifestSignatureError(QStringLiteral("The %1 is not signed by a trusted key.").arg(noun));
}

} // namespace ManifestSignature
