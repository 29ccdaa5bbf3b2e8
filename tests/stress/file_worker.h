// Programs that use files while everything else goes on.
#pragma once

#include "hosted/machine/machine.h"
#include "tests/stress/stress_run.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <sstream>

namespace stress_test
{
using namespace hosted;

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
            Note("flush", 0, 0);
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

    bool WasOpen() const { return opens_ != 0; }
    // What the file must hold; nothing is open.
    const std::string& Content() const { return model_; }
    void Close()
    {
        Note("close", 0, 0);
        view_.reset();
        direct_.reset();
        file_.reset();
    }

private:
    static constexpr size_t MaximumBytes = 40000;
    static constexpr size_t NotedSteps = 40;
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
        Note(direct_ ? "open, also non-cached" : "open", 0, model_.size());
        return true;
    }

    // What was done last, for the message when something is wrong.
    void Note(const char* step, size_t offset, size_t bytes)
    {
        steps_.push_back(std::string(step) + " " + std::to_string(offset) + " " + std::to_string(bytes));
        if (steps_.size() > NotedSteps)
        {
            steps_.pop_front();
        }
    }

    std::string Difference(size_t offset, const std::string& bytes) const
    {
        std::ostringstream text;
        const std::string expected = model_.substr(offset, bytes.size());
        text << Narrow(path_) << " of " << model_.size() << " bytes, read at " << offset << ": " << bytes.size()
             << " bytes\n";
        const auto differs = [&](size_t i) { return i < expected.size() && bytes[i] != expected[i]; };
        for (size_t i = 0; i < expected.size(); ++i)
        {
            if (differs(i) && (i == 0 || !differs(i - 1)))
            {
                text << "  different from " << offset + i << ", where " << (bytes[i] == 0 ? "a zero" : "another byte")
                     << " is\n";
            }
            if (differs(i) && !differs(i + 1))
            {
                text << "  ... to " << offset + i << "\n";
            }
        }
        for (const std::string& step : steps_)
        {
            text << "  " << step << "\n";
        }
        return text.str();
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
        Note("write", offset, bytes.size());
        EXPECT_EQ(file_->Write(bytes, static_cast<LONGLONG>(offset)), STATUS_SUCCESS);
        Place(offset, bytes);
    }

    void CachedRead()
    {
        const size_t offset = random_.Below(model_.size());
        const std::string bytes = file_->Read(static_cast<LONGLONG>(offset), 9000);
        EXPECT_TRUE(bytes == model_.substr(offset, 9000)) << Difference(offset, bytes);
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
        Note("non-cached write", first * Sector, bytes.size());
        EXPECT_EQ(direct_->Write(bytes, static_cast<LONGLONG>(first * Sector)), STATUS_SUCCESS);
        Place(first * Sector, bytes);
    }

    void MappedWrite()
    {
        const size_t offset = random_.Below(model_.size());
        const std::string bytes = random_.Bytes(random_.Below(std::min<size_t>(model_.size() - offset, 6000)));
        if (!bytes.empty())
        {
            Note("mapped write", offset, bytes.size());
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
            const std::string bytes = view_->Read(static_cast<LONGLONG>(offset), static_cast<ULONG>(length));
            EXPECT_TRUE(bytes == model_.substr(offset, length)) << Difference(offset, bytes);
        }
    }

    void Resize(size_t size)
    {
        Note("resize", 0, size);
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
    std::deque<std::string> steps_;
};
}
