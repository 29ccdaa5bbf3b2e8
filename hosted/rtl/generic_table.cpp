// The ordered table of the run-time library: a splay tree over the caller's memory, with the order of insertion kept
// beside it. A look-up moves the node it found to the root, so every use needs the caller's lock, as on Windows.
#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"

#include <ntifs.h>

namespace hosted
{
namespace
{
struct TableNode
{
    RTL_SPLAY_LINKS Links;
    LIST_ENTRY Order;
    alignas(8) UCHAR Data[8];
};
constexpr ULONG NodeHeader = offsetof(TableNode, Data);
static_assert(NodeHeader == 40);

TableNode* NodeOf(RTL_SPLAY_LINKS* links)
{
    return CONTAINING_RECORD(links, TableNode, Links);
}

void RequireTable(PRTL_GENERIC_TABLE table, const char* routine)
{
    if (table == nullptr || table->CompareRoutine == nullptr || table->InsertOrderList.Flink == nullptr)
    {
        BugCheck("table-not-initialised", "%s: no generic table stands at %p", routine, static_cast<void*>(table));
    }
}

bool IsRoot(const RTL_SPLAY_LINKS* node)
{
    return node->Parent == node;
}

// The place that points down to the node: a child field of its parent; null for the root.
RTL_SPLAY_LINKS** SlotOf(RTL_SPLAY_LINKS* node)
{
    if (IsRoot(node))
    {
        return nullptr;
    }
    return node->Parent->LeftChild == node ? &node->Parent->LeftChild : &node->Parent->RightChild;
}

// Turns the edge between a node and its parent round.
void RotateUp(RTL_SPLAY_LINKS* node)
{
    RTL_SPLAY_LINKS* parent = node->Parent;
    RTL_SPLAY_LINKS** slot = SlotOf(parent);
    RTL_SPLAY_LINKS* grandparent = parent->Parent;
    bool left = parent->LeftChild == node;
    RTL_SPLAY_LINKS*& inner = left ? node->RightChild : node->LeftChild;
    (left ? parent->LeftChild : parent->RightChild) = inner;
    if (inner != nullptr)
    {
        inner->Parent = parent;
    }
    inner = parent;
    parent->Parent = node;
    if (slot == nullptr)
    {
        node->Parent = node;
        return;
    }
    *slot = node;
    node->Parent = grandparent;
}

RTL_SPLAY_LINKS* Splay(RTL_SPLAY_LINKS* node)
{
    while (!IsRoot(node))
    {
        RTL_SPLAY_LINKS* parent = node->Parent;
        if (!IsRoot(parent))
        {
            bool sameSide = (parent->LeftChild == node) == (parent->Parent->LeftChild == parent);
            RotateUp(sameSide ? parent : node);
        }
        RotateUp(node);
    }
    return node;
}

// Where the search for a record ends: the node equal to it, or the one below which it belongs.
TABLE_SEARCH_RESULT Search(PRTL_GENERIC_TABLE table, PVOID record, RTL_SPLAY_LINKS** found)
{
    RTL_SPLAY_LINKS* node = table->TableRoot;
    *found = node;
    TABLE_SEARCH_RESULT result = TableEmptyTree;
    while (node != nullptr)
    {
        *found = node;
        switch (table->CompareRoutine(table, record, NodeOf(node)->Data))
        {
        case GenericLessThan:
            result = TableInsertAsLeft;
            node = node->LeftChild;
            break;
        case GenericGreaterThan:
            result = TableInsertAsRight;
            node = node->RightChild;
            break;
        case GenericEqual:
            return TableFoundNode;
        default:
            BugCheck("table-compare", "a compare routine answered neither less, greater nor equal");
        }
    }
    return result;
}

void LinkNode(PRTL_GENERIC_TABLE table, TableNode* node, RTL_SPLAY_LINKS* parent, TABLE_SEARCH_RESULT where)
{
    node->Links = {where == TableEmptyTree ? &node->Links : parent, nullptr, nullptr};
    if (where != TableEmptyTree)
    {
        (where == TableInsertAsLeft ? parent->LeftChild : parent->RightChild) = &node->Links;
    }
    LIST_ENTRY* head = &table->InsertOrderList;
    node->Order = {head, head->Blink};
    head->Blink->Flink = &node->Order;
    head->Blink = &node->Order;
    ++table->NumberGenericTableElements;
    table->TableRoot = Splay(&node->Links);
}

// The tree without a node that is its root.
RTL_SPLAY_LINKS* WithoutRoot(RTL_SPLAY_LINKS* root)
{
    RTL_SPLAY_LINKS* left = root->LeftChild;
    RTL_SPLAY_LINKS* right = root->RightChild;
    if (right != nullptr)
    {
        right->Parent = right;
    }
    if (left == nullptr)
    {
        return right;
    }
    left->Parent = left;
    RTL_SPLAY_LINKS* largest = left;
    while (largest->RightChild != nullptr)
    {
        largest = largest->RightChild;
    }
    Splay(largest);
    largest->RightChild = right;
    if (right != nullptr)
    {
        right->Parent = largest;
    }
    return largest;
}

void UnlinkNode(PRTL_GENERIC_TABLE table, TableNode* node)
{
    table->TableRoot = WithoutRoot(Splay(&node->Links));
    node->Order.Blink->Flink = node->Order.Flink;
    node->Order.Flink->Blink = node->Order.Blink;
    --table->NumberGenericTableElements;
    // The remembered place in the order may have been this node or one behind it.
    table->WhichOrderedElement = 0;
    table->OrderedPointer = &table->InsertOrderList;
}
}
}

