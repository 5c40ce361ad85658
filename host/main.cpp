// kestrin-upload-server: serves the upload module over HTTP, storing uploads in a directory.
// Builds the module's objects the way the framework does, serves until SIGINT or SIGTERM,
// then takes the routes away and exits.
#include "file_upload/MultipartUploadRouteProvider.h"
#include "file_upload/MultipartUploadServiceImpl.h"
#include "file_upload/MultipartUploadServiceProvider.h"
#include "host/AccessLog.h"
#include "host/BasicAuth.h"
#include "host/Configuration.h"
#include "host/DiskFileService.h"
#include "host/DiskReserve.h"
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
#include <functional>
#include <iostream>
#include <malloc.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
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

// The upload directory must exist (or be made) and take files before the server listens:
// otherwise the first user to upload would be the first to find out. The check writes and
// removes a file, named like the file service's temporaries so that a crash leaves nothing a
// later start does not clean up.
void enterDirectory(const std::string& directory) {
    const std::string shown = directory.empty() ? "the working directory" : directory;
    if (!directory.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(directory, ec);
        if (ec) {
            throw std::runtime_error("--dir " + directory + ": cannot create it: " + ec.message());
        }
        // The module stores under the process's working directory.
        if (::chdir(directory.c_str()) != 0) {
            throw std::runtime_error("--dir " + directory +
                                     ": cannot enter it: " + std::strerror(errno));
        }
    }
    std::string probe = std::string(kestrin::host::DiskFileService::tempPrefix) + "probe-XXXXXX";
    const int descriptor = ::mkstemp(probe.data());
    if (descriptor < 0) {
        throw std::runtime_error("--dir " + shown +
                                 ": cannot write files there: " + std::strerror(errno));
    }
    ::close(descriptor);
    ::unlink(probe.c_str());
}

// Why uploads cannot be stored now, or nothing: asked on every GET /healthz, so it costs a few
// system calls and writes nothing.
std::optional<std::string> storageProblem(const kestrin::http::HttpServiceProvider& provider,
                                          const kestrin::host::DiskReserve* disk) {
    if (!provider.running.load()) {
        return "the upload service is not running";
    }
    struct stat directory {};
    if (::stat(".", &directory) != 0 || directory.st_nlink == 0) {
        return "the upload directory is gone";
    }
    if (::access(".", W_OK | X_OK) != 0) {
        return std::string("the upload directory is not writable: ") + std::strerror(errno);
    }
    struct statvfs space {};
    if (::statvfs(".", &space) == 0) {
        if ((space.f_flag & ST_RDONLY) != 0) {
            return "the upload directory is on a read-only filesystem";
        }
        if (space.f_bavail == 0 || (space.f_files > 0 && space.f_favail == 0)) {
            return "the upload directory's filesystem is full";
        }
    }
    if (disk != nullptr) {
        if (const std::optional<kestrin::host::DiskReserve::Space> free = disk->belowReserve()) {
            return "the upload directory's filesystem has " + std::to_string(free->bytes) +
                   " bytes and " + std::to_string(free->files) + " files free, less than the " +
                   std::to_string(disk->keep().bytes) + " bytes and " +
                   std::to_string(disk->keep().files) +
                   " files kept free (--min-free, --min-free-files)";
        }
    }
    return std::nullopt;
}

// What is kept free: 5% of the filesystem, which leaves a small one most of itself, and no
// more than 1 GiB and 10,000 files, room enough for logs and the system on a large one.
kestrin::host::DiskReserve::Space defaultMinFree() {
    constexpr std::uint64_t mostBytes = std::uint64_t{1} << 30;
    constexpr std::uint64_t mostFiles = 10'000;
    const std::optional<kestrin::host::DiskReserve::Space> size =
        kestrin::host::filesystemSizeAt(".");
    if (!size) {
        return {mostBytes, mostFiles};
    }
    return {std::min(mostBytes, size->bytes / 20), std::min(mostFiles, size->files / 20)};
}

kestrin::host::ConflictPolicy conflictPolicy(const std::string& name) {
    using kestrin::host::ConflictPolicy;
    return name == "refuse"   ? ConflictPolicy::refuse
           : name == "rename" ? ConflictPolicy::rename
                              : ConflictPolicy::replace;
}

