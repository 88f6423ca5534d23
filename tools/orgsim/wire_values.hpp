// Checking and normalising field values given as text.
//
// Every value the org stores is text in Salesforce's wire form. These functions
// turn what a caller gives (a generator row, a REST body, an admin request) into
// that form, or say it does not fit the field's type. Empty text means null and
// is handled by the callers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/orgsim/schema.hpp"

namespace corvane::orgsim::WireValues {

// The stored text for `text` given to `field`; none when it does not fit the type.
// Datetimes become "2024-01-05T10:00:00.000Z", booleans "true"/"false", numbers
// plain decimals (an exponent is written out), ids their 18-character form.
std::optional<std::string> normalize(const FieldDef& field, std::string_view text);

// A number's text in plain decimal digits ("1e-7" gives "0.0000001", "+5" gives "5");
// none when the text is not a number.
std::optional<std::string> plainNumber(std::string_view text);

// Standard base64 (with padding) of bytes, and back; decoding ignores line breaks
// and gives none on anything else that is not base64.
std::string base64Encode(std::string_view bytes);
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace corvane::orgsim::WireValues
