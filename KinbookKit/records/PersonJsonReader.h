#pragma once

#include "KinbookKit/records/Person.h"

#include <string>

namespace kinbook {

// Reads the JSON string whose text starts at `at`, just past its opening
// quote, into `out`, undoing its escapes. Returns where the text goes on
// after the closing quote, or null for a string JSON does not allow: a raw
// control character, a bad escape, a lone half of a surrogate pair.
//
// The text must end in a NUL followed by at least 32 more readable bytes, as
// the padding behind a file read for parsing is: an unclosed string stops
// there instead of running off the end, and the bytes are scanned sixteen at
// a time. Whether they are valid UTF-8 is the caller's to check.
const char* readJsonString(const char* at, std::string& out);

// Reads one person at `at` exactly as appendPersonJson writes it: every key
// in its order, kinID and circle only where they belong, no blanks, the
// derived keys included. Returns where the text goes on after the closing
// brace, or null for anything else, which a general JSON reader must then
// judge. This is the snapshot cache's fast path: at 100,000 people, reading
// its own layout by hand is several times faster than walking it as JSON.
//
// The text must end as readJsonString asks, and the caller checks UTF-8. On success `person` holds
// the stored fields and adopts the derived keys as written; on failure it is
// left in an unspecified state.
const char* readWrittenPerson(const char* at, Person& person);

} // namespace kinbook
