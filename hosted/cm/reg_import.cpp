#include "hosted/cm/reg_text.h"

#include "hosted/cm/registry_key.h"

#include <algorithm>

namespace hosted
{
namespace
{
// UTF-16 by its byte order mark, otherwise UTF-8 with or without one. Line ends become single line feeds.
WideString Decode(std::string_view text)
{
    WideString wide;
    bool little = text.starts_with("\xFF\xFE");
    bool big = text.starts_with("\xFE\xFF");
    if (little || big)
    {
        for (size_t i = 2; i + 1 < text.size(); i += 2)
        {
            unsigned low = static_cast<UCHAR>(text[little ? i : i + 1]);
            unsigned high = static_cast<UCHAR>(text[little ? i + 1 : i]);
            wide += static_cast<WCHAR>(high << 8 | low);
        }
    }
    else
    {
        wide = Widen(text.starts_with("\xEF\xBB\xBF") ? text.substr(3) : text);
    }
    WideString result;
    for (size_t i = 0; i < wide.size(); ++i)
    {
        if (wide[i] != L'\r' || i + 1 == wide.size() || wide[i + 1] != L'\n')
        {
            result += wide[i];
        }
    }
    return result;
}

int HexDigit(WCHAR character)
{
    if (character >= L'0' && character <= L'9')
    {
        return character - L'0';
    }
    WCHAR folded = static_cast<WCHAR>(character | 0x20);
    return folded >= L'a' && folded <= L'f' ? folded - L'a' + 10 : -1;
}

class RegParser
{
public:
    RegParser(WideView text, std::vector<RegStep>* steps) : text_(text), steps_(steps) {}

    bool Run()
    {
        if (!Accept(Widen(RegHeader)) || !EndLine())
        {
            return Fail("the header is missing");
        }
        while (position_ < text_.size())
        {
            if (!ParseLine())
            {
                return false;
            }
        }
        return true;
    }

    std::string Error() const
    {
        auto end = text_.begin() + static_cast<std::ptrdiff_t>(std::min(position_, text_.size()));
        auto line = std::count(text_.begin(), end, L'\n') + 1;
        return "line " + std::to_string(line) + ": " + reason_;
    }

private:
    bool ParseLine();
    bool ParseKey();
    bool ParseValue();
    bool ParseQuoted(WideString* text);
    bool ParseNumber(size_t mostDigits, ULONG* number);
    bool ParseHexBytes(std::vector<UCHAR>* bytes);
    bool ParseData(RegistryValue* value);

    WCHAR Peek() const { return position_ < text_.size() ? text_[position_] : WCHAR{0}; }

    bool Accept(WideView expected)
    {
        if (!EqualNoCase(text_.substr(position_, expected.size()), expected))
        {
            return false;
        }
        position_ += expected.size();
        return true;
    }

    void SkipBlanks()
    {
        while (Peek() == L' ' || Peek() == L'\t')
        {
            ++position_;
        }
    }

    // Blanks and a comment may stand before the end of a line.
    bool EndLine()
    {
        SkipBlanks();
        if (Peek() == L';')
        {
            position_ = std::min(text_.find(L'\n', position_), text_.size());
        }
        return position_ == text_.size() || Accept(L"\n");
    }

    bool Fail(const char* reason)
    {
        reason_ = reason;
        return false;
    }

