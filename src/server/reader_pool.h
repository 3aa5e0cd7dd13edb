// Tile readers for concurrent requests, over one generation of the tile files.
//
// The files are read into memory when the pool opens, and only that copy is ever
// searched: a file rewritten or truncated in place under a running server cannot
// touch it (a mapping of the file would fault on the truncated pages). A reload
// opens a new pool beside this one; requests that borrowed from this pool finish
// on its data while it lives.
//
// A reader shares one bit cursor between its lookups, so each request borrows a
// whole set (one reader per tile file) for its duration; sets are opened on demand
// over the shared copy and kept for the next request.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "local/stored_ap_lookup.h"
#include "spi/file.h"

namespace ZEL::Server {

class ReaderPool {
  public:
    // Reads every file and opens one set to check that each is a tile file of
    // `realm`; null with `error` naming the first file that is not.
    static std::unique_ptr<ReaderPool> open(std::vector<std::string> paths, std::string realm,
                                            std::string& error);

    // A borrowed set, given back when the lease ends. Empty readers() when memory
    // for a new set ran out (logged).
    class Lease {
      public:
        Lease(ReaderPool& pool, Local::ReaderList readers)
            : pool_(pool), readers_(std::move(readers)) {}
        ~Lease() { pool_.giveBack(std::move(readers_)); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        Local::ReaderList& readers() { return readers_; }

      private:
        ReaderPool& pool_;
        Local::ReaderList readers_;
    };

    Lease borrow();
    size_t fileCount() const { return paths_.size(); }

    // One file as it was read, for downloads.
    struct Image {
        std::shared_ptr<const SPI::FileMapping> bytes;
        std::string tag;       // tiles/tile_file_tag.h
        int64_t modified = 0;  // the file's modification time then, seconds since 1970
    };
    const Image& image(size_t file) const { return images_[file]; }

  private:
    ReaderPool(std::vector<std::string> paths, std::string realm);
    // A newly opened set, or an empty list with `error` set.
    Local::ReaderList openSet(std::string& error) const;
    void giveBack(Local::ReaderList readers);

    std::vector<std::string> paths_;
    std::string realm_;
    std::vector<Image> images_;  // per path
    std::mutex mutex_;
    std::vector<Local::ReaderList> idle_;
};

}  // namespace ZEL::Server
