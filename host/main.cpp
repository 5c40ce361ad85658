// kestrin-upload-server: serves the upload module over HTTP, storing uploads in a directory.
// Builds the module's objects the way the framework does, serves until SIGINT or SIGTERM,
// then takes the routes away and exits.
#include "file_upload/MultipartUploadRouteProvider.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "host/BasicAuth.h"
#include "host/DiskFileService.h"
#include "host/MemoryBudget.h"
#include "host/RequestDispatcher.h"
#include "host/RequestGate.h"
#include "host/RouteTable.h"
#include "host/Server.h"

#include <boost/asio/ip/address.hpp>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <malloc.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <utility>

// What the module says about itself.
extern "C" const char* const libqvkestrinfileuploadimpl_relative_path;
extern "C" const char* const libqvkestrinfileuploadimpl_build_date;
extern "C" const char* const libqvkestrinfileuploadimpl_version;

namespace {

using kestrin::host::ServerOptions;

constexpr const char* usage = R"(Usage: kestrin-upload-server [OPTIONS]

Serves the kestrin file-upload module over HTTP. Files posted as multipart/form-data to
/users or "/ORVANE Drive" are stored in the upload directory; GET / serves a demo page.

Options:
  --listen HOST:PORT    address to listen on (default 127.0.0.1:8080; port 0 picks a free one)
  --dir DIR             upload directory, created if missing; the server works in it
                        (default: the working directory)
  --max-body BYTES      largest request body accepted, with an optional K, M or G suffix
                        (default 1G); larger bodies get 413 before they are read
  --max-memory BYTES    memory that request bodies, the parts cut out of them and kept bodies
                        may take in all (default: half of the machine's memory, or of the
                        control group's limit when lower); an upload that does not fit now
                        gets 503 with Retry-After before its body is read, one that never
                        could gets 413
  --keep-body-memory BYTES
                        memory of finished request bodies (each of 1M or more) kept to receive
                        later bodies into, within --max-memory: a large upload then skips
                        faulting in fresh pages (default 512M; 0 frees each body)
  --max-files N         files one request may store (default 1000); the next is refused with
                        a 400 result page
  --max-connections N   open connections (default: the descriptor limit, which the server
                        raises to its hard limit, less a reserve for files); when all are taken,
                        an idle or slow one is closed to make room, or accepting pauses
  --max-connections-per-client N
                        open connections from one client address (default 32)
  --idle-timeout SECS   close connections that send nothing this long (default 30)
  --header-timeout SECS a request head must arrive within this long of its first byte, or
                        the client gets 408 and is closed (default 10)
  --min-body-rate BYTES a body must arrive at this many bytes a second, after --header-timeout
                        of grace, or the client gets 408 and is closed (default 1K)
  --shutdown-timeout SECS
                        on SIGINT or SIGTERM, requests in flight get this long to finish before
                        what is left is closed (default 30)
  --allow-origin ORIGIN pages of ORIGIN (scheme://host[:port]) may post uploads from another
                        site, e.g. a page that embeds the routes in an iframe; repeatable.
                        Without it, uploads whose Origin is not this server's, or that the
                        browser marks cross-site, get 403
  --auth-file FILE      require HTTP Basic authentication for every request, against FILE's
                        "user:hash" lines (hashes of the system's crypt: yescrypt, bcrypt,
                        sha512crypt; make one with --hash-password)
  --hash-password       read a password from stdin, print its salted hash, then exit
  --threads N           IO threads (default: the core count)
  --service-threads N   threads that run uploads, each held until its files are written: N
                        uploads are stored at once (default 64), by up to 16 file writers
  --discard-route PATH  also serve PATH (decoded, exact) by reading each request's body and
                        dropping it, answering 200 without calling any service: the network
                        and HTTP floor for benchmarks (default: off)
  --version             print the module's path, version and build date, then exit
  --help                print this help, then exit

SIGINT or SIGTERM stops accepting, lets requests in flight finish (up to --shutdown-timeout)
and exits with 0.
)";

struct Arguments {
    ServerOptions server;
    std::string directory;
    std::string authFile;
    std::optional<std::uint64_t> maxMemory;    // default: from the machine
    std::optional<std::size_t> maxConnections; // default: from the descriptor limit
    bool help = false;
    bool version = false;
    bool hashPassword = false;
};

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::uint64_t parseNumber(const std::string& flag, const std::string& text, bool allowSuffix) {
    size_t end = 0;
    unsigned long long value = 0;
    try {
        if (text.empty() || text[0] == '-') {
            throw std::invalid_argument(text);
        }
        value = std::stoull(text, &end);
    } catch (const std::logic_error&) {
        throw UsageError(flag + ": not a number: " + text);
    }
    std::uint64_t scale = 1;
    if (allowSuffix && end + 1 == text.size()) {
        switch (text[end]) {
        case 'K':
        case 'k':
            scale = std::uint64_t{1} << 10;
            break;
        case 'M':
        case 'm':
            scale = std::uint64_t{1} << 20;
            break;
        case 'G':
        case 'g':
            scale = std::uint64_t{1} << 30;
            break;
        default:
            throw UsageError(flag + ": unknown size suffix in " + text);
        }
        ++end;
    }
    if (end != text.size()) {
        throw UsageError(flag + ": not a number: " + text);
    }
    if (value > UINT64_MAX / scale) {
        throw UsageError(flag + ": too large: " + text);
    }
    return value * scale;
}

void parseListen(const std::string& text, ServerOptions& options) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        throw UsageError("--listen: expected HOST:PORT, got " + text);
    }
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::uint64_t port = parseNumber("--listen", text.substr(colon + 1), false);
    if (port > 65535) {
        throw UsageError("--listen: port out of range: " + text);
    }
    options.address = host;
    options.port = static_cast<unsigned short>(port);
}

