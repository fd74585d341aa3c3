#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>

struct evp_md_ctx_st;

// A SHA-256 digest fed piece by piece, so a body can be hashed while it streams past without
// ever being held whole in memory.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(const char* bytes, std::size_t size);
    void update(const QByteArray& bytes) { update(bytes.constData(), std::size_t(bytes.size())); }

    // Ends the digest and returns it as 64 lower-case hexadecimal digits. Call it once.
    QString finishHex();

private:
    evp_md_ctx_st* context_;
};
