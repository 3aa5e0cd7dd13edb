// Builds an LSB-first bit stream (tile_format.h): the writer's counterpart of
// BitReader. Used by TileWriter and by tests that hand-build tile files.
#pragma once

#include <cstdint>
#include <vector>

#include "tiles/tile_format.h"

namespace ZEL::Tiles {

class BitWriter {
  public:
    // Appends the low `n` (0..64) bits of `value`.
    void write(uint64_t value, unsigned n) {
        for (unsigned done = 0; done < n;) {
            unsigned offset = bitCount_ % 8;
            if (offset == 0) {
                bytes_.push_back(0);
            }
            unsigned take = n - done < 8 - offset ? n - done : 8 - offset;
            uint64_t chunk = (value >> done) & ((1u << take) - 1);
            bytes_.back() = static_cast<uint8_t>(bytes_.back() | (chunk << offset));
            done += take;
            bitCount_ += take;
        }
    }

    // Appends `value` as a two's complement field of `n` bits.
    void writeSigned(int64_t value, unsigned n) { write(static_cast<uint64_t>(value), n); }

    // Appends the shortest (the only) variable-length encoding of `value`, which
    // must be below maxVarint().
    void writeVarint(uint64_t value) {
        unsigned length = varintLength(value);
        uint64_t payload = value - TileFormat::kVarintOffset[length];
        unsigned lead = (0xFF00u >> (length - 1)) & 0xFF;
        write(lead | (payload >> (8 * (length - 1))), 8);
        for (unsigned i = length - 1; i > 0; --i) {
            write((payload >> (8 * (i - 1))) & 0xFF, 8);
        }
    }

    // Pads with zero bits to the next byte boundary.
    void align() { bitCount_ = bytes_.size() * 8; }

    // Appends whole bytes at a byte boundary.
    void writeBytes(const std::vector<uint8_t>& bytes) {
        align();
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        bitCount_ = bytes_.size() * 8;
    }

    uint64_t bitCount() const { return bitCount_; }
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    std::vector<uint8_t> take() { return std::move(bytes_); }

    // Bytes of the encoding of `value`, 1..7.
    static unsigned varintLength(uint64_t value) {
        unsigned length = 1;
        while (length < TileFormat::kMaxVarintBytes &&
               value >= TileFormat::kVarintOffset[length + 1]) {
            ++length;
        }
        return length;
    }
    static constexpr uint64_t maxVarint() {
        return TileFormat::kVarintOffset[7] + (uint64_t{1} << 49) - 1;
    }

  private:
    std::vector<uint8_t> bytes_;
    uint64_t bitCount_ = 0;
};

}  // namespace ZEL::Tiles
