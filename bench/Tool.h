// What the benchmark's helper programs share: their command lines ("--flag value" pairs, and
// --help), how they measure their own CPU time, and a blocking client connection.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

// Hands each "--flag value" pair of the command line to handle(flag, value), which returns
// false for a flag it does not know and may throw std::logic_error (as std::stoul does) for a
// value it cannot read. --help, a flag without a value, an unknown flag and an unreadable
// value go to usage(why), which must not return.
template <typename Handle>
void forEachFlag(int argc, char** argv, const char* summary, void (*usage)(const std::string&),
                 Handle&& handle) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (flag == "--help") {
            usage(summary);
        }
        if (i + 1 >= argc) {
            usage("no value for " + flag);
        }
        const std::string value = argv[++i];
        bool known = false;
        try {
            known = handle(flag, value);
        } catch (const std::logic_error&) {
            usage(flag + " " + value + ": not a number");
        }
        if (!known) {
            usage("unknown option or value: " + flag + " " + value);
        }
    }
}

// The process's CPU time so far, user and system, in seconds.
inline double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// One keep-alive HTTP/1.1 connection to 127.0.0.1 with a blocking socket, sending prepared
// bytes and reading whole answers.
class Connection {
public:
    Connection(int port, double timeout) {
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
        }
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        timeval limit{};
        limit.tv_sec = static_cast<time_t>(timeout);
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            const int error = errno;
            ::close(fd);
            throw std::runtime_error(std::string("connect: ") + std::strerror(error));
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { ::close(fd); }

    // The answer's status, or 0 when the connection ended before a whole answer: a kept
    // connection the server closed, which the caller may retry once on a new one.
    int exchange(const std::string& request) { return send(request) ? answer() : 0; }

    bool send(const std::string& bytes) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            sent += static_cast<std::size_t>(n);
        }
        return true;
    }

    // size bytes of an open file from its start, handed to the socket by the kernel: the
    // client never copies them, so a large upload measures the server rather than the client.
    bool sendFile(int file, std::size_t size) {
        off_t offset = 0;
        while (static_cast<std::size_t>(offset) < size) {
            const ssize_t n =
                ::sendfile(fd, file, &offset, size - static_cast<std::size_t>(offset));
            if (n <= 0) {
                return false;
            }
        }
        return true;
    }

    // Reads one whole answer (its head and Content-Length bytes of body) and returns its
    // status, or 0 when the connection ended first.
    int answer() {
        std::size_t headEnd;
        while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
            if (!receive()) {
                return 0;
            }
        }
        int status = 0;
        std::sscanf(buffer.c_str(), "HTTP/1.%*d %d", &status);
        std::size_t length = 0;
        std::string head = buffer.substr(0, headEnd);
        std::transform(head.begin(), head.end(), head.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        const std::size_t field = head.find("\r\ncontent-length:");
        if (field != std::string::npos) {
            length = std::strtoul(head.c_str() + field + 17, nullptr, 10);
        }
        while (buffer.size() < headEnd + 4 + length) {
            if (!receive()) {
                return 0;
            }
        }
        buffer.erase(0, headEnd + 4 + length);
        return status;
    }

private:
    bool receive() {
        char chunk[16384];
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return false;
        }
        buffer.append(chunk, static_cast<std::size_t>(n));
        return true;
    }

    int fd;
    std::string buffer;
};

// The path as it goes on a request line, spaces escaped.
inline std::string requestTarget(const std::string& path) {
    std::string out;
    for (char c : path) {
        out += c == ' ' ? std::string("%20") : std::string(1, c);
    }
    return out;
}

} // namespace bench