Arguments parseArguments(int argc, char** argv) {
    Arguments arguments;
    const unsigned cores = std::thread::hardware_concurrency();
    arguments.server.threads = cores > 0 ? cores : 1;
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        std::string value;
        bool hasValue = false;
        if (const size_t equals = flag.find('=');
            flag.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = flag.substr(equals + 1);
            flag = flag.substr(0, equals);
            hasValue = true;
        }
        const auto takeValue = [&]() -> std::string {
            if (hasValue) {
                return value;
            }
            if (i + 1 >= argc) {
                throw UsageError(flag + " needs a value");
            }
            return argv[++i];
        };
        if (flag == "--help" || flag == "-h") {
            arguments.help = true;
        } else if (flag == "--version") {
            arguments.version = true;
        } else if (flag == "--listen") {
            parseListen(takeValue(), arguments.server);
        } else if (flag == "--dir") {
            arguments.directory = takeValue();
            if (arguments.directory.empty()) {
                throw UsageError("--dir: empty directory name");
            }
        } else if (flag == "--max-body") {
            arguments.server.maxBody = parseNumber(flag, takeValue(), true);
        } else if (flag == "--keep-body-memory") {
            arguments.server.keptBodyBytes = parseNumber(flag, takeValue(), true);
        } else if (flag == "--threads") {
            const std::uint64_t threads = parseNumber(flag, takeValue(), false);
            if (threads == 0 || threads > 1024) {
                throw UsageError("--threads: expected 1 to 1024");
            }
            arguments.server.threads = static_cast<unsigned>(threads);
        } else if (flag == "--service-threads") {
            const std::uint64_t threads = parseNumber(flag, takeValue(), false);
            if (threads == 0 || threads > 1024) {
                throw UsageError("--service-threads: expected 1 to 1024");
            }
            arguments.server.serviceThreads = static_cast<unsigned>(threads);
        } else if (flag == "--idle-timeout") {
            const std::uint64_t seconds = parseNumber(flag, takeValue(), false);
            if (seconds == 0 || seconds > 86400) {
                throw UsageError("--idle-timeout: expected 1 to 86400 seconds");
            }
            arguments.server.idleTimeout = std::chrono::seconds(seconds);
        } else if (flag == "--max-memory") {
            arguments.maxMemory = parseNumber(flag, takeValue(), true);
            if (*arguments.maxMemory == 0) {
                throw UsageError("--max-memory: expected more than 0 bytes");
            }
        } else if (flag == "--max-files") {
            const std::uint64_t files = parseNumber(flag, takeValue(), false);
            if (files == 0) {
                throw UsageError("--max-files: expected at least 1");
            }
            arguments.server.maxFiles = static_cast<std::size_t>(files);
        } else if (flag == "--max-connections") {
            const std::uint64_t connections = parseNumber(flag, takeValue(), false);
            if (connections == 0 || connections > 10'000'000) {
                throw UsageError("--max-connections: expected 1 to 10000000");
            }
            arguments.maxConnections = static_cast<std::size_t>(connections);
        } else if (flag == "--max-connections-per-client") {
            const std::uint64_t connections = parseNumber(flag, takeValue(), false);
            if (connections == 0 || connections > 10'000'000) {
                throw UsageError("--max-connections-per-client: expected 1 to 10000000");
            }
            arguments.server.maxConnectionsPerClient = static_cast<std::size_t>(connections);
        } else if (flag == "--header-timeout" || flag == "--shutdown-timeout") {
            const std::uint64_t seconds = parseNumber(flag, takeValue(), false);
            if (seconds == 0 || seconds > 86400) {
                throw UsageError(flag + ": expected 1 to 86400 seconds");
            }
            (flag == "--header-timeout" ? arguments.server.headerTimeout
                                        : arguments.server.shutdownTimeout) =
                std::chrono::seconds(seconds);
        } else if (flag == "--min-body-rate") {
            arguments.server.minBodyRate = parseNumber(flag, takeValue(), true);
            if (arguments.server.minBodyRate == 0) {
                throw UsageError("--min-body-rate: expected at least 1 byte a second");
            }
        } else if (flag == "--allow-origin") {
            const std::string origin = takeValue();
            if (!kestrin::host::normalizeOrigin(origin)) {
                throw UsageError("--allow-origin: expected scheme://host[:port], got " + origin);
            }
            arguments.server.allowedOrigins.push_back(origin);
        } else if (flag == "--auth-file") {
            arguments.authFile = takeValue();
            if (arguments.authFile.empty()) {
                throw UsageError("--auth-file: empty file name");
            }
        } else if (flag == "--hash-password") {
            arguments.hashPassword = true;
        } else if (flag == "--discard-route") {
            arguments.server.discardRoute = takeValue();
            if (arguments.server.discardRoute.empty() || arguments.server.discardRoute[0] != '/') {
                throw UsageError("--discard-route: expected a path starting with /");
            }
        } else {
            throw UsageError("unknown option " + flag);
        }
    }
    return arguments;
}

