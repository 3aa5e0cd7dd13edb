#include "api/caller_records.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace ZEL::API {
namespace {

// Copies `text` and its NUL at `cursor` and returns where it was put.
char* place(char*& cursor, const std::string& text) {
    char* start = cursor;
    std::memcpy(cursor, text.c_str(), text.size() + 1);
    cursor += text.size() + 1;
    return start;
}

// The inline code fields hold at most three characters and their NUL; longer codes
// are cut rather than overrun the record.
void copyCode(char (&field)[4], const std::string& code) {
    size_t length = std::min(code.size(), sizeof field - 1);
    std::memcpy(field, code.data(), length);
    field[length] = '\0';
}

ZEL_APTable makeApTable(const Core::ApList& aps, bool& ok) {
    ZEL_APTable table{0, nullptr};
    size_t count = std::min<size_t>(aps.size(), std::numeric_limits<unsigned short>::max());
    if (count == 0) {
        return table;
    }
    table.aps = static_cast<ZEL_APEntry*>(std::calloc(count, sizeof(ZEL_APEntry)));
    if (table.aps == nullptr) {
        ok = false;
        return table;
    }
    table.count = static_cast<unsigned short>(count);
    for (size_t i = 0; i < count; ++i) {
        std::memcpy(table.aps[i].mac, aps[i].mac.data(), 6);
        table.aps[i].rss = aps[i].rss;
    }
    return table;
}

}  // namespace

// The record's strings share one block that starts at street_number: the street
// number, padding to pointer alignment, the null-terminated address-line array, the
// address lines, then city, postal code, county, province, region, state and
// country. The 8 spare bytes cover the padding.
ZEL_StreetAddress* makeCallerStreetAddress(const Core::StreetAddress& address) {
    if (address.empty()) {
        return nullptr;
    }
    const std::string* tail[] = {&address.city,     &address.postalCode, &address.county,
                                 &address.province, &address.region,     &address.state,
                                 &address.country};
    size_t textBytes = address.streetNumber.size() + 1;
    for (const std::string& line : address.addressLines) {
        textBytes += line.size() + 1;
    }
    for (const std::string* field : tail) {
        textBytes += field->size() + 1;
    }
    const size_t pointerBytes = (address.addressLines.size() + 1) * sizeof(char*);
    char* block = static_cast<char*>(std::malloc(textBytes + pointerBytes + 8));
    auto* record = static_cast<ZEL_StreetAddress*>(std::calloc(1, sizeof(ZEL_StreetAddress)));
    if (block == nullptr || record == nullptr) {
        std::free(block);
        std::free(record);
        return nullptr;
    }

    char* cursor = block;
    record->street_number = place(cursor, address.streetNumber);
    size_t offset = static_cast<size_t>(cursor - block);
    cursor += (alignof(char*) - offset % alignof(char*)) % alignof(char*);
    record->address_line = reinterpret_cast<char**>(cursor);
    cursor += pointerBytes;
    for (size_t i = 0; i < address.addressLines.size(); ++i) {
        record->address_line[i] = place(cursor, address.addressLines[i]);
    }
    record->address_line[address.addressLines.size()] = nullptr;
    record->city = place(cursor, address.city);
    record->postal_code = place(cursor, address.postalCode);
    record->county = place(cursor, address.county);
    record->province = place(cursor, address.province);
    record->region = place(cursor, address.region);
    record->state = place(cursor, address.state);
    record->country = place(cursor, address.country);
    copyCode(record->state_code, address.stateCode);
    copyCode(record->country_code, address.countryCode);
    return record;
}

ZEL_Location* makeCallerLocation(const Core::LocationRecord& source) {
    auto* location = static_cast<ZEL_Location*>(std::calloc(1, sizeof(ZEL_Location)));
    if (location == nullptr) {
        return nullptr;
    }
    location->latitude = source.latitude;
    location->longitude = source.longitude;
    location->hpe = source.hpe;
    location->nap = source.nap;
    location->speed = source.speed;
    location->bearing = source.bearing;
    bool ok = true;
    location->street_address = makeCallerStreetAddress(source.streetAddress);
    if (location->street_address == nullptr && !source.streetAddress.empty()) {
        ok = false;
    }
    location->known_aps = makeApTable(source.knownAps, ok);
    location->unknown_aps = makeApTable(source.unknownAps, ok);
    if (!ok) {
        freeCallerLocation(location);
        return nullptr;
    }
    return location;
}

ZEL_IPLocation* makeCallerIpLocation(const Core::IpLocationRecord& source) {
    auto* location = static_cast<ZEL_IPLocation*>(std::calloc(1, sizeof(ZEL_IPLocation)));
    if (location == nullptr) {
        return nullptr;
    }
    location->ip = static_cast<char*>(std::malloc(source.ip.size() + 1));
    location->latitude = source.latitude;
    location->longitude = source.longitude;
    location->street_address = makeCallerStreetAddress(source.streetAddress);
    if (location->ip == nullptr ||
        (location->street_address == nullptr && !source.streetAddress.empty())) {
        freeCallerIpLocation(location);
        return nullptr;
    }
    std::memcpy(location->ip, source.ip.c_str(), source.ip.size() + 1);
    return location;
}

void freeCallerStreetAddress(ZEL_StreetAddress* address) {
    if (address == nullptr) {
        return;
    }
    std::free(address->street_number);  // the start of the one character block
    std::free(address);
}

void freeCallerLocation(ZEL_Location* location) {
    if (location == nullptr) {
        return;
    }
    freeCallerStreetAddress(location->street_address);
    std::free(location->known_aps.aps);
    std::free(location->unknown_aps.aps);
    std::free(location);
}

void freeCallerIpLocation(ZEL_IPLocation* location) {
    if (location == nullptr) {
        return;
    }
    std::free(location->ip);
    freeCallerStreetAddress(location->street_address);
    std::free(location);
}

}  // namespace ZEL::API
