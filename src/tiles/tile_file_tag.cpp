#include "tiles/tile_file_tag.h"

#include <nettle/sha2.h>

namespace ZEL::Tiles {

std::string tileFileTag(const uint8_t* bytes, size_t size) {
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, size, bytes);
    uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&context, sizeof digest, digest);
    constexpr char kHex[] = "0123456789abcdef";
    std::string tag;
    for (size_t i = 0; i < 16; ++i) {
        tag += kHex[digest[i] >> 4];
        tag += kHex[digest[i] & 15];
    }
    return tag;
}

}  // namespace ZEL::Tiles
