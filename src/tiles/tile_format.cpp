#include "tiles/tile_format.h"

#include <nettle/md4.h>

#include <charconv>
#include <cmath>
#include <cstring>

namespace ZEL::Tiles::TileFormat {
namespace {

unsigned ceilLog2Plus(double degrees, unsigned precision) {
    return static_cast<unsigned>(std::ceil(std::log(degrees) / std::log(2.0) + precision + 11));
}

}  // namespace

unsigned latBaseBits(unsigned precision) {
    return ceilLog2Plus(180.0, precision);
}

unsigned lonBaseBits(unsigned precision) {
    return ceilLog2Plus(360.0, precision);
}

double unitDegrees(unsigned precision) {
    return std::ldexp(1.0, -static_cast<int>(precision + 11));
}

double exponentDivisor(unsigned exponentBits) {
    return static_cast<double>((1u << exponentBits) - 1) * 3.0;
}

Digest realmDigest(std::string_view realm) {
    md4_ctx context;
    md4_init(&context);
    md4_update(&context, kMagic.size(), kMagic.data());
    md4_update(&context, realm.size(), reinterpret_cast<const uint8_t*>(realm.data()));
    Digest digest;
    md4_digest(&context, digest.size(), digest.data());
    return digest;
}

uint64_t plainKey(const Core::MacAddress& mac) {
    uint64_t key = 0;
    for (int i = 5; i >= 0; --i) {
        key = (key << 8) | mac[i];
    }
    return key;
}

uint64_t hashedKey(const Core::MacAddress& mac, int32_t latBase, int32_t lonBase,
                   std::string_view realm) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    char text[8 + 2 * 11];
    for (int i = 0; i < 4; ++i) {
        text[2 * i] = kHex[mac[5 - i] >> 4];
        text[2 * i + 1] = kHex[mac[5 - i] & 0xF];
    }
    char* end = std::to_chars(text + 8, text + sizeof text, latBase).ptr;
    end = std::to_chars(end, text + sizeof text, lonBase).ptr;
    md4_ctx context;
    md4_init(&context);
    md4_update(&context, static_cast<size_t>(end - text), reinterpret_cast<const uint8_t*>(text));
    md4_update(&context, realm.size(), reinterpret_cast<const uint8_t*>(realm.data()));
    uint8_t digest[MD4_DIGEST_SIZE];
    md4_digest(&context, sizeof digest, digest);
    uint64_t high = (uint64_t{digest[0]} << 24) | (uint64_t{digest[1]} << 16) |
                    (uint64_t{digest[2]} << 8) | digest[3];
    return (high << 16) | (uint64_t{mac[1]} << 8) | mac[0];
}

}  // namespace ZEL::Tiles::TileFormat
