// MD4 on Windows: the part of nettle's <nettle/md4.h> interface the tile format
// uses, over Windows' own BCrypt, so the tile code compiles unchanged.
#pragma once

#include <cstddef>
#include <cstdint>

#define MD4_DIGEST_SIZE 16

// One hash under way. The BCrypt hash object is made by the first update or digest
// and freed by md4_digest, which leaves the context ready for the next message, as
// nettle's does; a context dropped after its digest holds nothing.
struct md4_ctx {
    void* hash;   // the BCrypt hash handle, null before the first update
    bool failed;  // BCrypt failed on this message (logged): the digest is zeros
};

void md4_init(md4_ctx* context);
void md4_update(md4_ctx* context, size_t length, const uint8_t* data);
// Writes the first `length` bytes of the digest (at most MD4_DIGEST_SIZE); zeros
// when BCrypt failed.
void md4_digest(md4_ctx* context, size_t length, uint8_t* digest);
