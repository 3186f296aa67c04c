#pragma once

#include "tests/support/TempFolder.h"

#include <filesystem>
#include <string>
#include <vector>

namespace kinbook::testing {

// One vCard 3.0 file's text: the names, any further lines, and the UID.
inline std::string vcard(const std::string& uid, const std::string& given, const std::string& family,
                         const std::vector<std::string>& lines = {}) {
    std::string text = "BEGIN:VCARD\r\nVERSION:3.0\r\n";
    text += "N:" + family + ";" + given + ";;;\r\n";
    text += "FN:" + given + (given.empty() || family.empty() ? "" : " ") + family + "\r\n";
    for (const auto& line : lines) {
        text += line + "\r\n";
    }
    text += "UID:" + uid + "\r\nEND:VCARD\r\n";
    return text;
}

// A small vdir address book: accounts "home" (On My Computer) and "work"
// (Work). Five people fill the closest circle.
//
//   A  Ada Abbott (closest, Acme, a work and a former e-mail), Al Avery
//   B  Bo Brown (closest)          C  Cy Cole (closest)
//   D  Dot Drake, Di Dunn (both closest)
//   E  Ed Evans (no circle)        S  Ann Smith, Sam Smith (Annex Labs)
//   W  Wu Wang (in "work")
inline void writeSmallAddressBook(const std::filesystem::path& root) {
    namespace fs = std::filesystem;
    fs::create_directories(root / "home");
    fs::create_directories(root / "work");
    writeFile(root / "home" / "displayname", "On My Computer\n");
    writeFile(root / "work" / "displayname", "Work\n");
    auto closest = [](const std::string& kinID) { return "URL:kinbook://c/" + kinID + "?r=1"; };
    const std::vector<std::pair<std::string, std::string>> home = {
        {"ADA", vcard("ADA", "Ada", "Abbott",
                      {"ORG:Acme;", "TEL;type=CELL:+1 212 555 0101", "EMAIL;type=WORK:ada@acme.test",
                       "item1.EMAIL:ada@old.test", "item1.X-ABLabel:ex-work", closest("A0000001")})},
        {"AL", vcard("AL", "Al", "Avery")},
        {"BO", vcard("BO", "Bo", "Brown", {closest("A0000002")})},
        {"CY", vcard("CY", "Cy", "Cole", {closest("A0000003")})},
        {"DI", vcard("DI", "Di", "Dunn", {closest("A0000004")})},
        {"DOT", vcard("DOT", "Dot", "Drake", {closest("A0000005")})},
        {"ED", vcard("ED", "Ed", "Evans", {"TEL;type=HOME:+1 415 555 0199"})},
        {"ANN", vcard("ANN", "Ann", "Smith")},
        {"SAM", vcard("SAM", "Sam", "Smith", {"ORG:Annex Labs;"})},
    };
    for (const auto& [uid, text] : home) {
        writeFile(root / "home" / (uid + ".vcf"), text);
    }
    writeFile(root / "work" / "WU.vcf", vcard("WU", "Wu", "Wang", {"EMAIL;type=WORK:wu@work.test"}));
}

} // namespace kinbook::testing
