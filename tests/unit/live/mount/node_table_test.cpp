#include "live/mount/node_table.h"

#include <gtest/gtest.h>

namespace
{
using live::NodeTable;

struct stat Inode(ino_t number)
{
    struct stat info = {};
    info.st_dev = 1;
    info.st_ino = number;
    return info;
}

class NodeTableTest : public testing::Test
{
protected:
    std::string PathOf(live::NodeId id) const { return hosted::Narrow(table.PathOf(id)); }

    NodeTable table{L"\\Device\\V"};
};

TEST_F(NodeTableTest, TheRootIsADirectoryNotTheVolume)
{
    EXPECT_EQ(PathOf(NodeTable::Root), "\\Device\\V\\");
    EXPECT_EQ(hosted::Narrow(table.PathOf(NodeTable::Root, L"a")), "\\Device\\V\\a");
}

TEST_F(NodeTableTest, AFileHasOneNumberWhateverItsNames)
{
    const live::NodeId folder = table.Enter(NodeTable::Root, L"folder", Inode(10));
    const live::NodeId file = table.Enter(folder, L"file", Inode(11));
    EXPECT_NE(folder, file);
    EXPECT_EQ(PathOf(file), "\\Device\\V\\folder\\file");
    EXPECT_EQ(table.Enter(NodeTable::Root, L"other", Inode(11)), file);
    EXPECT_EQ(PathOf(file), "\\Device\\V\\other");
    // The name that is left counts when the last one goes.
    table.Removed(NodeTable::Root, L"other");
    EXPECT_EQ(PathOf(file), "\\Device\\V\\folder\\file");
    table.Removed(folder, L"file");
    EXPECT_EQ(PathOf(file), "");
}

TEST_F(NodeTableTest, ANodeIsItsFileAndNoOther)
{
    const live::NodeId file = table.Enter(NodeTable::Root, L"file", Inode(11));
    EXPECT_TRUE(table.Is(file, Inode(11)));
    EXPECT_FALSE(table.Is(file, Inode(12)));
    EXPECT_TRUE(table.Is(NodeTable::Root, Inode(10))) << "has no name that could lead elsewhere";
    EXPECT_FALSE(table.Is(file + 1, Inode(11))) << "nobody knows it";
}

TEST_F(NodeTableTest, NamesAreCaseSensitive)
{
    EXPECT_NE(table.Enter(NodeTable::Root, L"a", Inode(1)), table.Enter(NodeTable::Root, L"A", Inode(2)));
}

TEST_F(NodeTableTest, ADirectoryTakesWhatIsBelowAlong)
{
    const live::NodeId folder = table.Enter(NodeTable::Root, L"folder", Inode(10));
    const live::NodeId file = table.Enter(folder, L"file", Inode(11));
    table.Moved(NodeTable::Root, L"folder", NodeTable::Root, L"moved");
    EXPECT_EQ(PathOf(file), "\\Device\\V\\moved\\file");
}

TEST_F(NodeTableTest, AMoveReplacesWhatWasThere)
{
    const live::NodeId replaced = table.Enter(NodeTable::Root, L"old", Inode(1));
    const live::NodeId moved = table.Enter(NodeTable::Root, L"new", Inode(2));
    table.Moved(NodeTable::Root, L"new", NodeTable::Root, L"old");
    EXPECT_EQ(PathOf(replaced), "");
    EXPECT_EQ(PathOf(moved), "\\Device\\V\\old");
}

TEST_F(NodeTableTest, AMoveOfWhatWasNeverLookedUpLeavesNothingBehind)
{
    const live::NodeId replaced = table.Enter(NodeTable::Root, L"old", Inode(1));
    table.Moved(NodeTable::Root, L"unknown", NodeTable::Root, L"old");
    EXPECT_EQ(PathOf(replaced), "");
}

TEST_F(NodeTableTest, TwoNamesChangePlaces)
{
    const live::NodeId first = table.Enter(NodeTable::Root, L"first", Inode(1));
    const live::NodeId second = table.Enter(NodeTable::Root, L"second", Inode(2));
    table.Exchanged(NodeTable::Root, L"first", NodeTable::Root, L"second");
    EXPECT_EQ(PathOf(first), "\\Device\\V\\second");
    EXPECT_EQ(PathOf(second), "\\Device\\V\\first");
}

TEST_F(NodeTableTest, ItTellsWhoseLastNameIsGone)
{
    const live::NodeId file = table.Enter(NodeTable::Root, L"a", Inode(1));
    const live::NodeId moved = table.Enter(NodeTable::Root, L"new", Inode(2));
    table.Enter(NodeTable::Root, L"b", Inode(1));
    EXPECT_EQ(table.Removed(NodeTable::Root, L"b"), NodeTable::Nobody) << "it has another";
    EXPECT_EQ(table.Removed(NodeTable::Root, L"unknown"), NodeTable::Nobody);
    EXPECT_EQ(table.Moved(NodeTable::Root, L"a", NodeTable::Root, L"c"), NodeTable::Nobody) << "nothing was there";
    EXPECT_EQ(table.Moved(NodeTable::Root, L"new", NodeTable::Root, L"c"), file);
    EXPECT_EQ(table.Removed(NodeTable::Root, L"c"), moved);
    // A name that was never looked up is one more.
    EXPECT_EQ(table.Enter(NodeTable::Root, L"d", Inode(1)), file);
    EXPECT_EQ(table.Removed(NodeTable::Root, L"d"), file);
}

TEST_F(NodeTableTest, WhatIsForgottenIsGone)
{
    const live::NodeId file = table.Enter(NodeTable::Root, L"a", Inode(1));
    table.Enter(NodeTable::Root, L"a", Inode(1));
    EXPECT_FALSE(table.Forget(file, 1));
    EXPECT_EQ(PathOf(file), "\\Device\\V\\a");
    EXPECT_TRUE(table.Forget(file, 1));
    EXPECT_FALSE(table.Forget(file, 1)) << "only once";
    EXPECT_EQ(PathOf(file), "");
    EXPECT_EQ(table.Count(), 1u);
    EXPECT_NE(table.Enter(NodeTable::Root, L"a", Inode(1)), file);
}

TEST_F(NodeTableTest, TheRootIsNeverForgotten)
{
    EXPECT_FALSE(table.Forget(NodeTable::Root, 1000));
    EXPECT_EQ(PathOf(NodeTable::Root), "\\Device\\V\\");
}
}