// The server stores every file within a request's scope, on the thread that runs the request;
// the file service's own writer only takes writes made outside one.
constexpr unsigned writerThreads = 1;

// Many idle clients must not leave the server without descriptors for the files it stores: the
// soft limit goes up to the hard one, and connections get what is left after a reserve for the
// files each thread that runs requests holds while it stores one (the file it writes, then the
// directory it syncs), and the server's own.
std::size_t raiseDescriptorLimit(unsigned storingThreads) {
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
    const std::uint64_t reserve = 32 + storingThreads;
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

int serve(kestrin::host::Configuration arguments) {
    using namespace kestrin;
    using file_upload::v1::MultipartUploadRouteProvider;
    using file_upload::v1::MultipartUploadServiceImpl;
    using file_upload::v1::MultipartUploadServiceProvider;

    ServerOptions& options = arguments.server;
    options.logFormat =
        arguments.logFormat == "json" ? host::LogFormat::json : host::LogFormat::text;
    options.tlsCertificate = arguments.tlsCertificate;
    options.tlsKey = arguments.tlsKey;
    const host::AccessLog log(options.logFormat);
    const auto say = [&log](host::LogLevel level, const std::string& message) {
        std::cerr << log.event(std::chrono::system_clock::now(), level, message) << std::flush;
    };
    for (const std::string& warning : arguments.warnings) {
        say(host::LogLevel::warn, warning);
    }
    // Quick uploads run on the IO threads, the others on the service threads.
    const std::size_t descriptors =
        raiseDescriptorLimit(options.serviceThreads + options.threads + writerThreads);
    options.maxConnections = arguments.maxConnections.value_or(descriptors);
    if (options.maxConnections > descriptors) {
        say(host::LogLevel::warn, "--max-connections " + std::to_string(options.maxConnections) +
                                      " is over the " + std::to_string(descriptors) +
                                      " connections the descriptor limit leaves room for");
    }
    options.maxMemory =
        arguments.maxMemory.value_or(host::defaultMemoryBudget().value_or(std::uint64_t{4} << 30));
    options.maxMemoryPerClient =
        std::min(options.maxMemory,
                 arguments.maxMemoryPerClient.value_or(
                     host::RequestGate::defaultClientShare(options.maxMemory, options.maxBody)));
    options.maxUploadPerClient = arguments.maxUploadPerClient;
    // A share over the whole would read as a limit where there is none.
    if (arguments.maxMemoryPerClient && *arguments.maxMemoryPerClient > options.maxMemory) {
        say(host::LogLevel::warn,
            "--max-memory-per-client " + mebibytes(*arguments.maxMemoryPerClient) +
                " is over the memory budget of " + mebibytes(options.maxMemory) +
                ": one client may hold all of it");
    }
    std::shared_ptr<host::BasicAuth> auth;
    std::function<std::string()> reloadUsers;
    if (!arguments.authFile.empty()) {
        host::BasicAuth::Options limits =
            host::BasicAuth::cpuShares(arguments.authCpu, arguments.authCpuPerClient);
        limits.siteShares = options.siteShares;
        auth = std::make_shared<host::BasicAuth>(host::PasswordFile::load(arguments.authFile),
                                                 std::move(limits));
        // Read again from where the server was started, not from the upload directory.
        reloadUsers = [auth, path = std::filesystem::absolute(arguments.authFile).string()] {
            host::PasswordFile users = host::PasswordFile::load(path);
            const std::size_t count = users.size();
            auth->replaceUsers(std::move(users));
            return "the " + std::to_string(count) + (count == 1 ? " user" : " users") + " of " +
                   path;
        };
    } else if (!isLoopback(options.address)) {
        say(host::LogLevel::warn,
            "listening on " + (options.address.empty() ? "every interface" : options.address) +
                " without authentication: anyone who reaches this port can store files (see "
                "--auth-file)");
    }

    // Files named on the command line are found where the server was started, not in the
    // upload directory it works in.
    for (std::string* file : {&options.tlsCertificate, &options.tlsKey}) {
        if (!file->empty()) {
            *file = std::filesystem::absolute(*file).string();
        }
    }
    enterDirectory(arguments.directory);
    const host::DiskReserve::Space defaults = defaultMinFree();
    const host::DiskReserve::Space minFree{arguments.minFree.value_or(defaults.bytes),
                                           arguments.minFreeFiles.value_or(defaults.files)};
    std::shared_ptr<host::DiskReserve> disk;
    if (minFree.bytes > 0 || minFree.files > 0) {
        // The working directory, read at every look like the directory the files go to.
        disk = std::make_shared<host::DiskReserve>(minFree, [] { return host::freeSpaceAt("."); });
    }
    auto fileService = std::make_shared<host::DiskFileService>(
        ".", writerThreads, host::DiskFileService::DirectorySync(),
        conflictPolicy(arguments.onConflict));

    auto uploadService = std::make_shared<MultipartUploadServiceImpl>();
    auto provider =
        http::makeServiceProvider<MultipartUploadServiceProvider>(fileService, uploadService);
    provider->running = true;
    const Address address("kestrin.file_upload.v1.MultipartUploadServiceProvider");

    auto routeTable = std::make_shared<host::RouteTable>();
    auto routeProvider = std::make_unique<MultipartUploadRouteProvider>(routeTable, address);
    auto dispatcher = std::make_shared<host::RequestDispatcher>(routeTable);
    dispatcher->addService(address, provider);

    {
        host::Server server(
            options, host::ServerParts{
                         dispatcher, fileService, uploadService, auth, reloadUsers,
                         [provider, disk] { return storageProblem(*provider, disk.get()); }, disk});
        const std::string host = options.address.empty() ? "0.0.0.0" : options.address;
        const bool bracketed = host.find(':') != std::string::npos;
        std::cout << "listening on " << (options.tlsCertificate.empty() ? "http" : "https") << "://"
                  << (bracketed ? "[" : "") << host << (bracketed ? "]" : "") << ":"
                  << server.port() << "/" << std::endl;
        say(host::LogLevel::info,
            "storing uploads in " + fileService->getDirectory() + " as instance " +
                fileService->instanceId() + " (on conflict: " + arguments.onConflict +
                "); memory " + mebibytes(options.maxMemory) + " (" +
                mebibytes(options.maxMemoryPerClient) + " per client), bodies up to " +
                mebibytes(options.maxBody) +
                (options.maxUploadPerClient > 0
                     ? " (" + mebibytes(options.maxUploadPerClient) + " an hour per client)"
                     : std::string()) +
                ", " + std::to_string(options.maxConnections) + " connections (" +
                std::to_string(options.maxConnectionsPerClient) + " per client), " +
                std::to_string(options.maxFiles) + " files a request" +
                (options.maxFilesPerClient > 0
                     ? " (" + std::to_string(options.maxFilesPerClient) + " an hour per client)"
                     : std::string()) +
                ", " + mebibytes(minFree.bytes) + " and " + std::to_string(minFree.files) +
                " files of the disk kept free" +
                (auth ? ", authentication on (password checks up to " +
                            std::to_string(arguments.authCpu) + "% of a core, " +
                            std::to_string(arguments.authCpuPerClient) + "% per client)"
                      : "") +
                (options.tlsCertificate.empty()
                     ? ""
                     : ", HTTPS (" + std::to_string(options.tlsHandshakes) +
                           " handshakes a second, " +
                           std::to_string(options.tlsHandshakesPerClient) + " per client)") +
                (arguments.configFile.empty() ? "" : "; settings from " + arguments.configFile));

        server.run();
    }
    // The server has stopped and put the default actions back: a further signal must not end
    // the process before it has let go of the directory.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);

    // Requests in flight are answered; now take the routes away and stop the service.
    routeProvider.reset();
    provider->running = false;
    say(host::LogLevel::info, "stopped");
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
    kestrin::host::Configuration arguments;
    try {
        arguments = kestrin::host::parseConfiguration(argc, argv);
    } catch (const kestrin::host::ConfigurationError& error) {
        std::cerr << "kestrin-upload-server: " << error.what() << "\nTry --help.\n";
        return 2;
    }
    if (arguments.help) {
        std::cout << arguments.helpText;
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
