// A driver image in memory, ready to run: relocated, its imports bound to the hosted routines.
#pragma once

#include "hosted/ldr/call_out.h"
#include "hosted/ldr/pe_file.h"

#include <ntifs.h>

#include <filesystem>

namespace hosted
{
class LoadedImage
{
public:
    // Throws BadImage; nothing stays behind then.
    explicit LoadedImage(const std::filesystem::path& file);
    // Nothing may run in it any more.
    ~LoadedImage();
    LoadedImage(const LoadedImage&) = delete;
    LoadedImage& operator=(const LoadedImage&) = delete;

    DRIVER_INITIALIZE* Entry() const { return reinterpret_cast<DRIVER_INITIALIZE*>(base_ + layout_.Entry); }
    const UCHAR* Base() const { return base_; }
    bool Contains(ULONGLONG address) const { return address - reinterpret_cast<ULONGLONG>(base_) < layout_.Size; }
    const ImageLayout& Layout() const { return layout_; }

    // The image that an address lies in, or null. Safe in a signal handler.
    static const LoadedImage* At(ULONGLONG address);

private:
    void Place(const std::string& bytes);
    void Bind(std::vector<std::uint8_t>* memory);
    void Protect() const;

    ImageLayout layout_;
    UCHAR* base_ = nullptr;
    CallOutTable callOuts_;
};
}
