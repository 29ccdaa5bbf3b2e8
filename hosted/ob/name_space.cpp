#include "hosted/ob/name_table.h"

#include <map>
#include <mutex>

namespace hosted
{
namespace
{
void DeleteLink(void* body)
{
    delete[] static_cast<SymbolicLink*>(body)->Target;
}
}

const ObjectType SymbolicLinkType = {"SymbolicLink", nullptr, DeleteLink};

namespace
{
constexpr int MostLinks = 32;
constexpr WideView LinkDirectory = L"\\??";

struct NameTable
{
    std::mutex Lock;
    std::map<WideString, void*, LessNoCase> Names;
};

NameTable& Table()
{
    static NameTable& table = *new NameTable;
    return table;
}

// The one spelling of the directory of links.
WideString Normalise(WideView path)
{
    for (WideView other : {WideView(L"\\DosDevices"), WideView(L"\\GLOBAL??")})
    {
        if (IsAtOrBelow(path, other))
        {
            return WideString(LinkDirectory).append(path.substr(other.size()));
        }
    }
    return WideString(path);
}

// What a name that leads nowhere fails with, whatever exists.
NTSTATUS CheckAbsolute(WideView path)
{
    if (path.empty() || path[0] != L'\\')
    {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    return path.size() > 1 ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

// A name that can be inserted: no empty component.
bool IsWholeName(WideView path)
{
    return path.back() != L'\\' && path.find(WideView(L"\\\\")) == WideView::npos;
}

NTSTATUS InsertBody(const WideString& name, void* body)
{
    const NTSTATUS status = CheckAbsolute(name);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    if (!IsWholeName(name))
    {
        return STATUS_OBJECT_NAME_INVALID;
    }
    NameTable& table = Table();
    std::lock_guard lock(table.Lock);
    if (!table.Names.try_emplace(name, body).second)
    {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    ReferenceObject(body);
    return STATUS_SUCCESS;
}

// Links and other objects are removed by different routines.
NTSTATUS RemoveBody(const WideString& name, bool link)
{
    void* body;
    {
        NameTable& table = Table();
        std::lock_guard lock(table.Lock);
        auto found = table.Names.find(name);
        if (found == table.Names.end())
        {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        body = found->second;
        if ((&TypeOf(body) == &SymbolicLinkType) != link)
        {
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        table.Names.erase(found);
    }
    DereferenceObject(body);
    return STATUS_SUCCESS;
}

// Whether the path is a directory: one of the fixed ones, or one that holds a name.
bool IsDirectory(const NameTable& table, WideView path)
{
    if (path.empty() || EqualNoCase(path, LinkDirectory) || EqualNoCase(path, L"\\Device"))
    {
        return true;
    }
    WideString below = WideString(path) + L'\\';
    auto after = table.Names.lower_bound(below);
    return after != table.Names.end() && IsAtOrBelow(after->first, path);
}

// Why a path without a named object in it was not found.
NTSTATUS MissingStatus(const NameTable& table, WideView path)
{
    if (IsDirectory(table, path))
    {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    WideView parent = path.substr(0, path.rfind(L'\\'));
    return IsDirectory(table, parent) ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
}

// The named object at the start of the path and the length of its name; null when there is none. Longest first.
void* FindPrefix(const NameTable& table, WideView path, size_t* length)
{
    for (*length = path.size(); *length != 0 && *length != WideView::npos; *length = path.rfind(L'\\', *length - 1))
    {
        auto found = table.Names.find(path.substr(0, *length));
        if (found != table.Names.end())
        {
            return found->second;
        }
    }
    return nullptr;
}

// The name with a link at its start, of that length, replaced by what the link leads to.
WideString Follow(const void* body, const WideString& name, size_t length)
{
    const auto* link = static_cast<const SymbolicLink*>(body);
    return Normalise(WideString(link->Target, link->TargetCharacters) + name.substr(length));
}
}

NTSTATUS InsertName(WideView path, void* body)
{
    return InsertBody(Normalise(path), body);
}

NTSTATUS RemoveName(WideView path)
{
    return RemoveBody(Normalise(path), false);
}

NTSTATUS InsertSymbolicLink(WideView link, WideView target)
{
    if (target.empty())
    {
        return STATUS_INVALID_PARAMETER;
    }
    auto* body = static_cast<SymbolicLink*>(CreateObject(SymbolicLinkType, sizeof(SymbolicLink)));
    body->Target = new WCHAR[target.size() + 1];
    body->TargetCharacters = target.size();
    WideTraits::copy(body->Target, target.data(), target.size());
    body->Target[target.size()] = 0;
    NTSTATUS status = InsertBody(Normalise(link), body);
    DereferenceObject(body);
    return status;
}

NTSTATUS RemoveSymbolicLink(WideView link)
{
    return RemoveBody(Normalise(link), true);
}

NTSTATUS ReferenceSymbolicLink(WideView path, SymbolicLink** link)
{
    *link = nullptr;
    const NTSTATUS status = CheckAbsolute(path);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    WideString name = Normalise(path);
    NameTable& table = Table();
    std::lock_guard lock(table.Lock);
    for (int links = 0; links <= MostLinks; ++links)
    {
        size_t length;
        void* found = FindPrefix(table, name, &length);
        if (found == nullptr)
        {
            return MissingStatus(table, name);
        }
        if (&TypeOf(found) != &SymbolicLinkType)
        {
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
        if (length == name.size())
        {
            ReferenceObject(found);
            *link = static_cast<SymbolicLink*>(found);
            return STATUS_SUCCESS;
        }
        name = Follow(found, name, length);
    }
    return STATUS_OBJECT_NAME_INVALID;
}

NTSTATUS ReadSymbolicLink(WideView link, WideString* target)
{
    SymbolicLink* body;
    NTSTATUS status = ReferenceSymbolicLink(link, &body);
    if (!NT_SUCCESS(status))
    {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    target->assign(body->Target, body->TargetCharacters);
    DereferenceObject(body);
    return STATUS_SUCCESS;
}

NTSTATUS LookupObject(WideView path, void** body, WideString* remainder)
{
    *body = nullptr;
    const NTSTATUS status = CheckAbsolute(path);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    WideString name = Normalise(path);
    NameTable& table = Table();
    std::lock_guard lock(table.Lock);
    for (int links = 0; links <= MostLinks; ++links)
    {
        size_t length;
        void* found = FindPrefix(table, name, &length);
        if (found == nullptr)
        {
            return MissingStatus(table, name);
        }
        if (&TypeOf(found) != &SymbolicLinkType)
        {
            ReferenceObject(found);
            *body = found;
            *remainder = name.substr(length);
            return STATUS_SUCCESS;
        }
        name = Follow(found, name, length);
    }
    // Links in a circle.
    return STATUS_OBJECT_NAME_INVALID;
}
}
