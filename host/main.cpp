// kestrin-upload-server: serves the upload module over HTTP, storing uploads in a directory.
// Builds the module's objects the way the framework does, serves until SIGINT or SIGTERM,
// then takes the routes away and exits.
#include "file_upload/MultipartUploadRouteProvider.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "host/DiskFileService.h"
#include "host/RequestDispatcher.h"
#include "host/RouteTable.h"
#include "host/Server.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <malloc.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

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
  --keep-body-memory BYTES
                        memory of finished request bodies (each of 1M or more) kept to receive
                        later bodies into, with an optional K, M or G suffix: a large upload
                        then skips faulting in fresh pages (default 512M; 0 frees each body)
  --threads N           IO threads (default: the core count)
  --service-threads N   threads that run uploads, each held until its files are written, and
                        as many file writer threads: N uploads are stored at once (default 16)
  --idle-timeout SECS   close connections idle this long (default 30)
  --discard-route PATH  also serve PATH (decoded, exact) by reading each request's body and
                        dropping it, answering 200 without calling any service: the network
                        and HTTP floor for benchmarks (default: off)
  --version             print the module's path, version and build date, then exit
  --help                print this help, then exit

SIGINT or SIGTERM stops accepting, lets requests in flight finish and exits with 0.
)";

struct Arguments {
    ServerOptions server;
    std::string directory;
    bool help = false;
    bool version = false;
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
// itself unless kept memory takes it; the system then reads them once more to write the file. Each first touch of a page is a
// fault, which costs far more than the copy itself (several times more on virtual machines),
// and a 2 MiB page takes one fault where 4 KiB pages take 512. glibc asks the system for huge
// pages for its large blocks only when told so by GLIBC_TUNABLES, which it reads once, at
// start: set it and start again. If that fails, serve with small pages.
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

int serve(const Arguments& arguments) {
    using namespace kestrin;
    using file_upload::v1::MultipartUploadRouteProvider;
    using file_upload::v1::MultipartUploadServiceImpl;
    using file_upload::v1::MultipartUploadServiceProvider;

    enterDirectory(arguments.directory);
    // One writer per service thread: a write never waits for another to finish.
    auto fileService =
        std::make_shared<host::DiskFileService>(".", arguments.server.serviceThreads);

    auto uploadService = std::make_shared<MultipartUploadServiceImpl>();
    auto provider =
        http::makeServiceProvider<MultipartUploadServiceProvider>(fileService, uploadService);
    provider->running = true;
    const Address address("kestrin.file_upload.v1.MultipartUploadServiceProvider");

    auto routeTable = std::make_shared<host::RouteTable>();
    auto routeProvider = std::make_unique<MultipartUploadRouteProvider>(routeTable, address);
    auto dispatcher = std::make_shared<host::RequestDispatcher>(routeTable);
    dispatcher->addService(address, provider);

    host::Server server(arguments.server, dispatcher);
    const std::string& host = arguments.server.address;
    const bool bracketed = host.find(':') != std::string::npos;
    std::cout << "listening on http://" << (bracketed ? "[" : "") << host << (bracketed ? "]" : "")
              << ":" << server.port() << "/" << std::endl;
    std::cerr << "kestrin-upload-server: storing uploads in " << fileService->getDirectory()
              << std::endl;

    server.run();

    // Requests in flight are answered; now take the routes away and stop the service.
    routeProvider.reset();
    provider->running = false;
    std::cerr << "kestrin-upload-server: stopped" << std::endl;
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
        return serve(arguments);
    } catch (const std::exception& error) {
        std::cerr << "kestrin-upload-server: " << error.what() << std::endl;
        return 1;
    }
}
