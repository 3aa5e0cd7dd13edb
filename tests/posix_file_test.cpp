// The file interface on POSIX: modes, size, read, write, mapping and failures.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

#include "spi/file.h"
#include "spi/io/posix_file.h"
#include "support/hand_built_tile.h"

namespace ZEL::SPI {
namespace {

class PosixFileTest : public ::testing::Test {
  protected:
    std::string path(const std::string& name) const { return dir_.path() + "/" + name; }
    Testing::TempDir dir_;
    std::unique_ptr<File> file_ = newPosixFile();
};

TEST_F(PosixFileTest, WritesCreatesAppendsTruncatesAndReadsBack) {
    ASSERT_TRUE(file_);
    std::string name = path("data");
    ASSERT_EQ(file_->open(name, File::kWrite | File::kCreate), 0);
    EXPECT_EQ(file_->write("hello", 5), 5u);
    EXPECT_EQ(file_->close(), 0);

    ASSERT_EQ(file_->open(name, File::kWrite | File::kAppend), 0);
    EXPECT_EQ(file_->write(" world", 6), 6u);
    ASSERT_EQ(file_->open(name, File::kRead), 0);  // open closes the previous file
    EXPECT_EQ(file_->size(), 11u);
    char buffer[32] = {};
    EXPECT_EQ(file_->read(buffer, sizeof buffer), 11u);
    EXPECT_STREQ(buffer, "hello world");
    EXPECT_EQ(file_->read(buffer, sizeof buffer), 0u);  // at the end
    EXPECT_EQ(file_->write("x", 1), 0u);                // read-only: refused

    ASSERT_EQ(file_->open(name, File::kRead | File::kWrite | File::kTruncate), 0);
    EXPECT_EQ(file_->size(), 0u);
    EXPECT_EQ(file_->open(path("absent"), File::kWrite | File::kTruncate), -1);
    EXPECT_EQ(file_->open(name, 0), -1);  // neither read nor write access
    EXPECT_EQ(file_->size(), File::kSizeFailure);
}

TEST_F(PosixFileTest, MapsAnyRangeInsideTheFileAndOutlivesTheFile) {
    long page = sysconf(_SC_PAGESIZE);
    std::vector<uint8_t> bytes(static_cast<size_t>(page) * 2 + 100);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7);
    }
    std::string name = dir_.write("mapped", bytes);
    ASSERT_EQ(file_->open(name, File::kRead), 0);
    auto whole = file_->map(0, bytes.size());
    auto unaligned = file_->map(page + 3, 50);  // a second view through the same descriptor
    ASSERT_TRUE(whole && unaligned);
    EXPECT_EQ(whole->length(), bytes.size());
    EXPECT_EQ(std::memcmp(whole->data(), bytes.data(), bytes.size()), 0);
    EXPECT_EQ(unaligned->length(), 50u);
    EXPECT_EQ(std::memcmp(unaligned->data(), bytes.data() + page + 3, 50), 0);

    EXPECT_EQ(file_->map(bytes.size() - 10, 11), nullptr);  // would run past the end
    EXPECT_EQ(file_->map(0, 0), nullptr);
    file_.reset();
    EXPECT_EQ(whole->data()[bytes.size() - 1], bytes.back());  // still mapped
}

}  // namespace
}  // namespace ZEL::SPI
