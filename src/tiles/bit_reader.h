// A cursor over a memory-mapped tile file, reading the LSB-first bit stream of
// tile_format.h. Every read is bounds-checked against the stream length: a read
// that would pass the end yields 0 and leaves the position where it was, as the
// format requires: a truncated or hostile file decodes zeros instead of reading
// outside the mapping.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "tiles/tile_format.h"

namespace ZEL::Tiles {

class BitReader {
  public:
    // `data` (not owned) must hold `byteCount` bytes, at most TileFormat::kMaxFileBytes.
    BitReader(const uint8_t* data, uint32_t byteCount)
        : data_(data), byteCount_(byteCount), bitLength_(byteCount * 8) {}

    uint32_t position() const { return bitPos_; }
    uint32_t bitLength() const { return bitLength_; }
    // The stream's bytes, for decoders that check bounds once for a whole run.
    const uint8_t* data() const { return data_; }
    uint32_t byteCount() const { return byteCount_; }
    // Whether `n` more bits lie in the stream.
    bool has(unsigned n) const { return uint64_t{bitPos_} + n <= bitLength_; }
    // Any position is accepted; reads beyond the end then fail.
    void setPosition(uint32_t bitPosition) { bitPos_ = bitPosition; }

    // `n` (0..64) bits, unsigned. 0 when n is 0 or the stream ends before n bits.
    uint64_t read(unsigned n) {
        if (n == 0 || uint64_t{bitPos_} + n > bitLength_) {
            return 0;
        }
        uint64_t value = gather(bitPos_, n);
        bitPos_ += n;
        return value;
    }

    // `n` (1..64) bits, two's complement, sign-extended.
    int64_t readSigned(unsigned n) {
        uint64_t value = read(n);
        if (n == 0 || n == 64) {
            return static_cast<int64_t>(value);
        }
        uint64_t sign = uint64_t{1} << (n - 1);
        return static_cast<int64_t>((value ^ sign) - sign);
    }

    // Raises the position to the next multiple of 8 unless already at or past the end.
    void align() {
        if (bitPos_ < bitLength_ && (bitPos_ & 7) != 0) {
            bitPos_ = (bitPos_ | 7) + 1;
        }
    }

    // A variable-length integer; 0 for an invalid lead byte or a cut-off continuation.
    uint64_t readVarint() {
        if (uint64_t{bitPos_} + 64 <= bitLength_) {
            // All seven bytes a varint can have are in the stream: decode from one load.
            uint64_t word = gather(bitPos_, 64);
            unsigned ones = static_cast<unsigned>(std::countl_one(static_cast<uint8_t>(word)));
            if (ones == 0 || ones >= TileFormat::kMaxVarintBytes) {
                bitPos_ += 8;
                return ones == 0 ? word & 0x7F : 0;
            }
            // The varint's bytes, first byte most significant, without its length bits.
            const unsigned length = ones + 1;
            uint64_t value = (__builtin_bswap64(word) >> (64 - 8 * length)) &
                             ((uint64_t{1} << (7 * length)) - 1);
            bitPos_ += 8 * length;
            return value + TileFormat::kVarintOffset[length];
        }
        uint64_t lead = read(8);
        unsigned ones = 0;
        while (ones < 8 && (lead & (0x80u >> ones)) != 0) {
            ++ones;
        }
        if (ones == 0) {
            return lead;
        }
        if (ones >= TileFormat::kMaxVarintBytes) {
            return 0;
        }
        if ((bitLength_ - bitPos_) / 8 < ones) {  // bitPos_ <= bitLength_ after a read
            return 0;
        }
        uint64_t value = lead & (0x7Fu >> ones);
        for (unsigned i = 0; i < ones; ++i) {
            value = (value << 8) | gather(bitPos_, 8);
            bitPos_ += 8;
        }
        return value + TileFormat::kVarintOffset[ones + 1];
    }

  private:
    // The n bits at `position`; the caller has checked that they lie in the stream.
    uint64_t gather(uint32_t position, unsigned n) const {
        uint32_t byte = position >> 3;
        unsigned shift = position & 7;
        uint64_t value;
        if (byte + 8 <= byteCount_) {
            uint64_t word;
            std::memcpy(&word, data_ + byte, 8);
            value = le64(word) >> shift;
            if (n + shift > 64) {
                value |= uint64_t{data_[byte + 8]} << (64 - shift);
            }
        } else {
            value = data_[byte] >> shift;
            for (unsigned got = 8 - shift; got < n; got += 8) {
                value |= uint64_t{data_[++byte]} << got;
            }
        }
        return n == 64 ? value : value & ((uint64_t{1} << n) - 1);
    }

    static uint64_t le64(uint64_t word) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        return __builtin_bswap64(word);
#else
        return word;
#endif
    }

    const uint8_t* data_;
    uint32_t byteCount_;
    uint32_t bitLength_;
    uint32_t bitPos_ = 0;
};

}  // namespace ZEL::Tiles
