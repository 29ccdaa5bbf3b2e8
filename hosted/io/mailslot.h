// Mailslots: messages from any number of writers to the one program that reads them.
#pragma once

#include "hosted/rtl/wide_string.h"

#include <memory>
#include <optional>
#include <vector>

namespace hosted
{
// Puts "\Device\Mailslot" into the name space, with what serves it. Bug check when it is there already.
void StartMailslots();
// Takes it away. Mailslots that are still open then have no name any more.
void StopMailslots();

// The reading end of one mailslot. Its name leads to it as long as it is open; letters' case does not count.
// Thread-safe.
class MailslotReader
{
public:
    // A path below "\Device\Mailslot". `mostBytes`: the longest message, in bytes; 0: of any length.
    // STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_NAME_COLLISION; *reader is null then.
    static NTSTATUS Create(WideView path, ULONG mostBytes, std::unique_ptr<MailslotReader>* reader);
    ~MailslotReader();
    MailslotReader(const MailslotReader&) = delete;
    MailslotReader& operator=(const MailslotReader&) = delete;

    // The oldest message, which is then gone; nothing when none waits.
    std::optional<std::vector<UCHAR>> Read();
    // The same as text, without the terminators at its end. Bug check when it is half a character too long.
    std::optional<WideString> ReadText();
    size_t Waiting() const;
    // No name leads here any more and writers fail; what was not read is lost. Again and again without effect.
    void Close();

private:
    struct Body;
    struct Slots;
    explicit MailslotReader(Body* body) : body_(body) {}
    Body* body_; // referenced

    friend struct MailslotDriver;
};
}
