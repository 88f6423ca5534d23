// Names for document bodies in the shared Files folder, made from whatever
// title Salesforce sends.
//
// A title is text anyone in the org could type: "../../etc/passwd", "con.txt",
// a line break, a name of 5,000 characters, the same accented letter composed
// or decomposed. The name on disk never leaves the Files folder, never names a
// device, never hides itself with a leading dot, fits in 255 bytes of UTF-8 and
// is in Unicode normal form C. It begins with the record id, so two documents
// with the same title never share a name.
#pragma once

#include <string>
#include <string_view>

namespace corvane::SafeFileName {

// The longest name, in bytes, that common file systems accept.
inline constexpr std::size_t maximumBytes = 255;

// "<id> <title>.<extension>", each part cleaned. A title that already ends in
// the extension (any letter case) does not get it twice; without an extension,
// a short one at the end of the title is kept whole when the title is cut. An
// empty or unusable title leaves just the id (and extension).
std::string forBody(std::string_view id, std::string_view title, std::string_view extension);

// One path component from any text: NFC, no separators, no control or
// reserved characters, no leading dots or spaces, no trailing dots or spaces,
// not a reserved device name, at most maximumBytes bytes cut at a character
// boundary. Invalid UTF-8 bytes become "_". May return "".
std::string clean(std::string_view text, std::size_t maximum = maximumBytes);

}  // namespace corvane::SafeFileName
