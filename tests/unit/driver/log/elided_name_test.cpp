// Names cut to the room there is.
#include "driver/log/elided_name.h"
#include "hosted/rtl/wide_string.h"

#include <gtest/gtest.h>

using namespace hosted;

namespace
{
struct Cut
{
    NTSTATUS Status;
    std::string Text;
};

Cut CutTo(USHORT room, WideView text)
{
    WideString buffer(room / sizeof(WCHAR) + 4, L'#');
    UNICODE_STRING destination = {0x7777, room, buffer.data()};
    const UNICODE_STRING source = Counted(text);
    const NTSTATUS status = CopyNameElided(&destination, &source);
    // Nothing behind the room is written.
    EXPECT_EQ(Narrow(WideView(buffer).substr(room / sizeof(WCHAR))), "####");
    return {status, Narrow(View(destination))};
}

// Every character tells its position.
WideString Counting(size_t characters)
{
    WideString text;
    for (size_t i = 0; i < characters; ++i)
    {
        text += static_cast<WCHAR>(0x100 + i);
    }
    return text;
}

TEST(ElidedNameTest, ARoomBelowSixteenBytesIsRefused)
{
    const Cut cut = CutTo(14, L"a");
    EXPECT_EQ(cut.Status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(cut.Text, "");
}

TEST(ElidedNameTest, ANameThatFitsIsCopiedWhole)
{
    EXPECT_EQ(CutTo(16, L"").Text, "");
    EXPECT_EQ(CutTo(16, L"abcdefgh").Text, "abcdefgh");
    EXPECT_EQ(CutTo(16, L"abcdefgh").Status, STATUS_SUCCESS);
}

TEST(ElidedNameTest, TheSmallestRoomKeepsTwoCharactersAtTheStartAndOneAtTheEnd)
{
    EXPECT_EQ(CutTo(16, L"abcdefghi").Text, "ab ... i");
    EXPECT_EQ(CutTo(16, L"abcdefghi").Status, STATUS_SUCCESS);
}

TEST(ElidedNameTest, AProcessNameKeepsThirteenCharactersAtEitherEnd)
{
    EXPECT_EQ(CutTo(62, Counting(31)).Text, Narrow(Counting(31)));
    const WideString name = Counting(32);
    EXPECT_EQ(CutTo(62, name).Text, Narrow(name.substr(0, 13) + L" ... " + name.substr(19)));
}

TEST(ElidedNameTest, AnOpensPathKeeps128CharactersAtTheStartAnd127AtTheEnd)
{
    const WideString path = Counting(1000);
    EXPECT_EQ(CutTo(520, path).Text, Narrow(path.substr(0, 128) + L" ... " + path.substr(873)));
    EXPECT_EQ(CutTo(520, Counting(260)).Text, Narrow(Counting(260)));
}
}
