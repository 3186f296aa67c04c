#include "KinbookKit/records/PastJob.h"

#include <gtest/gtest.h>

namespace kinbook {
namespace {

TEST(PastJob, SummaryJoinsWhatIsPresent) {
    EXPECT_EQ((PastJob{"1", "Acme", "Engineer", "1999-2004"}.summary()), "Engineer, Acme \u00B7 1999-2004");
    EXPECT_EQ((PastJob{"1", "Acme", "", ""}.summary()), "Acme");
    EXPECT_EQ((PastJob{"1", "", "Engineer", "2001"}.summary()), "Engineer \u00B7 2001");
    EXPECT_EQ((PastJob{"1", "", "", "2001"}.summary()), " \u00B7 2001");
}

TEST(PastJob, OnlyCompanyOrTitleMakeAJob) {
    EXPECT_TRUE((PastJob{"1", "  ", " ", "1999-2004"}.isEmpty()));
    EXPECT_FALSE((PastJob{"1", "Acme", "", ""}.isEmpty()));
    EXPECT_FALSE((PastJob{"1", "", "Chef", ""}.isEmpty()));
}

TEST(PastJob, SearchTextSkipsEmptyJobsAndJoinsByLine) {
    const std::vector<PastJob> jobs = {PastJob::make("Acme", "Engineer"), PastJob::make("", "", "1990"),
                                       PastJob::make("Globex", "")};
    EXPECT_EQ(pastJobsSearchText(jobs), "Engineer, Acme\nGlobex");
    EXPECT_EQ(pastJobsSearchText({}), "");
}

TEST(PastJob, JobsFileRoundTripsAndRejectsOtherShapes) {
    const std::vector<PastJob> jobs = {PastJob::make("Acme", "Engineer", "1999-2004"),
                                       PastJob::make("Initech", "")};
    EXPECT_NE(jobs[0].id, jobs[1].id);
    EXPECT_EQ(jobs[0].id.size(), 36u);
    EXPECT_EQ(PastJob::decodeList(PastJob::encodeList(jobs)), jobs);
    EXPECT_EQ(PastJob::decodeList("[]"), std::vector<PastJob>{});
    for (const char* bad : {"", "{}", "[{\"id\": \"x\"}]", "[1]",
                            "[{\"id\":1,\"company\":\"\",\"title\":\"\",\"years\":\"\"}]"}) {
        EXPECT_EQ(PastJob::decodeList(bad), std::nullopt) << bad;
    }
}

} // namespace
} // namespace kinbook
