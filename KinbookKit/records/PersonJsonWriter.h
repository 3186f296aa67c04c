#pragma once

#include "KinbookKit/records/Person.h"

#include <string>
#include <string_view>

namespace kinbook {

// What a JSON writer does with bytes that are not valid UTF-8.
enum class InvalidUTF8 {
    copy,    // copied as they are; the caller checks the whole text once it is written
    replace, // each replaced by U+FFFD, so that the output is always valid JSON
};

// Appends `text` as a JSON string.
void appendJsonString(std::string& out, std::string_view text, InvalidUTF8 invalid);

// Appends the JSON object Person::toJSON() makes, written straight into
// `out` rather than through a JSON tree: at 100,000 people a tree costs
// several times the text in memory and most of the time. Every stored and
// derived field under its name, in the order PersonFields lists them; kinID
// and circle only when set.
void appendPersonJson(std::string& out, const Person& person, InvalidUTF8 invalid);

} // namespace kinbook
