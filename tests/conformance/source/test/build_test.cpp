// The checks of the build's record and of the format, on made-up ones.

#include "tests/conformance/source/rules/build.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

namespace
{
using namespace source;

std::string Entry(const std::string& options, const std::string& file)
{
    return "{\n  \"directory\": \"/b\",\n  \"command\": \"clang++ " + options + " -o a.o -c " + file +
           "\",\n  \"file\": \"" + file + "\",\n  \"output\": \"a.o\"\n}";
}

TEST(Frames, AreLimitedWhereverTheSourceIsCompiled)
{
    const std::string limited = Entry("-Werror -O2 -Wframe-larger-than=1024", "/t/driver/a.cpp");
    const std::string other = Entry("-O2", "/t/driver/b.cpp");
    EXPECT_EQ(Judge(FindUnlimitedFrames("[\n" + limited + ",\n" + other + "\n]\n", {"driver/a.cpp"})), "");
    EXPECT_EQ(Judge(FindUnlimitedFrames("[\n" + limited + ",\n" + other + "\n]\n", {"driver/b.cpp", "driver/c.cpp"})),
        "driver/b.cpp:1: is compiled without a limit for its frames\ndriver/c.cpp:1: is not compiled\n");
    EXPECT_EQ(
        Judge(FindUnlimitedFrames(
            "[\n" + limited + ",\n" + Entry("-Wframe-larger-than=1024", "/t/driver/a.cpp") + "]", {"driver/a.cpp"})),
        "driver/a.cpp:1: is compiled without a limit for its frames\n");
}

TEST(Format, IsThatOfTheTree)
{
    const TemporaryFolder tree;
    tree.Put(".clang-format", "BasedOnStyle: LLVM\n");
    tree.Put("kept.cpp", "int F();\n\nint G();\n");
    tree.Put("broken.cpp", "int F();\n\nint G( );\n");
    EXPECT_EQ(Judge(FindUnformatted(tree.Path(), {"kept.cpp"})), "");
    EXPECT_EQ(Judge(FindUnformatted(tree.Path(), {"kept.cpp", "broken.cpp"})),
        "broken.cpp:3: clang-format would write this otherwise\n");
}

TEST(Format, CannotBeKeptByWhatIsNotThere)
{
    const TemporaryFolder tree;
    EXPECT_THROW(FindUnformatted(tree.Path(), {"absent.cpp"}), std::runtime_error);
}
}
