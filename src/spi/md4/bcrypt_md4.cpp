// nettle's md4 interface over BCrypt (BCRYPT_MD4_ALGORITHM). The algorithm provider
// is opened once per process and never closed; each context holds one hash object.
#include <windows.h>
// after windows.h, which defines its types
#include <bcrypt.h>

#include <algorithm>
#include <cstring>

#include "nettle/md4.h"
#include "spi/log.h"

namespace {

ZEL::SPI::Logger& category() {
    return ZEL::SPI::getLogger("ZEL.SPI.Win32.BCryptMd4");
}

BCRYPT_ALG_HANDLE provider() {
    static BCRYPT_ALG_HANDLE handle = [] {
        BCRYPT_ALG_HANDLE opened = nullptr;
        NTSTATUS status = BCryptOpenAlgorithmProvider(&opened, BCRYPT_MD4_ALGORITHM, nullptr, 0);
        if (!BCRYPT_SUCCESS(status)) {
            ZEL_LOG_ERROR(category(), "BCryptOpenAlgorithmProvider failed (0x%lX)", status);
            return BCRYPT_ALG_HANDLE{nullptr};
        }
        return opened;
    }();
    return handle;
}

// The context's hash object, made on first use; null after a failure.
BCRYPT_HASH_HANDLE hashOf(md4_ctx* context) {
    if (context->hash == nullptr && !context->failed) {
        BCRYPT_ALG_HANDLE algorithm = provider();
        if (algorithm == nullptr) {  // logged once by provider()
            context->failed = true;
            return nullptr;
        }
        BCRYPT_HASH_HANDLE hash = nullptr;
        NTSTATUS status = BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0);
        if (!BCRYPT_SUCCESS(status)) {
            ZEL_LOG_ERROR(category(), "BCryptCreateHash failed (0x%lX)", status);
            context->failed = true;
            return nullptr;
        }
        context->hash = hash;
    }
    return context->hash;
}

}  // namespace

void md4_init(md4_ctx* context) {
    context->hash = nullptr;
    context->failed = false;
}

void md4_update(md4_ctx* context, size_t length, const uint8_t* data) {
    BCRYPT_HASH_HANDLE hash = hashOf(context);
    if (hash == nullptr || length == 0) {
        return;
    }
    // BCryptHashData takes a ULONG length; the tile format hashes a few bytes at a time.
    NTSTATUS status = BCryptHashData(hash, const_cast<PUCHAR>(data), static_cast<ULONG>(length), 0);
    if (!BCRYPT_SUCCESS(status)) {
        ZEL_LOG_ERROR(category(), "BCryptHashData failed (0x%lX)", status);
        context->failed = true;
    }
}

void md4_digest(md4_ctx* context, size_t length, uint8_t* digest) {
    uint8_t full[MD4_DIGEST_SIZE] = {};
    BCRYPT_HASH_HANDLE hash = hashOf(context);
    if (hash != nullptr && !context->failed) {
        NTSTATUS status = BCryptFinishHash(hash, full, sizeof full, 0);
        if (!BCRYPT_SUCCESS(status)) {
            ZEL_LOG_ERROR(category(), "BCryptFinishHash failed (0x%lX)", status);
            std::memset(full, 0, sizeof full);
        }
    }
    if (hash != nullptr) {
        BCryptDestroyHash(hash);
    }
    std::memcpy(digest, full, std::min<size_t>(length, sizeof full));
    md4_init(context);
}
