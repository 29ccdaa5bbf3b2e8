#include "agent/tarnctl/recover.h"

#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/piece_cipher.h"

#include <algorithm>
#include <vector>

namespace tarnctl
{
namespace
{
void RefuseSameFile(const InputFile& input, const Conversion& conversion)
{
    FileIdentity output;
    if (!FindFile(conversion.Output, &output))
    {
        return;
    }
    if (output == input.Identity())
    {
        throw Failure(ExitCode::WrongUse, conversion.Output + ": is the input itself");
    }
    if (output == OpenInput(conversion.KeyFile)->Identity())
    {
        throw Failure(ExitCode::WrongUse, conversion.Output + ": is the key file");
    }
}

// One conversion under way.
class Converter
{
public:
    Converter(const Conversion& conversion, InputFile& input, OutputFile& output, const Key& key)
        : conversion_(conversion), input_(input), output_(output),
          cipher_(key.Bytes().data(), key.Bytes().size(), key.Mask()), from_(PieceBytes), to_(PieceBytes)
    {
    }

    ConversionResult Run()
    {
        bool atEnd = false;
        while (!atEnd)
        {
            const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(PieceBytes, Left()));
            const std::size_t bytes = input_.Read({from_.data(), wanted});
            atEnd = bytes < wanted || wanted < PieceBytes;
            Put(bytes);
        }
        if (conversion_.Size && result_.Bytes < *conversion_.Size)
        {
            FillWithZeros();
        }
        return result_;
    }

private:
    std::uint64_t Left() const { return conversion_.Size ? *conversion_.Size - result_.Bytes : PieceBytes; }

    void Put(std::size_t bytes)
    {
        const bool cutShort = conversion_.Size && bytes < std::min<std::uint64_t>(PieceBytes, Left());
        if (cutShort && conversion_.Way == Direction::Conceal)
        {
            throw Failure(ExitCode::WrongUse, conversion_.Input + ": ends before the size that was named");
        }
        if (cutShort)
        {
            // The stream goes on behind these bytes, so a partial block among them is the beginning of a whole one,
            // of which the rest is lost.
            bytes -= bytes % BlockBytes;
        }
        if (conversion_.Way == Direction::Recover)
        {
            cipher_.Decipher(from_.data(), to_.data(), bytes);
        }
        else
        {
            cipher_.Encipher(from_.data(), to_.data(), bytes);
        }
        output_.Write({to_.data(), bytes});
        result_.Bytes += bytes;
    }

    void FillWithZeros()
    {
        result_.ZeroFrom = result_.Bytes;
        std::ranges::fill(to_, std::uint8_t{0});
        while (result_.Bytes < *conversion_.Size)
        {
            const std::size_t bytes = static_cast<std::size_t>(std::min<std::uint64_t>(PieceBytes, Left()));
            output_.Write({to_.data(), bytes});
            result_.Bytes += bytes;
        }
    }

    const Conversion& conversion_;
    InputFile& input_;
    OutputFile& output_;
    PieceCipher cipher_;
    std::vector<std::uint8_t> from_;
    std::vector<std::uint8_t> to_;
    ConversionResult result_;
};
}

ConversionResult Convert(const Conversion& conversion)
{
    Key key = KeyFromFile(conversion.KeyFile, conversion.Form);
    if (conversion.Mask)
    {
        key.SetMask(*conversion.Mask);
    }
    const std::unique_ptr<InputFile> input = OpenInput(conversion.Input);
    RefuseSameFile(*input, conversion);
    const std::unique_ptr<OutputFile> output = CreateOutput(conversion.Output);
    const ConversionResult result = Converter(conversion, *input, *output, key).Run();
    output->Finish();
    return result;
}
}