// Large request bodies come and go with every upload. Keep freed blocks up to the largest
// heap-served size in the process for the next request instead of handing them back to
// the system and faulting fresh pages in again.
void tuneAllocator() {
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 64 * 1024 * 1024);
}

// Every large upload touches fresh pages for the part cut out of its body, and for the body
// itself unless kept memory takes it; the system then reads them once more to write the file. Each
// first touch of a page is a fault, which costs far more than the copy itself (several times more
// on virtual machines), and a 2 MiB page takes one fault where 4 KiB pages take 512. glibc asks the
// system for huge pages for its large blocks only when told so by GLIBC_TUNABLES, which it reads
// once, at start: set it and start again. If that fails, serve with small pages.
void restartWithHugePages(char** argv) {
    constexpr const char* tunable = "glibc.malloc.hugetlb";
    const char* current = std::getenv("GLIBC_TUNABLES");
    if (current != nullptr && std::strstr(current, tunable) != nullptr) {
        return;
    }
    std::string tunables = current != nullptr && *current != '\0' ? current + std::string(":") : "";
    tunables += tunable + std::string("=1");
    if (::setenv("GLIBC_TUNABLES", tunables.c_str(), 1) == 0) {
        ::execv("/proc/self/exe", argv);
    }
}

void enterDirectory(const std::string& directory) {
    if (directory.empty()) {
        return;
    }
    std::error_code ec;
    std::filesystem::create_directories(directory, ec);
    if (ec) {
        throw std::runtime_error("cannot create " + directory + ": " + ec.message());
    }
    // The module stores under the process's working directory.
    if (::chdir(directory.c_str()) != 0) {
        throw std::runtime_error("cannot change into " + directory + ": " + std::strerror(errno));
    }
}

// File writers: enough that a large write does not hold up the others, few enough that their
// descriptors leave room for connections.
unsigned writerCount(unsigned serviceThreads) {
    return std::min(serviceThreads, 16u);
}

// Many idle clients must not leave the server without descriptors for the files it stores: the
// soft limit goes up to the hard one, and connections get what is left after a reserve for the
// writers' temporary files, the service threads' directory syncs and the server's own.
std::size_t raiseDescriptorLimit(unsigned serviceThreads) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 1024;
    }
    if (limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = limit.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    const std::uint64_t reserve = 32 + serviceThreads + writerCount(serviceThreads);
    const std::uint64_t available = limit.rlim_cur == RLIM_INFINITY ? 1 << 20 : limit.rlim_cur;
    return static_cast<std::size_t>(
        std::max<std::uint64_t>(16, available > reserve ? available - reserve : 0));
}

bool isLoopback(const std::string& host) {
    boost::system::error_code ec;
    const auto address = boost::asio::ip::make_address(host, ec);
    return !ec && address.is_loopback();
}

std::string mebibytes(std::uint64_t bytes) {
    return std::to_string(bytes >> 20) + " MiB";
}

