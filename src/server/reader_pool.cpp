#include "server/reader_pool.h"

#include "spi/log.h"

namespace ZEL::Server {

ReaderPool::ReaderPool(std::vector<std::string> paths, std::string realm)
    : paths_(std::move(paths)), realm_(std::move(realm)) {}

std::unique_ptr<ReaderPool> ReaderPool::open(std::vector<std::string> paths, std::string realm,
                                             std::string& error) {
    std::unique_ptr<ReaderPool> pool(new ReaderPool(std::move(paths), std::move(realm)));
    Local::ReaderList first = pool->openSet(error);
    if (first.empty() && !pool->paths_.empty()) {
        return nullptr;
    }
    pool->idle_.push_back(std::move(first));
    return pool;
}

Local::ReaderList ReaderPool::openSet(std::string& error) const {
    Local::ReaderList readers;
    for (const std::string& path : paths_) {
        std::unique_ptr<Tiles::LocalCompressedFileReader> reader =
            Tiles::LocalCompressedFileReader::create();
        if (!reader || !reader->open(path, realm_)) {
            error = "cannot open tile file " + path + " for realm \"" + realm_ + "\"";
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
