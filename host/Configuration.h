#pragma once

#include "host/Server.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::host {

// A setting that cannot be used: the message names the setting (flag, variable or file line),
// the value and what is expected.
class ConfigurationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Everything the server is started with: the server's own options and what main does with
// the rest. Filled from, by precedence, the command line, KESTRIN_* environment variables,
// the configuration file, and the defaults.
struct Configuration {
    ServerOptions server;
    std::string directory; // empty: the working directory
    std::string authFile;  // empty: no authentication
    // CPU time password checks may take, in percent of one core: in all, and for one client.
    unsigned authCpu = 25;
    unsigned authCpuPerClient = 5;
    std::optional<std::uint64_t> maxMemory;          // default: from the machine
    std::optional<std::uint64_t> maxMemoryPerClient; // default: from maxMemory and maxBody
    std::uint64_t maxUploadPerClient = 0;            // 0: no limit
    std::optional<std::size_t> maxConnections;       // default: from the descriptor limit
    std::optional<std::uint64_t> minFree;            // default: from the filesystem's size
    std::optional<std::uint64_t> minFreeFiles;       // default: from the filesystem's size
    std::string onConflict = "replace";              // replace, refuse or rename
    std::string logFormat = "text";                  // text or json
    std::string tlsCertificate;                      // both empty: plain HTTP
    std::string tlsKey;
    std::string configFile; // the file the settings came from, if any
    bool help = false;
    bool version = false;
    bool hashPassword = false;
    std::string helpText; // set when help is
    // Settings given that change nothing, each with why: the server starts, and says so.
    std::vector<std::string> warnings;
};

// Reads argv and the environment, and the configuration file they name. Throws
// ConfigurationError for anything it cannot use.
Configuration parseConfiguration(int argc, const char* const* argv);

// A byte count: digits, then optionally K, M or G, or KiB, MiB, GiB (powers of 1024), or KB, MB,
// GB (powers of 1000); case does not matter in the letter before "iB"/"B". Throws
// std::invalid_argument saying what is wrong.
std::uint64_t parseSize(std::string_view text);

// A duration in whole seconds: digits, optionally followed by s, m or h.
std::uint64_t parseSeconds(std::string_view text);

// Where to listen. PORT (on 127.0.0.1, like the default), :PORT (every IPv4 interface), HOST:PORT,
// [IPv6]:PORT; HOST may be an address or a name, resolved when the server binds. Throws
// std::invalid_argument saying what is wrong.
struct ListenAddress {
    std::string host; // empty: every interface
    unsigned short port = 0;
};
ListenAddress parseListen(std::string_view text);

} // namespace kestrin::host
