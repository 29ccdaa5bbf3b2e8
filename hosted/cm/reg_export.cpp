#include "hosted/cm/reg_text.h"
#include "hosted/cm/registry_key.h"

#include <cstdio>
#include <cstring>

namespace hosted
{
namespace
{
constexpr size_t LineLength = 76;

std::string Quoted(WideView text)
{
    std::string result = "\"";
    for (char character : Narrow(text))
    {
        if (character == '"' || character == '\\')
        {
            result += '\\';
        }
        result += character;
    }
    return result + '"';
}

// The text of a terminated string that reads back the same when it is written between quotes.
bool AsPlainText(const RegistryValue& value, WideString* text)
{
    size_t units = value.Bytes.size() / sizeof(WCHAR);
    if (value.Type != REG_SZ || value.Bytes.size() % sizeof(WCHAR) != 0 || units == 0)
    {
        return false;
    }
    text->resize(units);
    memcpy(text->data(), value.Bytes.data(), value.Bytes.size());
    if (text->back() != 0)
    {
        return false;
    }
    text->pop_back();
    for (size_t i = 0; i < text->size(); ++i)
    {
        unsigned unit = static_cast<USHORT>((*text)[i]);
        bool high = unit >= 0xD800 && unit < 0xDC00;
        bool paired = high && i + 1 < text->size() && ((*text)[i + 1] & 0xFC00) == 0xDC00;
        if (unit < 0x20 || (unit >= 0xD800 && unit < 0xE000 && !paired))
        {
            return false;
        }
        i += paired ? 1 : 0;
    }
    return true;
}

std::string HexData(const std::string& before, const RegistryValue& value)
{
    char text[24];
    std::string result = "hex";
    if (value.Type != REG_BINARY)
    {
        snprintf(text, sizeof(text), "(%x)", value.Type);
        result += text;
    }
    result += ":";
    size_t column = before.size() + result.size();
    for (size_t i = 0; i < value.Bytes.size(); ++i)
    {
        bool last = i + 1 == value.Bytes.size();
        snprintf(text, sizeof(text), last ? "%02x" : "%02x,", value.Bytes[i]);
        result += text;
        column += 3;
        if (column > LineLength && !last)
        {
            result += "\\\r\n  ";
            column = 2;
        }
    }
    return result;
}

void ExportValue(std::string& out, WideView name, const RegistryValue& value)
{
    std::string line = name.empty() ? "@=" : Quoted(name) + "=";
    WideString text;
    if (AsPlainText(value, &text))
    {
        line += Quoted(text);
    }
    else if (value.Type == REG_DWORD && value.Bytes.size() == sizeof(ULONG))
    {
        ULONG number;
        memcpy(&number, value.Bytes.data(), sizeof(number));
        char digits[24];
        snprintf(digits, sizeof(digits), "dword:%08x", number);
        line += digits;
    }
    else
    {
        line += HexData(line, value);
    }
    out += line + "\r\n";
}

void ExportKey(std::string& out, const WideString& path, const RegistryKey& key)
{
    out += "\r\n[" + Narrow(ToPredefinedKey(path)) + "]\r\n";
    for (const auto& [name, value] : key.Values)
    {
        ExportValue(out, name, value);
    }
    for (const auto& [name, subkey] : key.Subkeys)
    {
        ExportKey(out, path + L'\\' + name, *subkey);
    }
}
}

std::string Registry::ExportReg(WideView key) const
{
    std::string text = std::string(RegHeader) + "\r\n";
    std::shared_ptr<RegistryKey> found = FindKey(nullptr, key);
    if (found != nullptr)
    {
        common::Guard lock(lock_);
        ExportKey(text, WideString(key), *found);
    }
    return text;
}
}
