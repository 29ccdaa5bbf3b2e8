// Programs that use files while everything else goes on.
#pragma once

#include "hosted/machine/machine.h"
#include "tests/stress/stress_run.h"

#include <algorithm>
#include <optional>

namespace stress_test
{
using namespace host;

// Reads and writes one file that nobody else has, by every road, and knows what must be in it. An open that is denied
// is tried again in the next round: whether the program is under the sandbox changes.
class FileWorker
{
public:
    FileWorker(Program program, WideView path, Random& random)
        : program_(std::move(program)), path_(path), random_(random)
    {
    }

    void Step()
    {
        if (!file_ && !Open())
        {
            return;
        }
        switch (random_.Below(16))
        {
        case 0:
            return Close();
        case 1:
            return Resize(random_.Below(model_.size() + 1));
        case 2:
            return Resize(std::min(MaximumBytes, model_.size() + random_.Below(9000)));
        case 3:
            EXPECT_EQ(file_->Flush(), STATUS_SUCCESS);
            return;
        case 4:
        case 5:
            return NonCachedWrite();
        case 6:
        case 7:
            return MappedWrite();
        case 8:
            return MappedRead();
        case 9:
        case 10:
        case 11:
            return CachedRead();
        default:
            return CachedWrite();
        }
    }

    bool WasOpen() const
    {
        return opens_ != 0;
    }
    // What the file must hold; nothing is open.
    const std::string& Content() const
    {
        return model_;
    }
    void Close()
    {
        view_.reset();
        direct_.reset();
        file_.reset();
    }

private:
    static constexpr size_t MaximumBytes = 40000;
    static constexpr size_t Sector = 512;

    bool Open()
    {
        ProgramFile file = program_.OpenOrCreate(path_);
        EXPECT_TRUE(file.Status() == STATUS_SUCCESS || file.Status() == STATUS_ACCESS_DENIED)
            << std::hex << file.Status();
        if (!file.IsOpen())
        {
            return false;
        }
        EXPECT_EQ(file.Size(), static_cast<LONGLONG>(model_.size()));
        view_.emplace(file.MapView());
        ProgramFile direct = program_.OpenNonCached(path_);
        if (direct.IsOpen())
        {
            direct_.emplace(std::move(direct));
        }
        file_.emplace(std::move(file));
        ++opens_;
        return true;
    }

    void Place(size_t offset, const std::string& bytes)
    {
        model_.resize(std::max(model_.size(), offset + bytes.size()), '\0');
        model_.replace(offset, bytes.size(), bytes);
    }

    void CachedWrite()
    {
        const size_t offset = random_.Below(std::min(MaximumBytes, model_.size() + 600));
        const std::string bytes = random_.Bytes(1 + random_.Below(std::min<size_t>(5000, MaximumBytes - offset)));
        EXPECT_EQ(file_->Write(bytes, static_cast<LONGLONG>(offset)), STATUS_SUCCESS);
        Place(offset, bytes);
    }

    void CachedRead()
    {
        const size_t offset = random_.Below(model_.size());
        const std::string bytes = file_->Read(static_cast<LONGLONG>(offset), 9000);
        EXPECT_TRUE(bytes == model_.substr(offset, 9000)) << Narrow(path_) << " at " << offset;
    }

    // Whole sectors that lie before the end of the file.
    void NonCachedWrite()
    {
        const size_t sectors = model_.size() / Sector;
        if (!direct_ || sectors == 0)
        {
            return;
        }
        const size_t first = random_.Below(sectors);
        const std::string bytes = random_.Bytes((1 + random_.Below(std::min<size_t>(sectors - first, 10))) * Sector);
        EXPECT_EQ(direct_->Write(bytes, static_cast<LONGLONG>(first * Sector)), STATUS_SUCCESS);
        Place(first * Sector, bytes);
    }

    void MappedWrite()
    {
        const size_t offset = random_.Below(model_.size());
        const std::string bytes = random_.Bytes(random_.Below(std::min<size_t>(model_.size() - offset, 6000)));
        if (!bytes.empty())
        {
            EXPECT_EQ(view_->Write(bytes, static_cast<LONGLONG>(offset)), STATUS_SUCCESS);
            Place(offset, bytes);
        }
    }

    void MappedRead()
    {
        const size_t offset = random_.Below(model_.size());
        const size_t length = std::min<size_t>(model_.size() - offset, 6000);
        if (length != 0)
        {
            EXPECT_TRUE(view_->Read(static_cast<LONGLONG>(offset), static_cast<ULONG>(length)) ==
                        model_.substr(offset, length))
                << Narrow(path_) << " at " << offset;
        }
    }

    void Resize(size_t size)
    {
        EXPECT_EQ(file_->SetEndOfFile(static_cast<LONGLONG>(size)), STATUS_SUCCESS);
        model_.resize(size, '\0');
    }

    Program program_;
    const WideString path_;
    Random& random_;
    std::string model_;
    std::optional<ProgramFile> file_;
    std::optional<ProgramFile> direct_;
    std::optional<MappedView> view_;
    unsigned opens_ = 0;
};
}
