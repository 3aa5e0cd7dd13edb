// Text, module path, clock and MD4 on Windows.
#include <gtest/gtest.h>
#include <nettle/md4.h>

#include <ctime>

#include "spi/text.h"
#include "spi/time/win32_clock.h"

namespace ZEL::SPI {
namespace {

TEST(Win32Text, ConvertsBothWaysInTheCodePageAndFindsTheProgram) {
    for (const std::string& text :
         {std::string(), std::string("tile.zel"), std::string(300, 'x')}) {
        EXPECT_EQ(toWide(text), std::wstring(text.begin(), text.end()));
        EXPECT_EQ(toNarrow(toWide(text)), text);
    }
    EXPECT_EQ(toNarrow(std::wstring(L"a\0b", 3)), "a");  // NUL ends the text, as in C
    std::string directory = moduleDirectory();
    ASSERT_GE(directory.size(), 3u);
    EXPECT_EQ(directory.back(), '\\');
    EXPECT_EQ(
        GetFileAttributesA((directory + "zel_win_tests.exe").c_str()) & FILE_ATTRIBUTE_DIRECTORY,
        0u);
}

TEST(Win32Clock, TimeStampsCountFrom1970) {
    Clock& clock = win32Clock();
    std::time_t before = std::time(nullptr);
    Core::TimeStamp now = clock.now();
    std::time_t after = std::time(nullptr);
    EXPECT_GE(now.seconds, static_cast<uint32_t>(before));
    EXPECT_LE(now.seconds, static_cast<uint32_t>(after));
    EXPECT_LT(now.milliseconds, 1000u);
    uint32_t tick = clock.tickCount();
    EXPECT_LE(clock.tickCount() - tick, 1000u);  // a wrapping difference stays small
}

// The test vectors of MD4's definition; a context serves again after its digest.
TEST(BCryptMd4, DigestsTheDefiningVectorsThroughNettlesInterface) {
    struct Row {
        std::string message;
        const char* hex;
    };
    md4_ctx context;
    md4_init(&context);
    for (const Row& row :
         {Row{"", "31d6cfe0d16ae931b73c59d7e0c089c0"}, Row{"a", "bde52cb31de33e46245e05fbdbd6fb24"},
          Row{"abc", "a448017aaf21d8525fc10ae87aa6729d"},
          Row{"message digest", "d9130a8164549fe818874806e1c7014b"},
          Row{"abcdefghijklmnopqrstuvwxyz", "d79e1c308aa5bbcdeea8ed63df412da9"},
          Row{std::string(80, '1'), "5810e6caf598be39103d5d989844db73"}}) {  // two blocks
        size_t half = row.message.size() / 2;  // in two updates, as the tile code hashes
        md4_update(&context, half, reinterpret_cast<const uint8_t*>(row.message.data()));
        md4_update(&context, row.message.size() - half,
                   reinterpret_cast<const uint8_t*>(row.message.data() + half));
        uint8_t digest[MD4_DIGEST_SIZE + 1] = {};
        md4_digest(&context, MD4_DIGEST_SIZE, digest);
        char hex[2 * MD4_DIGEST_SIZE + 1];
        for (int i = 0; i < MD4_DIGEST_SIZE; ++i) {
            std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
        }
        EXPECT_STREQ(hex, row.hex) << row.message;
        EXPECT_EQ(digest[MD4_DIGEST_SIZE], 0);
    }
}

}  // namespace
}  // namespace ZEL::SPI
