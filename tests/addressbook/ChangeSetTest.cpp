#include "KinbookKit/addressbook/ChangeSet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kinbook {
namespace {

enum class Kind { add, update, remove };
struct Visit {
    Kind kind;
    std::string cardID;
};

struct Case {
    const char* name;
    std::vector<Visit> visits;
    std::set<std::string> changed;
    std::set<std::string> deleted;
};

TEST(ChangeSet, TheLastEventForACardWins) {
    const std::vector<Case> cases = {
        {"added then deleted", {{Kind::add, "A"}, {Kind::remove, "A"}}, {}, {"A"}},
        {"deleted then updated (id reused)", {{Kind::remove, "A"}, {Kind::update, "A"}}, {"A"}, {}},
        {"deleted then added", {{Kind::remove, "A"}, {Kind::add, "A"}}, {"A"}, {}},
        {"updated twice", {{Kind::update, "A"}, {Kind::update, "A"}}, {"A"}, {}},
        {"deleted, added, deleted", {{Kind::remove, "A"}, {Kind::add, "A"}, {Kind::remove, "A"}}, {}, {"A"}},
        {"cards do not disturb each other",
         {{Kind::add, "A"}, {Kind::remove, "B"}, {Kind::update, "C"}, {Kind::remove, "A"}},
         {"C"},
         {"A", "B"}},
    };
    for (const Case& test : cases) {
        ChangeSet changes;
        for (const Visit& visit : test.visits) {
            switch (visit.kind) {
            case Kind::add:
                changes.visitAdd(visit.cardID);
                break;
            case Kind::update:
                changes.visitUpdate(visit.cardID);
                break;
            case Kind::remove:
                changes.visitDelete(visit.cardID);
                break;
            }
        }
        EXPECT_EQ(changes.changed(), test.changed) << test.name;
        EXPECT_EQ(changes.deleted(), test.deleted) << test.name;
        EXPECT_FALSE(changes.dropEverything()) << test.name;
    }
}

TEST(ChangeSet, DropEverythingIsKeptAmongOtherEvents) {
    ChangeSet changes;
    changes.visitAdd("A");
    changes.visitDropEverything();
    changes.visitDelete("B");
    EXPECT_TRUE(changes.dropEverything());
}

} // namespace
} // namespace kinbook