    const WideView text_;
    std::vector<RegStep>* const steps_;
    size_t position_ = 0;
    WideString key_;
    bool deletedKey_ = false;
    const char* reason_ = "";
};

bool RegParser::ParseLine()
{
    SkipBlanks();
    switch (Peek())
    {
    case L'[':
        return ParseKey();
    case L'"':
    case L'@':
        return ParseValue();
    default:
        return EndLine() || Fail("neither key nor value");
    }
}

bool RegParser::ParseKey()
{
    ++position_;
    deletedKey_ = Accept(L"-");
    // A key's name may hold brackets; the last one of the line ends it.
    size_t lineEnd = std::min(text_.find(L'\n', position_), text_.size());
    size_t bracket = text_.substr(0, lineEnd).rfind(L']');
    if (bracket == WideView::npos || bracket < position_)
    {
        return Fail("the key has no end");
    }
    key_ = FromPredefinedKey(text_.substr(position_, bracket - position_));
    position_ = bracket + 1;
    if (key_.empty() || key_[0] != L'\\' || !EqualNoCase(SplitKeyPath(key_).First, L"Registry"))
    {
        return Fail("the key has no known root");
    }
    steps_->push_back({deletedKey_ ? RegStep::Kind::DeleteKey : RegStep::Kind::CreateKey, key_, {}, {}});
    return EndLine() || Fail("text behind the key");
}

bool RegParser::ParseValue()
{
    if (key_.empty() || deletedKey_)
    {
        return Fail("a value without a key");
    }
    RegStep step = {RegStep::Kind::SetValue, key_, {}, {}};
    if (!Accept(L"@") && !ParseQuoted(&step.Name))
    {
        return false;
    }
    SkipBlanks();
    if (!Accept(L"="))
    {
        return Fail("an equals sign is missing");
    }
    SkipBlanks();
    if (Accept(L"-"))
    {
        step.What = RegStep::Kind::DeleteValue;
    }
    else if (!ParseData(&step.Value))
    {
        return false;
    }
    steps_->push_back(std::move(step));
    return EndLine() || Fail("text behind the value");
}

bool RegParser::ParseQuoted(WideString* text)
{
    ++position_;
    while (position_ < text_.size())
    {
        WCHAR character = text_[position_++];
        if (character == L'"')
        {
            return true;
        }
        if (character == L'\\')
        {
            character = Peek();
            ++position_;
        }
        *text += character;
    }
    return Fail("a string has no end");
}

bool RegParser::ParseNumber(size_t mostDigits, ULONG* number)
{
    size_t digits = 0;
    *number = 0;
    for (int digit; (digit = HexDigit(Peek())) >= 0; ++digits, ++position_)
    {
        *number = *number << 4 | static_cast<ULONG>(digit);
    }
    return digits > 0 && digits <= mostDigits;
}

bool RegParser::ParseHexBytes(std::vector<UCHAR>* bytes)
{
    SkipBlanks();
    if (HexDigit(Peek()) < 0 && Peek() != L'\\')
    {
        return true;
    }
    do
    {
        SkipBlanks();
        // A backslash at the end of a line goes on with the next one.
        while (Accept(L"\\"))
        {
            if (!EndLine())
            {
                return Fail("text behind a continued line");
            }
            SkipBlanks();
        }
        ULONG byte;
        if (!ParseNumber(2, &byte))
        {
            return Fail("a byte is not two hexadecimal digits");
        }
        bytes->push_back(static_cast<UCHAR>(byte));
        SkipBlanks();
    } while (Accept(L","));
    return true;
}

bool RegParser::ParseData(RegistryValue* value)
{
    ULONG number;
    if (Peek() == L'"')
    {
        WideString text;
        if (!ParseQuoted(&text))
        {
            return false;
        }
        const auto* bytes = reinterpret_cast<const UCHAR*>(text.c_str());
        *value = {REG_SZ, {bytes, bytes + (text.size() + 1) * sizeof(WCHAR)}};
        return true;
    }
    if (Accept(L"dword:"))
    {
        SkipBlanks();
        if (!ParseNumber(8, &number))
        {
            return Fail("a number is not up to eight hexadecimal digits");
        }
        const auto* bytes = reinterpret_cast<const UCHAR*>(&number);
        *value = {REG_DWORD, {bytes, bytes + sizeof(number)}};
        return true;
    }
    value->Type = REG_BINARY;
    if (Accept(L"hex("))
    {
        if (!ParseNumber(8, &value->Type) || !Accept(L")"))
        {
            return Fail("the type in brackets is no number");
        }
    }
    else if (!Accept(L"hex"))
    {
        return Fail("the value's form is unknown");
    }
    return Accept(L":") ? ParseHexBytes(&value->Bytes) : Fail("a colon is missing");
}
}

bool ParseRegText(std::string_view text, std::vector<RegStep>* steps, std::string* error)
{
    WideString decoded = Decode(text);
    RegParser parser(decoded, steps);
    bool understood = parser.Run();
    if (!understood && error != nullptr)
    {
        *error = parser.Error();
    }
    return understood;
}

bool Registry::ImportReg(std::string_view text, std::string* error)
{
    std::vector<RegStep> steps;
    if (!ParseRegText(text, &steps, error))
    {
        return false;
    }
    for (const RegStep& step : steps)
    {
        switch (step.What)
        {
        case RegStep::Kind::CreateKey:
            CreateKey(step.Key);
            break;
        case RegStep::Kind::DeleteKey:
            DeleteKey(step.Key);
            break;
        case RegStep::Kind::SetValue:
            SetValue(step.Key, step.Name, step.Value.Type, step.Value.Bytes);
            break;
        case RegStep::Kind::DeleteValue:
            DeleteValue(step.Key, step.Name);
            break;
        }
    }
    return true;
}
}
