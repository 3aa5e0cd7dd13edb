// What Database::learn asks of a back end: one connection, for the whole run, that
// runs the statements of database_learning.cpp. The statements are the same text on
// both back ends; parameters are written $1, $2...
// Only the back ends and database_learning.cpp include this.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ZEL::Server {

using SqlValue = std::variant<int64_t, double, std::string>;

// One row of a result, its columns numbered from 0.
class SqlRow {
  public:
    virtual ~SqlRow() = default;
    virtual int64_t integer(int column) const = 0;
    virtual double real(int column) const = 0;
};

class LearningSession {
  public:
    virtual ~LearningSession() = default;
    // Runs one statement; each row it returns goes to `row`, in order, as it
    // arrives. False with `error` set when it fails.
    virtual bool run(const std::string& sql, const std::vector<SqlValue>& parameters,
                     const std::function<void(const SqlRow&)>& row, std::string& error) = 0;
    // Opens the run's transaction, one in which it may write.
    virtual bool begin(std::string& error) = 0;
    // The highest observation id at or below which every id is settled: no
    // transaction under way may still commit one (ids from a sequence commit out of
    // order). 0 when there are none; nullopt with `error` set when it fails.
    virtual std::optional<int64_t> settledObservations(std::string& error) = 0;
};

}  // namespace ZEL::Server
