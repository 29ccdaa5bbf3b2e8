#include "hosted/fs/folder/folder_tree.h"

#include "hosted/fs/folder/folder_volume.h"

namespace hosted
{
FolderEntry::~FolderEntry()
{
    if (Parent != nullptr && !Gone)
    {
        Parent->Children.erase(Name);
    }
}

WideString FolderEntry::Path() const
{
    if (IsRoot())
    {
        return L"\\";
    }
    WideString path = Parent->Path();
    path += path.size() > 1 ? L"\\" : L"";
    return path + Name;
}

std::string FolderEntry::LinuxPath() const
{
    if (IsRoot())
    {
        return {};
    }
    const std::string above = Parent->LinuxPath();
    return above.empty() ? NameToLinux(Name) : above + "/" + NameToLinux(Name);
}

void FolderEntry::Detach()
{
    if (!Gone && !IsRoot())
    {
        Parent->Children.erase(Name);
        Gone = true;
    }
}

void FolderEntry::Move(std::shared_ptr<FolderEntry> parent, WideView name)
{
    Parent->Children.erase(Name);
    Parent = std::move(parent);
    Name = name;
    Parent->Children[Name] = this;
}

bool FolderEntry::InUse() const
{
    if (Handles != 0)
    {
        return true;
    }
    for (auto& [name, child] : Children)
    {
        if (child->InUse())
        {
            return true;
        }
    }
    return false;
}

FolderEntry* FolderEntry::FindChild(WideView name) const
{
    auto found = Children.find(WideString(name));
    return found == Children.end() ? nullptr : found->second;
}

std::shared_ptr<FolderEntry> FolderEntry::Child(WideView name)
{
    if (FolderEntry* found = FindChild(name))
    {
        return found->shared_from_this();
    }
    auto child = std::make_shared<FolderEntry>(shared_from_this(), WideString(name));
    Children[child->Name] = child.get();
    return child;
}
}
