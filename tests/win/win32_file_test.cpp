// The file service on Windows: modes, mapping at any offset, and the failures'
// messages with the system's error number.
#include <gtest/gtest.h>

#include <cstring>

#include "spi/io/win32_file.h"
#include "support/hand_built_tile.h"
#include "support/log_capture.h"

namespace ZEL::SPI {
namespace {

class Win32FileTest : public ::testing::Test {
  protected:
    std::string path(const std::string& name) const { return dir_.path() + "\\" + name; }
    Testing::TempDir dir_;
    Testing::LogCapture log_{"ZEL.SPI.IO.Win32File"};
    std::unique_ptr<File> file_ = newWin32File();
};

TEST_F(Win32FileTest, ModesCreateAppendTruncateAndRefuse) {
    std::string name = path("data");
    ASSERT_EQ(file_->open(name, File::kWrite | File::kCreate), 0);
    EXPECT_EQ(file_->write("hello", 5), 5u);
    ASSERT_EQ(file_->open(name, File::kWrite | File::kAppend), 0);  // closes the first
    EXPECT_EQ(file_->write(" world", 6), 6u);
    ASSERT_EQ(file_->open(name, File::kRead), 0);
    char buffer[32] = {};
    EXPECT_EQ(file_->size(), 11u);
    EXPECT_EQ(file_->read(buffer, sizeof buffer), 11u);
    EXPECT_STREQ(buffer, "hello world");
    EXPECT_EQ(file_->write("x", 1), 0u);  // read-only
    EXPECT_TRUE(log_.contains(name + ": WriteFile failed (5)"));
    ASSERT_EQ(file_->open(name, File::kWrite | File::kTruncate), 0);
    EXPECT_EQ(file_->size(), 0u);

    struct Row {
        std::string name;
        uint32_t mode;
        int error;  // the system's error number in the message
    };
    for (const Row& row :
         {Row{"absent", File::kRead, 2}, Row{"absent", File::kWrite | File::kTruncate, 2},
          Row{"data", 0, 87}, Row{"no\\such\\dir", File::kWrite | File::kCreate, 3}}) {
        EXPECT_EQ(file_->open(path(row.name), row.mode), -1) << row.name;
        EXPECT_TRUE(log_.contains(path(row.name) + ": CreateFileW/CreateFileForMappingW failed (" +
                                  std::to_string(row.error) + ")"))
            << row.name;
    }
    EXPECT_EQ(file_->size(), File::kSizeFailure);  // the failed open left nothing open
    EXPECT_TRUE(log_.contains(": GetFileSize failed (6)"));
    EXPECT_EQ(file_->read(buffer, 1), 0u);
    EXPECT_EQ(file_->write("x", 1), 0u);
}

TEST_F(Win32FileTest, MapsRangesPastTheAllocationGranularityAndOutlivesTheFile) {
    std::vector<uint8_t> bytes(3 * 65536 + 100);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
    }
    std::string name = dir_.write("mapped", bytes);
    EXPECT_EQ(file_->map(0, 1), nullptr);  // not open: silently
    EXPECT_TRUE(log_.messages().empty());
    ASSERT_EQ(file_->open(name, File::kRead), 0);
    struct Row {
        uint64_t offset;
        size_t length;
    };
    std::vector<std::unique_ptr<FileMapping>> views;
    for (Row row : {Row{0, bytes.size()}, Row{65536, 1}, Row{65536 * 2 + 3, 65536},
                    Row{bytes.size() - 1, 1}}) {
        views.push_back(file_->map(row.offset, row.length));
        ASSERT_NE(views.back(), nullptr) << row.offset;
        EXPECT_EQ(views.back()->length(), row.length);
        EXPECT_EQ(std::memcmp(views.back()->data(), bytes.data() + row.offset, row.length), 0)
            << row.offset;
    }
    for (Row row : {Row{bytes.size() - 10, 11}, Row{bytes.size() + 1, 1}, Row{0, 0}}) {
        EXPECT_EQ(file_->map(row.offset, row.length), nullptr) << row.offset;
    }
    EXPECT_EQ(log_.count(LogPriority::kError, name + ": MapViewOfFile failed (87)"), 3u);
    file_.reset();
    EXPECT_EQ(views[2]->data()[65535], bytes[65536 * 3 + 2]);  // still mapped
}

}  // namespace
}  // namespace ZEL::SPI
