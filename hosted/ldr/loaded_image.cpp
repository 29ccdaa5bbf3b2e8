#include "hosted/ldr/loaded_image.h"

#include "hosted/ke/bug_check.h"
#include "hosted/ldr/export_list.h"
#include "hosted/ldr/image_faults.h"
#include "hosted/ldr/image_routines.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <strings.h>
#include <sys/mman.h>

namespace hosted
{
namespace
{
// More than anybody loads at once.
std::atomic<const LoadedImage*> loadedImages[4];

std::string ReadWhole(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
    {
        throw BadImage(file.string() + " cannot be read");
    }
    std::ostringstream bytes;
    bytes << stream.rdbuf();
    return bytes.str();
}

const ExportedRoutine& FindExport(const ImageImport& import)
{
    size_t count = 0;
    const ExportedRoutine* routines = ExportedRoutines(&count);
    const auto found = std::find_if(routines, routines + count, [&import](const ExportedRoutine& routine)
        { return strcasecmp(routine.Module, import.Module.c_str()) == 0 && routine.Name == import.Name; });
    if (found == routines + count)
    {
        throw BadImage("the import " + import.Name + " from " + import.Module + " is unknown here");
    }
    return *found;
}

void Register(const LoadedImage* image)
{
    for (auto& slot : loadedImages)
    {
        const LoadedImage* none = nullptr;
        if (slot.compare_exchange_strong(none, image))
        {
            return;
        }
    }
    BugCheck("too-many-images", "no room for another driver image");
}

void Unregister(const LoadedImage* image)
{
    for (auto& slot : loadedImages)
    {
        const LoadedImage* expected = image;
        slot.compare_exchange_strong(expected, nullptr);
    }
}
}

LoadedImage::LoadedImage(const std::filesystem::path& file)
{
    const std::string bytes = ReadWhole(file);
    layout_ = ReadImageLayout(bytes);
    void* memory = mmap(nullptr, layout_.Size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
    {
        throw BadImage("no memory for the image");
    }
    base_ = static_cast<UCHAR*>(memory);
    try
    {
        Place(bytes);
    }
    catch (...)
    {
        munmap(base_, layout_.Size);
        throw;
    }
    Protect();
    HandleImageFaults();
    Register(this);
}

LoadedImage::~LoadedImage()
{
    Unregister(this);
    munmap(base_, layout_.Size);
}

void LoadedImage::Place(const std::string& bytes)
{
    std::vector<std::uint8_t> memory = MapImage(bytes, layout_);
    RelocateImage(memory, layout_, reinterpret_cast<ULONGLONG>(base_));
    Bind(&memory);
    std::memcpy(base_, memory.data(), memory.size());
}

void LoadedImage::Bind(std::vector<std::uint8_t>* memory)
{
    for (const ImageImport& import : ReadImports(*memory, layout_))
    {
        const ExportedRoutine& routine = FindExport(import);
        void* address = routine.ImageOnly ? ImageRoutine(routine.Name) : routine.Address;
        if (!routine.Data && !IsHandlerRoutine(routine.Name))
        {
            address = callOuts_.Add(address);
        }
        std::memcpy(memory->data() + import.Slot, &address, sizeof(address));
    }
    callOuts_.Seal();
}

void LoadedImage::Protect() const
{
    mprotect(base_, layout_.Size, PROT_READ);
    for (const ImageSection& section : layout_.Sections)
    {
        const int protection = (section.Readable ? PROT_READ : 0) | (section.Writable ? PROT_WRITE : 0) |
                               (section.Executable ? PROT_EXEC : 0);
        if (mprotect(base_ + section.Address, ROUND_TO_PAGES(section.Size), protection) != 0)
        {
            BugCheck("image-protection", "section %s of an image cannot be protected", section.Name.c_str());
        }
    }
}

const LoadedImage* LoadedImage::At(ULONGLONG address)
{
    for (const auto& slot : loadedImages)
    {
        const LoadedImage* image = slot.load();
        if (image != nullptr && image->Contains(address))
        {
            return image;
        }
    }
    return nullptr;
}
}
