// One large multipart upload from a client that is not the limit: the request's head and the
// part's headers are prepared, the file itself goes to the socket by sendfile, and the client
// only waits for the answer. curl -F reads and copies every byte of the file on one core, so at
// a few hundred MiB it, not the server, set the pace and most of its spread.
//
//   large_upload_client --port P --file PATH [--path /users] [--name large.bin] [--timeout 300]
//
// Prints one JSON object: status, seconds (from the first byte sent to the whole answer in) and
// cpu, the client's own CPU time in those seconds. Exits 1 unless the answer is a 200.
#include "Tool.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace {

struct Options {
    int port = 0;
    std::string file;
    std::string path = "/users";
    std::string name = "large.bin";
    double timeout = 300;
};

[[noreturn]] void usage(const std::string& why) {
    std::fprintf(stderr,
                 "large_upload_client: %s\nusage: large_upload_client --port P --file PATH "
                 "[--path /users] [--name large.bin] [--timeout 300]\n",
                 why.c_str());
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    bench::forEachFlag(argc, argv, "one large multipart upload of a file, sent by sendfile", usage,
                       [&](const std::string& flag, const std::string& value) {
                           if (flag == "--port") {
                               options.port = std::stoi(value);
                           } else if (flag == "--file") {
                               options.file = value;
                           } else if (flag == "--path") {
                               options.path = value;
                           } else if (flag == "--name") {
                               options.name = value;
                           } else if (flag == "--timeout") {
                               options.timeout = std::stod(value);
                           } else {
                               return false;
                           }
                           return true;
                       });
    if (options.port <= 0 || options.port > 65535 || options.file.empty()) {
        usage("--port and --file are required");
    }
    return options;
}

} // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    const int file = ::open(options.file.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat about {};
    if (file < 0 || ::fstat(file, &about) != 0) {
        std::fprintf(stderr, "large_upload_client: %s: %s\n", options.file.c_str(),
                     std::strerror(errno));
        return 1;
    }
    const auto size = static_cast<std::size_t>(about.st_size);
    const std::string boundary = "----LargeUploadClient5fQ2xVbW9pLm3Kd";
    const std::string partHead =
        "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
        options.name + "\"\r\nContent-Type: application/octet-stream\r\n\r\n";
    const std::string tail = "\r\n--" + boundary + "--\r\n";
    const std::string head =
        "POST " + bench::requestTarget(options.path) +
        " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(options.port) +
        "\r\nContent-Type: multipart/form-data; boundary=" + boundary +
        "\r\nContent-Length: " + std::to_string(partHead.size() + size + tail.size()) + "\r\n\r\n" +
        partHead;

    int status = 0;
    double seconds = 0;
    double cpu = 0;
    try {
        bench::Connection connection(options.port, options.timeout);
        const double cpuBefore = bench::cpuSeconds();
        const auto started = std::chrono::steady_clock::now();
        if (connection.send(head) && connection.sendFile(file, size) && connection.send(tail)) {
            status = connection.answer();
        }
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        cpu = bench::cpuSeconds() - cpuBefore;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "large_upload_client: %s\n", error.what());
    }
    ::close(file);
    std::printf("{\"status\": %d, \"seconds\": %.6f, \"cpu\": %.6f}\n", status, seconds, cpu);
    return status == 200 ? 0 : 1;
}
