#pragma once

#include <string>

namespace kestrin {

// Base of everything the framework delivers to or receives from a service. Owned through
// std::unique_ptr<Message> and deleted through this destructor.
class Message {
public:
    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    virtual ~Message();
};

// Where the framework reaches a service. A value: copied, compared, passed by reference.
class Address {
public:
    Address() = default;
    explicit Address(std::string serviceName)
        : name(std::move(serviceName)) {}
    const std::string& getName() const noexcept { return name; }
    bool operator==(const Address& other) const { return name == other.name; }
    bool operator!=(const Address& other) const { return name != other.name; }

private:
    std::string name;
};

// Per-call information the framework hands along with a message; services forward it.
class Context {
public:
    virtual ~Context();
};

} // namespace kestrin