extern "C" void NTAPI RtlInitializeGenericTable(PRTL_GENERIC_TABLE Table, PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
    PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine, PRTL_GENERIC_FREE_ROUTINE FreeRoutine, PVOID TableContext)
{
    if (CompareRoutine == nullptr || AllocateRoutine == nullptr || FreeRoutine == nullptr)
    {
        hosted::BugCheck("null-pointer", "RtlInitializeGenericTable without all three routines");
    }
    Table->TableRoot = nullptr;
    Table->InsertOrderList = {&Table->InsertOrderList, &Table->InsertOrderList};
    Table->OrderedPointer = &Table->InsertOrderList;
    Table->WhichOrderedElement = 0;
    Table->NumberGenericTableElements = 0;
    Table->CompareRoutine = CompareRoutine;
    Table->AllocateRoutine = AllocateRoutine;
    Table->FreeRoutine = FreeRoutine;
    Table->TableContext = TableContext;
}

extern "C" PVOID NTAPI RtlInsertElementGenericTable(
    PRTL_GENERIC_TABLE Table, PVOID Buffer, ULONG BufferSize, PBOOLEAN NewElement)
{
    using namespace hosted;
    RequireTable(Table, "RtlInsertElementGenericTable");
    BOOLEAN ignored;
    BOOLEAN& isNew = NewElement != nullptr ? *NewElement : ignored;
    isNew = FALSE;
    if (InjectFailure("RtlInsertElementGenericTable"))
    {
        return nullptr;
    }
    RTL_SPLAY_LINKS* place;
    TABLE_SEARCH_RESULT where = Search(Table, Buffer, &place);
    if (where == TableFoundNode)
    {
        Table->TableRoot = Splay(place);
        return NodeOf(place)->Data;
    }
    auto* node = static_cast<TableNode*>(Table->AllocateRoutine(Table, NodeHeader + BufferSize));
    if (node == nullptr)
    {
        return nullptr;
    }
    // The node ends with the caller's record, which may be shorter than the structure's last field.
    UCHAR* data = reinterpret_cast<UCHAR*>(node) + NodeHeader;
    RtlCopyMemory(data, Buffer, BufferSize);
    LinkNode(Table, node, place, where);
    isNew = TRUE;
    return data;
}

extern "C" BOOLEAN NTAPI RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    using namespace hosted;
    RequireTable(Table, "RtlDeleteElementGenericTable");
    RTL_SPLAY_LINKS* place;
    if (Search(Table, Buffer, &place) != TableFoundNode)
    {
        return FALSE;
    }
    TableNode* node = NodeOf(place);
    UnlinkNode(Table, node);
    Table->FreeRoutine(Table, node);
    return TRUE;
}

extern "C" PVOID NTAPI RtlLookupElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    using namespace hosted;
    RequireTable(Table, "RtlLookupElementGenericTable");
    RTL_SPLAY_LINKS* place;
    TABLE_SEARCH_RESULT result = Search(Table, Buffer, &place);
    if (place != nullptr)
    {
        Table->TableRoot = Splay(place);
    }
    return result == TableFoundNode ? NodeOf(place)->Data : nullptr;
}

extern "C" PVOID NTAPI RtlGetElementGenericTable(PRTL_GENERIC_TABLE Table, ULONG I)
{
    using namespace hosted;
    RequireTable(Table, "RtlGetElementGenericTable");
    if (I >= Table->NumberGenericTableElements)
    {
        return nullptr;
    }
    // Elements count from 1 in the remembered place, whose 0 is the list's head.
    ULONG wanted = I + 1;
    LIST_ENTRY* entry = Table->OrderedPointer;
    ULONG at = Table->WhichOrderedElement;
    for (; at < wanted; ++at)
    {
        entry = entry->Flink;
    }
    for (; at > wanted; --at)
    {
        entry = entry->Blink;
    }
    Table->OrderedPointer = entry;
    Table->WhichOrderedElement = wanted;
    return CONTAINING_RECORD(entry, TableNode, Order)->Data;
}

extern "C" ULONG NTAPI RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table)
{
    hosted::RequireTable(Table, "RtlNumberGenericTableElements");
    return Table->NumberGenericTableElements;
}
