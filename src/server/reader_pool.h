// Tile readers for concurrent requests. A reader shares one bit cursor between its
// lookups, so each request borrows a whole set (one reader per tile file) for its
// duration; sets are opened on demand and kept for the next request. The files
// are memory-mapped, so every set shares the same pages.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "local/stored_ap_lookup.h"

namespace ZEL::Server {

class ReaderPool {
  public:
    // Opens one set to check that every file opens for `realm`; null with `error`
    // naming the file that does not.
    static std::unique_ptr<ReaderPool> open(std::vector<std::string> paths, std::string realm,
                                            std::string& error);

    // A borrowed set, given back when the lease ends. Empty readers() when a file
    // could not be opened again (logged).
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

  private:
    ReaderPool(std::vector<std::string> paths, std::string realm);
    // A newly opened set, or an empty list with `error` set.
    Local::ReaderList openSet(std::string& error) const;
    void giveBack(Local::ReaderList readers);

    std::vector<std::string> paths_;
    std::string realm_;
    std::mutex mutex_;
    std::vector<Local::ReaderList> idle_;
};

}  // namespace ZEL::Server
