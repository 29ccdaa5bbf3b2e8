// Owners of what early returns must give back: kernel handles and object references.
#pragma once

#include <ntifs.h>

class KernelHandle
{
public:
    KernelHandle() = default;
    KernelHandle(const KernelHandle&) = delete;
    KernelHandle& operator=(const KernelHandle&) = delete;
    ~KernelHandle()
    {
        if (handle_ != nullptr)
        {
            ZwClose(handle_);
        }
    }

    HANDLE Get() const { return handle_; }
    // For the routine that opens it; the owner must be empty.
    PHANDLE Address() { return &handle_; }

private:
    HANDLE handle_ = nullptr;
};

// A referenced process object, or none.
class ProcessReference
{
public:
    ProcessReference() = default;
    ProcessReference(const ProcessReference&) = delete;
    ProcessReference& operator=(const ProcessReference&) = delete;
    ~ProcessReference()
    {
        if (process_ != nullptr)
        {
            ObfDereferenceObject(process_);
        }
    }

    PEPROCESS Get() const { return process_; }
    PEPROCESS* Address() { return &process_; }

private:
    PEPROCESS process_ = nullptr;
};