int serve(Arguments arguments) {
    using namespace kestrin;
    using file_upload::v1::MultipartUploadRouteProvider;
    using file_upload::v1::MultipartUploadServiceImpl;
    using file_upload::v1::MultipartUploadServiceProvider;

    ServerOptions& options = arguments.server;
    const std::size_t descriptors = raiseDescriptorLimit(options.serviceThreads);
    options.maxConnections = arguments.maxConnections.value_or(descriptors);
    if (options.maxConnections > descriptors) {
        std::cerr << "kestrin-upload-server: warning: --max-connections " << options.maxConnections
                  << " is over the " << descriptors
                  << " connections the descriptor limit leaves room for\n";
    }
    options.maxMemory =
        arguments.maxMemory.value_or(host::defaultMemoryBudget().value_or(std::uint64_t{4} << 30));
    std::shared_ptr<host::BasicAuth> auth;
    if (!arguments.authFile.empty()) {
        auth = std::make_shared<host::BasicAuth>(host::PasswordFile::load(arguments.authFile));
    } else if (!isLoopback(options.address)) {
        std::cerr << "kestrin-upload-server: warning: listening on " << options.address
                  << " without authentication: anyone who reaches this port can store files "
                     "(see --auth-file)\n";
    }

    enterDirectory(arguments.directory);
    auto fileService =
        std::make_shared<host::DiskFileService>(".", writerCount(options.serviceThreads));

    auto uploadService = std::make_shared<MultipartUploadServiceImpl>();
    auto provider =
        http::makeServiceProvider<MultipartUploadServiceProvider>(fileService, uploadService);
    provider->running = true;
    const Address address("kestrin.file_upload.v1.MultipartUploadServiceProvider");

    auto routeTable = std::make_shared<host::RouteTable>();
    auto routeProvider = std::make_unique<MultipartUploadRouteProvider>(routeTable, address);
    auto dispatcher = std::make_shared<host::RequestDispatcher>(routeTable);
    dispatcher->addService(address, provider);

    host::Server server(options, host::ServerParts{dispatcher, fileService, uploadService, auth});
    const std::string& host = options.address;
    const bool bracketed = host.find(':') != std::string::npos;
    std::cout << "listening on http://" << (bracketed ? "[" : "") << host << (bracketed ? "]" : "")
              << ":" << server.port() << "/" << std::endl;
    std::cerr << "kestrin-upload-server: storing uploads in " << fileService->getDirectory()
              << "; memory " << mebibytes(options.maxMemory) << ", bodies up to "
              << mebibytes(options.maxBody) << ", " << options.maxConnections << " connections ("
              << options.maxConnectionsPerClient << " per client), " << options.maxFiles
              << " files a request" << (auth ? ", authentication on" : "") << std::endl;

    server.run();

    // Requests in flight are answered; now take the routes away and stop the service.
    routeProvider.reset();
    provider->running = false;
    std::cerr << "kestrin-upload-server: stopped" << std::endl;
    return 0;
}

// Reads one line from stdin (no echo when it is a terminal) and prints its hash.
int printPasswordHash() {
    const bool terminal = ::isatty(STDIN_FILENO) != 0;
    termios saved{};
    if (terminal && ::tcgetattr(STDIN_FILENO, &saved) == 0) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
        std::cerr << "password: " << std::flush;
    }
    std::string password;
    const bool read = static_cast<bool>(std::getline(std::cin, password));
    if (terminal) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::cerr << std::endl;
    }
    if (!read || password.empty()) {
        std::cerr << "kestrin-upload-server: no password given\n";
        return 2;
    }
    std::cout << kestrin::host::hashPassword(password) << std::endl;
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    try {
        arguments = parseArguments(argc, argv);
    } catch (const UsageError& error) {
        std::cerr << "kestrin-upload-server: " << error.what() << "\nTry --help.\n";
        return 2;
    }
    if (arguments.help) {
        std::cout << usage;
        return 0;
    }
    if (arguments.hashPassword) {
        try {
            return printPasswordHash();
        } catch (const std::exception& error) {
            std::cerr << "kestrin-upload-server: " << error.what() << std::endl;
            return 1;
        }
    }
    if (arguments.version) {
        std::cout << "module: " << libqvkestrinfileuploadimpl_relative_path << "\n"
                  << "version: " << libqvkestrinfileuploadimpl_version << "\n"
                  << "build date: " << libqvkestrinfileuploadimpl_build_date << "\n";
        return 0;
    }
    restartWithHugePages(argv);
    // Answers go to clients that may have left; a write to them must fail, not kill us.
    std::signal(SIGPIPE, SIG_IGN);
    tuneAllocator();
    try {
        return serve(std::move(arguments));
    } catch (const std::exception& error) {
        std::cerr << "kestrin-upload-server: " << error.what() << std::endl;
        return 1;
    }
}
