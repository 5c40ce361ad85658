#include "host/Configuration.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kestrin::host {
namespace {

// Parses a command line, with the environment variables given set for the call only.
Configuration parse(std::vector<std::string> words,
                    const std::vector<std::pair<std::string, std::string>>& environment = {}) {
    for (const auto& [name, value] : environment) {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    words.insert(words.begin(), "kestrin-upload-server");
    std::vector<const char*> argv;
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    struct Unset {
        const std::vector<std::pair<std::string, std::string>>& environment;
        ~Unset() {
            for (const auto& entry : environment) {
                ::unsetenv(entry.first.c_str());
            }
        }
    } unset{environment};
    return parseConfiguration(static_cast<int>(argv.size()), argv.data());
}

std::string failure(std::vector<std::string> words,
                    const std::vector<std::pair<std::string, std::string>>& environment = {}) {
    try {
        parse(std::move(words), environment);
    } catch (const ConfigurationError& error) {
        return error.what();
    }
    return "(accepted)";
}

TEST(Configuration, sizesDurationsAndListenAddressesTakeTheFormsPeopleWrite) {
    const std::vector<std::pair<std::string, std::uint64_t>> sizes = {
        {"0", 0},           {"512", 512},         {"10K", 10240},      {"10k", 10240},
        {"10KiB", 10240},   {"10KB", 10000},      {"10MB", 10000000},  {"10MiB", 10485760},
        {"1G", 1073741824}, {"2gib", 2147483648}, {"1GB", 1000000000}, {"7B", 7},
    };
    for (const auto& [text, bytes] : sizes) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parseSize(text), bytes);
    }
    for (const std::string bad :
         {"", "K", "-1", "1.5M", "10XB", "10 M", "18446744073709551616", "17179869184G"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(parseSize(bad), std::invalid_argument);
    }
    EXPECT_EQ(parseSeconds("30"), 30u);
    EXPECT_EQ(parseSeconds("30s"), 30u);
    EXPECT_EQ(parseSeconds("2m"), 120u);
    EXPECT_EQ(parseSeconds("1h"), 3600u);
    EXPECT_THROW(parseSeconds("m"), std::invalid_argument);
    EXPECT_THROW(parseSeconds("1d"), std::invalid_argument);

    struct Listen {
        std::string text;
        std::string host;
        unsigned short port;
    };
    for (const Listen& listen : std::vector<Listen>{{"8080", "127.0.0.1", 8080},
                                                    {":9000", "", 9000},
                                                    {"localhost:0", "localhost", 0},
                                                    {"0.0.0.0:80", "0.0.0.0", 80},
                                                    {"[::1]:8443", "::1", 8443},
                                                    {"[::]:65535", "::", 65535}}) {
        SCOPED_TRACE(listen.text);
        const ListenAddress parsed = parseListen(listen.text);
        EXPECT_EQ(parsed.host, listen.host);
        EXPECT_EQ(parsed.port, listen.port);
    }
    for (const std::string bad :
         {"", ":", "host:", "host:65536", "::1:80", "[]:80", "a:b", "localhost"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(parseListen(bad), std::invalid_argument);
    }
}

// The command line wins over the environment, which wins over the file; each value that
// cannot be used is named with where it came from, the value and what would do.
TEST(Configuration, flagsBeatTheEnvironmentWhichBeatsTheFileAndErrorsSayWhere) {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("kestrin-config-" + std::to_string(::getpid()));
    const auto write = [&](const std::string& text) { std::ofstream(file) << text; };
    write("# comment\nmax-body = \"1K\"\nmax-files = 7\nlisten = \":9000\"\n"
          "allow-origin = [\"https://a.example\", \"https://b.example\"]\n");

    Configuration fromFile = parse({"--config", file.string()});
    EXPECT_EQ(fromFile.server.maxBody, 1024u);
    EXPECT_EQ(fromFile.server.maxFiles, 7u);
    EXPECT_EQ(fromFile.server.address, "");
    EXPECT_EQ(fromFile.server.port, 9000);
    EXPECT_EQ(fromFile.server.allowedOrigins,
              (std::vector<std::string>{"https://a.example", "https://b.example"}));

    const Configuration fromEnvironment =
        parse({"--config", file.string()}, {{"KESTRIN_MAX_BODY", "2K"}});
    EXPECT_EQ(fromEnvironment.server.maxBody, 2048u);
    EXPECT_EQ(fromEnvironment.server.maxFiles, 7u);

    const Configuration fromFlag =
        parse({"--max-body=4K"}, {{"KESTRIN_MAX_BODY", "2K"}, {"KESTRIN_CONFIG", file.string()}});
    EXPECT_EQ(fromFlag.server.maxBody, 4096u);
    EXPECT_EQ(fromFlag.configFile, file.string());
    EXPECT_EQ(fromFlag.server.maxFiles, 7u);

    // The last of a repeated flag wins, so scripts can put defaults first.
    EXPECT_EQ(parse({"--listen", "127.0.0.1:8080", "--listen", "localhost:0"}).server.address,
              "localhost");
    EXPECT_EQ(parse({"--allow-origin", "http://x", "--allow-origin", "http://y"})
                  .server.allowedOrigins.size(),
              2u);
    const Configuration defaults = parse({});
    EXPECT_EQ(defaults.server.maxBody, std::uint64_t{1} << 30);
    EXPECT_EQ(defaults.server.address, "127.0.0.1");
    EXPECT_EQ(defaults.onConflict, "replace");
    EXPECT_TRUE(defaults.warnings.empty());

    // A budget for what is switched off protects nothing: the start says so, naming the
    // setting as it was given.
    EXPECT_EQ(parse({"--tls-handshakes", "9"}, {{"KESTRIN_AUTH_CPU", "50"}}).warnings,
              (std::vector<std::string>{
                  "KESTRIN_AUTH_CPU=50: does nothing without --auth-file (no password is checked)",
                  "--tls-handshakes 9: does nothing without --tls-cert (the server speaks plain "
                  "HTTP)"}));
    EXPECT_TRUE(parse({"--auth-file", "users", "--auth-cpu-per-client", "2", "--tls-cert", "c",
                       "--tls-key", "k", "--tls-handshakes-per-client", "9"})
                    .warnings.empty());

    EXPECT_EQ(failure({"--max-body", "10XB"}),
              "--max-body 10XB: 10XB has an unknown unit: expected a number of bytes, optionally "
              "followed by K, M, G, KiB, MiB, GiB, KB, MB or GB");
    EXPECT_EQ(failure({}, {{"KESTRIN_LISTEN", "70000"}}),
              "KESTRIN_LISTEN=70000: 70000 is not a port (0 to 65535)");
    EXPECT_EQ(failure({"--on-conflict", "maybe"}),
              "--on-conflict maybe: expected one of replace refuse rename");
    EXPECT_EQ(failure({"--idle-timeout", "0"}), "--idle-timeout 0: expected 1 s to 24 h");
    EXPECT_EQ(failure({"--allow-origin", "x.example"}),
              "--allow-origin x.example: expected scheme://host[:port]");
    EXPECT_EQ(failure({"--tls-cert", "c.pem"}),
              "--tls-cert and --tls-key go together: give both or neither");
    EXPECT_NE(failure({"--frob"}).find("--frob"), std::string::npos);

    write("max-files = 0\n");
    EXPECT_EQ(failure({"--config", file.string()}),
              file.string() + ": max-files = 0: expected a whole number from 1 to 1000000");
    write("bogus = 1\n");
    EXPECT_EQ(failure({"--config", file.string()}),
              file.string() + ": bogus is not a setting (see --help for the options)");
    write("[server]\nmax-files = 3\n");
    EXPECT_NE(failure({"--config", file.string()}).find("is not a setting"), std::string::npos);
    write("version = true\n");
    EXPECT_NE(failure({"--config", file.string()}).find("is not a setting"), std::string::npos);
    std::filesystem::remove(file);
    EXPECT_EQ(failure({"--config", file.string()}),
              "--config " + file.string() + ": cannot read it");

    const Configuration help = parse({"--help"});
    EXPECT_TRUE(help.help);
    EXPECT_NE(help.helpText.find("KESTRIN_MAX_BODY"), std::string::npos);
    // It fits a terminal of 80 columns.
    std::istringstream lines(help.helpText);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
    }
}

} // namespace
} // namespace kestrin::host
