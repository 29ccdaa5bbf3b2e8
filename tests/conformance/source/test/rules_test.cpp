// Each rule, on a source that keeps it and on one that breaks it.

#include "tests/conformance/source/test/rule_test.h"

#include "tests/conformance/source/rules/comments.h"
#include "tests/conformance/source/rules/driver.h"
#include "tests/conformance/source/rules/sizes.h"
#include "tests/conformance/source/rules/tests.h"
#include "tests/conformance/source/rules/user_mode.h"
#include "tests/conformance/source/rules/words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
using namespace source;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Exceptions, CoverWhatTheyNameAndAreNeeded)
{
    const Findings findings = {{"a.cpp", 3, "F is long"}, {"b.cpp", 4, "G is long"}};
    EXPECT_EQ(Judge(findings, {}), "a.cpp:3: F is long\nb.cpp:4: G is long\n");
    EXPECT_EQ(Judge(findings, {{"a.cpp", "F ", "why"}}), "b.cpp:4: G is long\n");
    EXPECT_EQ(Judge(findings, {{"a.cpp", "", "why"}, {"b.cpp", "G ", "why"}}), "");
    EXPECT_EQ(Judge({}, {{"a.cpp", "F ", "why"}}), "a.cpp: F : the exception is not needed\n");
    EXPECT_EQ(Judge({findings[0]}, {{"a.cpp", "F ", ""}}), "a.cpp: F : the exception gives no reason\n");
    EXPECT_EQ(
        Judge({findings[0]}, {{"b.cpp", "F ", "why"}}), "a.cpp:3: F is long\nb.cpp: F : the exception is not needed\n");
}

TEST(LongFiles, AreThoseOverTheLimit)
{
    EXPECT_THAT(FindLongFile("a.cpp", 400), IsEmpty());
    EXPECT_EQ(Judge(FindLongFile("a.cpp", 401)), "a.cpp:401: the file has 401 lines\n");
}

TEST(LongFiles, MayBeDocuments)
{
    const std::string lines(401, '\n');
    Tree tree;
    tree.Sources.push_back(ReadSource("a.cpp", lines));
    tree.Texts = {{"b.sh", lines}, {"docs/c.txt.in", lines}, {"d.md", lines}, {"NOTICE", lines}};
    EXPECT_EQ(Judge(FindLongFiles(tree)), "a.cpp:401: the file has 401 lines\nb.sh:401: the file has 401 lines\n");
}

TEST(LongRoutines, CountFromTheHeadToTheBrace)
{
    const auto routine = [](int lines)
    { return "\nint\nF()\n{" + std::string(static_cast<size_t>(lines) - 3, '\n') + "}\n"; };
    EXPECT_THAT(Found(FindLongRoutines, routine(60)), IsEmpty());
    EXPECT_THAT(Found(FindLongRoutines, routine(61)), ElementsAre("2: F has 61 lines"));
    EXPECT_THAT(Found(FindLongRoutines, "class C {" + routine(61) + "};"), ElementsAre("2: F has 61 lines"));
}

TEST(Conditions, AreFoundWhateverTheyAskFor)
{
    EXPECT_THAT(Found(FindConditions, "#pragma once\n#include <a.h>\n#define B 1\n// #ifdef C\n"), IsEmpty());
    EXPECT_THAT(Found(FindConditions, "#ifdef _WIN32\n#else\n#endif\n# if defined(A)\n#endif\n"),
        ElementsAre("1: #ifdef _WIN32 chooses what is compiled", "2: #else  chooses what is compiled",
            "4: #if defined(A) chooses what is compiled"));
}

TEST(BareLocks, AreFound)
{
    EXPECT_THAT(Found(FindBareLocks, "FltReleaseContext(c); ExInitializeFastMutex(&m); // ExAcquireFastMutex(&m)\n"
                                     "ObReferenceObject(x); FltReleaseFileNameInformation(n);"),
        IsEmpty());
    EXPECT_THAT(
        Found(FindBareLocks, "ExAcquireFastMutex(&m);\nKeReleaseSpinLock(&s, i);\nExTryToAcquireFastMutex(&m);\n"
                             "auto take = &ExAcquireResourceExclusiveLite;\n"),
        ElementsAre("1: ExAcquireFastMutex takes or gives back a lock by hand",
            "2: KeReleaseSpinLock takes or gives back a lock by hand",
            "3: ExTryToAcquireFastMutex takes or gives back a lock by hand",
            "4: ExAcquireResourceExclusiveLite takes or gives back a lock by hand"));
}

TEST(WrongLocks, AreThoseThatTheBodyDoesNotRequire)
{
    EXPECT_THAT(
        Found(FindWrongLocks, "void WithLock(FastLock& lock, Body&& body);\n"
                              "WithLock(list->Lock, [&, list]() REQUIRES_LOCK( list->Lock ) { F(a, b); });\n"
                              "WithLockBelowDispatch(Of(a, b).Lock,\n    []() REQUIRES_LOCK(Of(a, b).Lock) {});\n"),
        IsEmpty());
    EXPECT_THAT(Found(FindWrongLocks, "WithLock(one.Lock, [&]() REQUIRES_LOCK(other.Lock) {});\n"
                                      "WithLock(one.Lock, [&] { G([]() REQUIRES_LOCK(one.Lock) {}); });\n"
                                      "WithLock(one.Lock, body);\n"
                                      "WithLockBelowDispatch(list->Lock, []() REQUIRES_LOCK(Lock) {});\n"),
        ElementsAre("1: one.Lock is held where the body requires other.Lock",
            "2: one.Lock is held for a body without REQUIRES_LOCK",
            "3: one.Lock is held for a body without REQUIRES_LOCK",
            "4: list->Lock is held where the body requires Lock"));
}

