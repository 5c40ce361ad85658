// The framework's stream root classes: their vtables and type information live here, in the
// platform library, so that both sides of the module boundary agree on them.
#include "reactive_streams/Publisher.h"
#include "reactive_streams/Subscriber.h"
#include "reactive_streams/Subscription.h"

namespace kestrin::reactive_streams {

Publisher::Publisher() = default;
Publisher::~Publisher() = default;
Subscriber::Subscriber() = default;
Subscriber::~Subscriber() = default;
Subscription::Subscription() = default;
Subscription::~Subscription() = default;

} // namespace kestrin::reactive_streams
