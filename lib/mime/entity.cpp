// Entities: a message, a part, and the way from a text to headers, body and parts.
#include "chars.h"
#include "mimelib.h"
#include "views.h"

void DwInitialize() {}

void DwEntity::parse(const DwString& text) {
    const size_t body = headers_.parse(text);
    body_.set_text(DwString(text, body, text.length() - body));
}

DwMessage* DwMessage::NewMessage(const DwString& text, DwEntity* /*parent*/) {
    return new DwMessage(text);
}

namespace {

// The value of the first `boundary` parameter; empty where there is none.
DwString boundary_of(const DwMediaType& type) {
    for (const DwParameter* parameter = type.FirstParameter(); parameter;
         parameter = parameter->Next()) {
        if (mime::equals_ignoring_case(mime::view(parameter->Attribute()), "boundary"))
            return parameter->Value();
    }
    return {};
}

} // namespace

void DwMessage::Parse() {
    if (parsed_)
        return;
    parsed_ = true;
    parse(text_);
    const DwMediaType& type = Headers().ContentType();
    if (type.Type() != DwMime::kTypeMultipart)
        return;
    const DwString boundary = boundary_of(type);
    if (boundary.length() != 0)
        Body().split(boundary);
}
