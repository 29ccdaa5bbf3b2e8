// The registry of a live volume, kept in a .reg file from one run to the next.
#pragma once

#include "hosted/cm/registry.h"

#include <condition_variable>
#include <thread>

namespace hosted
{
// Loads at the start. When the running system writes a value, the file is written anew soon after, on a thread of this
// object's own, with everything that the registry then holds: also what others than the file put there. A crash leaves
// the old file or the new one, whole. Nothing is written when nothing changed. Comments of the file do not survive.
class RegistryFile
{
public:
    // Called with a sentence when the file cannot be written, by any thread; it is tried again at the next change and
    // at the end.
    using Trouble = std::function<void(const std::string& text)>;

    // A file that is not there counts as empty and is made at the first write. Throws std::runtime_error that names
    // file and reason, and the line of a text that is not understood; the registry is then as it was.
    explicit RegistryFile(const std::string& path, Trouble trouble = {}, Registry& registry = SystemRegistry());
    // Writes what is not written yet.
    ~RegistryFile();
    RegistryFile(const RegistryFile&) = delete;
    RegistryFile& operator=(const RegistryFile&) = delete;

    // Whether the file was there.
    bool Existed() const { return existed_; }
    // Returns when every change from before the call was written, or could not be.
    void Flush();

private:
    void Changed();
    void WriteChanges();

    std::string path_; // without symbolic links
    const Trouble trouble_;
    Registry& registry_;
    bool existed_ = false;
    bool isUtf16_ = false;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::condition_variable written_;
    unsigned long long changes_ = 0; // guarded by mutex_
    unsigned long long tried_ = 0;   // the changes that a write took in; guarded by mutex_
    bool failed_ = false;            // the last write; guarded by mutex_
    bool ending_ = false;            // guarded by mutex_
    std::thread writer_;
};
}
