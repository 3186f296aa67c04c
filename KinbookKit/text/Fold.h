#pragma once

#include <string>
#include <string_view>

namespace kinbook {

// Folds text for every search and sort key: case-insensitive and
// diacritic-insensitive, with no locale, so that the same text folds the same
// way on every machine. "Émile" and "EMILE" both fold to "emile", "Straße"
// to "strasse". Latin letters that are no base letter plus marks fold to the
// plain letters people type for them: "Łukasz" to "lukasz", "Jørgensen" to
// "jorgensen", "Æsa" to "aesa", "Þór" to "thor".
//
// Input is UTF-8. Bytes that are not valid UTF-8 are passed through unchanged
// so that a damaged card still sorts and searches the same way every time.
// Pure ASCII takes a fast path. Thread-safe.
std::string fold(std::string_view text);

// Changes whenever fold() comes to give another text for some input. Keys
// folded under another revision must be folded again, so the snapshot cache,
// which keeps folded keys, is filed under it.
inline constexpr int kFoldRevision = 2;

// Appends the folded form of `text` to `out`, for building keys without
// temporary strings.
void foldInto(std::string& out, std::string_view text);

} // namespace kinbook
