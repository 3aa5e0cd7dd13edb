#include "core/location_record.h"

namespace ZEL::Core {

bool StreetAddress::empty() const {
    return streetNumber.empty() && addressLines.empty() && city.empty() && postalCode.empty() &&
           county.empty() && province.empty() && region.empty() && stateCode.empty() &&
           state.empty() && country.empty() && countryCode.empty();
}

}  // namespace ZEL::Core
