#pragma once

#include <string>
#include <string_view>

namespace kinbook {

// Folds text for every search and sort key: case-insensitive and
// diacritic-insensitive, with no locale, so that the same text folds the same
// way on every machine. "Émile" and "EMILE" both fold to "emile", "Straße"
// to "strasse"; letters that are not a base letter plus marks keep their
// identity ("ø" stays "ø", "ł" stays "ł").
//
// Input is UTF-8. Bytes that are not valid UTF-8 are passed through unchanged
// so that a damaged card still sorts and searches the same way every time.
// Pure ASCII takes a fast path. Thread-safe.
std::string fold(std::string_view text);

// Appends the folded form of `text` to `out`, for building keys without
// temporary strings.
void foldInto(std::string& out, std::string_view text);

} // namespace kinbook
