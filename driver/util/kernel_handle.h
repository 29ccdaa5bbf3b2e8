// Owners of what early returns must give back: kernel handles and object references.
#pragma once

#include <ntifs.h>

// A handle of the kernel's own table, or none. Closes it at PASSIVE_LEVEL.
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

// A referenced process object, or none. Gives the reference back at up to DISPATCH_LEVEL.
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
    // For the routine that references it; the owner must be empty.
    PEPROCESS* Address() { return &process_; }

private:
    PEPROCESS process_ = nullptr;
};