TEST(UncheckedLocks, AreThoseOfTheStandardLibraryAndPosix)
{
    EXPECT_THAT(
        Found(FindUncheckedLocks, "#include <mutex>\ncommon::Mutex mutex; // std::mutex\nstd::call_once(f, g);\n"
                                  "Guard guard(mutex); std::latch latch(1);"),
        IsEmpty());
    EXPECT_THAT(Found(FindUncheckedLocks, "std::mutex a;\nstd::lock_guard guard(a);\nstd::condition_variable b;\n"
                                          "pthread_mutex_lock(&c);\n"),
        ElementsAre("1: mutex is a lock that the compiler does not check",
            "2: lock_guard is a lock that the compiler does not check",
            "3: condition_variable is a lock that the compiler does not check",
            "4: pthread_mutex_lock is a lock that the compiler does not check"));
}

TEST(Sleeps, AreFound)
{
    EXPECT_THAT(
        Found(FindSleeps, "WaitForEvent(&event, 1000); // sleep(1)\nconst bool sleep = true; Run(\"sleep(1)\");"),
        IsEmpty());
    EXPECT_THAT(Found(FindSleeps, "std::this_thread::sleep_for(50ms);\nusleep(5);\n::Sleep(3);\n"),
        ElementsAre("1: sleep_for waits for time to pass", "2: usleep waits for time to pass",
            "3: Sleep waits for time to pass"));
}

std::string EmptyTests(const std::vector<std::pair<std::string, std::string>>& files)
{
    std::vector<SourceText> sources;
    for (const auto& [path, text] : files)
    {
        sources.push_back(ReadSource(path, text));
    }
    return Judge(FindEmptyTests(sources));
}

TEST(EmptyTests, ExpectNothingThemselves)
{
    EXPECT_EQ(
        EmptyTests({{"tests/a.cpp", "TEST(A, B) { EXPECT_EQ(F(), 1); } TEST_F(A, C) { if (x) { FAIL(); } }"}}), "");
    EXPECT_EQ(EmptyTests({{"tests/a.cpp", "TEST(A, B)\n{\n    F(); // EXPECT_EQ(1, 1)\n}\nTEST_P(A, C) {}\n"}}),
        "tests/a.cpp:1: A.B expects nothing\ntests/a.cpp:5: A.C expects nothing\n");
}

TEST(EmptyTests, MayUseRoutinesThatExpectSomething)
{
    EXPECT_EQ(EmptyTests({{"tests/a.cpp", "#include \"tests/a.h\"\nvoid G() { Check(); }\nTEST(A, B) { G(); }"},
                  {"tests/a.h", "#include \"tests/b.h\"\n"}, {"tests/b.h", "void Check();\n"},
                  {"tests/b.cpp", "void Check() { ASSERT_TRUE(x); }"}}),
        "");
}

TEST(EmptyTests, UseNoRoutinesOutOfTheirReach)
{
    EXPECT_EQ(
        EmptyTests({{"tests/a.cpp", "TEST(A, B) { Check(); }"}, {"tests/b.h", "void Check() { ASSERT_TRUE(x); }"}}),
        "tests/a.cpp:1: A.B expects nothing\n");
    EXPECT_EQ(EmptyTests({{"tests/a.cpp",
                  "void Check() { x(); } TEST(A, C) { EXPECT_EQ(TEST, 1); }\nTEST(A, B) { Check(); }"}}),
        "tests/a.cpp:2: A.B expects nothing\n");
}

TEST(SilentRoutines, AreThoseThatNoCommentSpeaksOf)
{
    EXPECT_THAT(Found(FindSilentRoutines, "// Says.\nint F();\nint G(\n    int a);\nint H(); // says\n"
                                          "/* Says. */\nint I();\nclass A\n{\npublic:\n    A();\n    ~A();\n"
                                          "    bool operator==(const A&) const;\n    int Get() const { return 1; }\n"
                                          "    void Run() override;\n    void lock();\n\nprivate:\n    int J();\n};\n"),
        IsEmpty());
    EXPECT_THAT(Found(FindSilentRoutines,
                    "// The whole.\n#pragma once\nint F();\n\n// Says.\nint G();\n\nint H();\n"
                    "// About the class.\nstruct A\n{\n    int I()\n    {\n        return 1;\n    }\n};\n"),
        ElementsAre("3: F has no comment", "8: H has no comment", "12: I has no comment"));
}

TEST(Words, AreFoundAloneAndInNames)
{
    EXPECT_THAT(FindWord("a", "warmth marmot armature Alarm alarmed disarm ARMOR", "arm"), IsEmpty());
    EXPECT_EQ(Judge(FindWord("a", "an arm\nArm::ArmLength\nleftArm my_arm, ARM_", "arm")),
        "a:1: arm is used as a word\na:2: arm is used as a word\na:2: arm is used as a word\n"
        "a:3: arm is used as a word\na:3: arm is used as a word\na:3: arm is used as a word\n");
}
}
