#pragma once

#include "KinbookKit/people/Sections.h"
#include "KinbookKit/records/Person.h"
#include "KinbookKit/records/PersonJsonWriter.h"

#include <cstdio>
#include <span>
#include <string>
#include <string_view>

namespace kinbook::cli {

// The list as JSON, written straight to a stream rather than through a JSON
// tree: at 100,000 people a tree takes a gigabyte and most of the run. Each
// person is the object Person::toJSON() makes (every stored and derived
// field under its name; kinID and circle only when set), on a line of its
// own, so that the output also greps and streams well:
//
//     {"matchCount":2,"sections":[
//     {"letter":"A","people":[
//     {"id":"…","givenName":"Ann",…},
//     {"id":"…",…}]}]}
void writeSectionsJson(std::FILE* stream, std::span<const Section> sections, int matchCount);

} // namespace kinbook::cli
