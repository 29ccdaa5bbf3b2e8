#include "hosted/ob/event_object.h"

namespace
{
POBJECT_TYPE eventObjectType = reinterpret_cast<POBJECT_TYPE>(const_cast<hosted::ObjectType*>(&hosted::EventType));
}

extern "C" POBJECT_TYPE* ExEventObjectType = &eventObjectType;

namespace hosted
{
HANDLE CreateEventHandle(HandleTable& table, EVENT_TYPE type, PKEVENT* event)
{
    auto* body = static_cast<PKEVENT>(CreateObject(EventType, sizeof(KEVENT)));
    KeInitializeEvent(body, type, FALSE);
    HANDLE handle = table.Insert(body, EVENT_ALL_ACCESS);
    DereferenceObject(body);
    if (event != nullptr)
    {
        *event = body;
    }
    return handle;
}
}
