#include "server/reader_pool.h"

#include <sys/stat.h>

#include "spi/log.h"
#include "spi/platform.h"
#include "tiles/tile_file_tag.h"
#include "tiles/tile_format.h"

namespace ZEL::Server {
namespace {

class MemoryImage final : public SPI::FileMapping {
  public:
    explicit MemoryImage(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    const uint8_t* data() const override { return bytes_.data(); }
    size_t length() const override { return bytes_.size(); }

  private:
    std::vector<uint8_t> bytes_;
};

// The whole file at `path`, or null with `error` set. A file that shrinks while it
// is read (rewritten in place) is refused; one rewritten to the same length
// unluckily reads torn, and is refused by the checks of the tile reader unless
// it still makes a valid file.
std::shared_ptr<const SPI::FileMapping> readImage(const std::string& path, std::string& error) {
    std::unique_ptr<SPI::File> file = SPI::platform().newFile();
    if (!file || file->open(path, SPI::File::kRead) != 0) {
        error = "cannot open tile file " + path;
        return nullptr;
    }
    const uint64_t size = file->size();
    if (size == SPI::File::kSizeFailure || size == 0 || size > Tiles::TileFormat::kMaxFileBytes) {
        error = "tile file " + path + " is empty, too large or unreadable";
        return nullptr;
    }
    std::vector<uint8_t> bytes(size);
    size_t done = 0;
    while (done < bytes.size()) {
        const size_t got = file->read(bytes.data() + done, bytes.size() - done);
        if (got == 0) {
            error = "tile file " + path + " changed or failed while being read";
            return nullptr;
        }
        done += got;
    }
    return std::make_shared<MemoryImage>(std::move(bytes));
}

}  // namespace

ReaderPool::ReaderPool(std::vector<std::string> paths, std::string realm)
    : paths_(std::move(paths)), realm_(std::move(realm)) {}

std::unique_ptr<ReaderPool> ReaderPool::open(std::vector<std::string> paths, std::string realm,
                                             std::string& error) {
    std::unique_ptr<ReaderPool> pool(new ReaderPool(std::move(paths), std::move(realm)));
    for (const std::string& path : pool->paths_) {
        struct stat status {};
        const int64_t modified = ::stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
        std::shared_ptr<const SPI::FileMapping> bytes = readImage(path, error);
        if (!bytes) {
            return nullptr;
        }
        std::string tag = Tiles::tileFileTag(bytes->data(), bytes->length());
        pool->images_.push_back({std::move(bytes), std::move(tag), modified});
    }
    Local::ReaderList first = pool->openSet(error);
    if (first.size() != pool->paths_.size()) {
        return nullptr;
    }
    pool->idle_.push_back(std::move(first));
    return pool;
}

Local::ReaderList ReaderPool::openSet(std::string& error) const {
    Local::ReaderList readers;
    for (size_t i = 0; i < paths_.size(); ++i) {
        std::unique_ptr<Tiles::LocalCompressedFileReader> reader =
            Tiles::LocalCompressedFileReader::create();
        if (!reader || !reader->open(images_[i].bytes, paths_[i], realm_)) {
            error =
                "tile file " + paths_[i] + " is not a valid tile file for realm \"" + realm_ + "\"";
            return {};
        }
        readers.push_back(std::move(reader));
    }
    return readers;
}

ReaderPool::Lease ReaderPool::borrow() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            Local::ReaderList readers = std::move(idle_.back());
            idle_.pop_back();
            return Lease(*this, std::move(readers));
        }
    }
    std::string error;
    Local::ReaderList readers = openSet(error);
    if (readers.size() != paths_.size()) {
        ZEL_LOG_ERROR(SPI::getLogger("ZEL.Server.ReaderPool"), "%s", error.c_str());
    }
    return Lease(*this, std::move(readers));
}

void ReaderPool::giveBack(Local::ReaderList readers) {
    if (readers.size() != paths_.size()) {
        return;
    }
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(readers));
}

}  // namespace ZEL::Server
