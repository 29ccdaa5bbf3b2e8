// The same questions to the hosted kernel and to another implementation of the Windows kernel's interfaces: the answers
// must agree, but for what the list of differences explains.

#include "hosted/ldr/export_list.h"
#include "tests/conformance/platform/test/differences.h"
#include "tests/conformance/platform/test/not_asked.h"
#include "tests/conformance/platform/test/platforms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace
{
using platform::AnswerList;

struct Disagreement
{
    std::string Question;
    std::string Here;
    std::string There;
};

std::vector<Disagreement> Compare(const AnswerList& here, const AnswerList& there)
{
    std::set<std::string> questions;
    for (const AnswerList* list : {&here, &there})
    {
        for (const auto& [question, answer] : *list)
        {
            questions.insert(question);
        }
    }
    std::vector<Disagreement> found;
    const auto answerOf = [](const AnswerList& list, const std::string& question)
    {
        const auto entry = list.find(question);
        return entry == list.end() ? std::string("(none)") : entry->second;
    };
    for (const std::string& question : questions)
    {
        Disagreement pair = {question, answerOf(here, question), answerOf(there, question)};
        if (pair.Here != pair.There)
        {
            found.push_back(pair);
        }
    }
    return found;
}

class PlatformAnswers : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        try
        {
            hosted = platform::AskHosted();
            wine = platform::AskWine();
        }
        catch (const std::exception& reason)
        {
            problem = reason.what();
        }
    }
    // Every test fails, instead of being skipped, when the questions could not be asked.
    void SetUp() override { ASSERT_EQ(problem, ""); }

    static AnswerList hosted;
    static AnswerList wine;
    static std::string problem;
};

AnswerList PlatformAnswers::hosted;
AnswerList PlatformAnswers::wine;
std::string PlatformAnswers::problem;

TEST_F(PlatformAnswers, AreThoseOfWineButForTheKnownDifferences)
{
    const auto known = platform::KnownDifferences();
    std::vector<size_t> counts(known.size());
    for (const Disagreement& pair : Compare(hosted, wine))
    {
        size_t explained = 0;
        for (size_t index = 0; index < known.size(); ++index)
        {
            if (platform::IsLike(pair.Question, known[index].Questions) &&
                platform::IsLike(pair.Here, known[index].Here))
            {
                ++counts[index];
                ++explained;
            }
        }
        EXPECT_EQ(explained, 1u) << pair.Question << "\n  here: " << pair.Here << "\n  Wine: " << pair.There;
    }
    for (size_t index = 0; index < known.size(); ++index)
    {
        EXPECT_EQ(counts[index], known[index].Count) << known[index].Questions << " (" << known[index].Reason << ")";
    }
}

TEST(KnownDifferences, SayWhyAndWhatDecides)
{
    for (const platform::Difference& difference : platform::KnownDifferences())
    {
        EXPECT_NE(difference.Reason, "") << difference.Questions;
        EXPECT_NE(difference.Decides, "") << difference.Questions;
        EXPECT_NE(difference.Count, 0u) << difference.Questions;
    }
}

TEST(KnownDifferences, AreFoundByPatterns)
{
    EXPECT_TRUE(platform::IsLike("routine of 12: x", "routine * ??: *"));
    EXPECT_TRUE(platform::IsLike("ab", "a*b*"));
    EXPECT_TRUE(platform::IsLike("", "*"));
    EXPECT_FALSE(platform::IsLike("ab", "a"));
    EXPECT_FALSE(platform::IsLike("ab", "ab?"));
    EXPECT_FALSE(platform::IsLike("ba", "*b"));
}

TEST_F(PlatformAnswers, AreTheSameForTheImageInTheHostedKernel)
{
    for (const Disagreement& pair : Compare(hosted, platform::AskHostedByImage()))
    {
        ADD_FAILURE() << pair.Question << "\n  native: " << pair.Here << "\n  image: " << pair.There;
    }
}

TEST_F(PlatformAnswers, CoverEveryExportThatIsNotNamedAsLeftOut)
{
    std::set<std::string> asked;
    for (const auto& [question, answer] : hosted)
    {
        asked.insert(question.substr(0, question.find(' ')));
    }
    std::set<std::string> leftOut;
    for (const auto& [routine, reason] : platform::RoutinesNotAsked())
    {
        EXPECT_TRUE(leftOut.emplace(routine).second) << routine;
        EXPECT_NE(reason, "") << routine;
    }
    size_t count;
    const hosted::ExportedRoutine* routines = hosted::ExportedRoutines(&count);
    for (size_t index = 0; index < count; ++index)
    {
        const std::string name = routines[index].Name;
        EXPECT_NE(asked.contains(name), leftOut.contains(name)) << name;
        leftOut.erase(name);
    }
    EXPECT_THAT(leftOut, testing::IsEmpty());
}
}
