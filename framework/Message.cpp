#include "framework/Message.h"

namespace kestrin {

Message::~Message() = default;
Context::~Context() = default;

} // namespace kestrin
