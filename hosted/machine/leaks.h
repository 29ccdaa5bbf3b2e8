// What is alive at a moment, to tell what a run left behind.
#pragma once

#include <ntifs.h>

#include <string>

namespace hosted
{
struct Inventory
{
    size_t PoolAllocations = 0;
    std::string Objects;
    size_t KernelHandles = 0;
    std::string Mdls;
    std::string FilterObjects;
    size_t NotifyRoutines = 0;
    size_t Irps = 0;

    bool operator==(const Inventory&) const = default;
};

Inventory TakeInventory();
// One line per kind in which the present differs from `before`, pool with its tags and stacks; "" when nothing does.
std::string DescribeLeaks(const Inventory& before);
}
