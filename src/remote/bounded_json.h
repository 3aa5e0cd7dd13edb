// JSON from untrusted text with a cap on nesting, checked while reading, so a
// hostile document can neither build deep structure nor make a reader recurse
// into it. Both ends of the geolocate protocol read with it.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace ZEL::Remote {

// The document, or nothing with `error` saying why (nested too deep, or not JSON).
inline std::optional<nlohmann::json> parseBoundedJson(std::string_view text, int maxDepth,
                                                      std::string& error) {
    struct TooDeep {};
    try {
        return nlohmann::json::parse(
            text, [maxDepth](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
                if (depth > maxDepth) {
                    throw TooDeep{};
                }
                return true;
            });
    } catch (const TooDeep&) {
        error = "nested deeper than " + std::to_string(maxDepth) + " levels";
    } catch (const nlohmann::json::exception& failure) {
        error = std::string("the body is not JSON: ") + failure.what();
    }
    return std::nullopt;
}

}  // namespace ZEL::Remote
