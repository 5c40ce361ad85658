#include "host/Configuration.h"

#include "host/ClientKey.h"
#include "host/RequestGate.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <set>
#include <thread>
#include <vector>

namespace kestrin::host {

namespace {

constexpr std::string_view sizeExpected =
    "expected a number of bytes, optionally followed by K, M, G, KiB, MiB, GiB, KB, MB or GB";
constexpr std::string_view secondsExpected =
    "expected a number of seconds, optionally followed by s, m or h";

std::string environmentName(std::string_view name) {
    std::string env = "KESTRIN_";
    for (const char c : name) {
        env += c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return env;
}

// Digits only, no sign, no overflow.
std::optional<std::uint64_t> parseDigits(std::string_view text) {
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return std::nullopt;
        }
        value = value * 10 + digit;
    }
    return value;
}

std::uint64_t scaled(std::uint64_t value, std::uint64_t scale, std::string_view text) {
    if (scale != 0 && value > UINT64_MAX / scale) {
        throw std::invalid_argument(std::string(text) + " is too large");
    }
    return value * scale;
}

std::uint64_t wholeNumber(std::string_view text, std::uint64_t least, std::uint64_t most) {
    const std::optional<std::uint64_t> number = parseDigits(text);
    if (!number || *number < least || *number > most) {
        throw std::invalid_argument("expected a whole number from " + std::to_string(least) +
                                    " to " + std::to_string(most));
    }
    return *number;
}

// Where each value came from, so that an error can point at it: a flag on the command line,
// a variable of the environment or a line of the configuration file.
class Sources {
public:
    Sources(int argc, const char* const* argv) {
        for (int i = 1; i < argc; ++i) {
            std::string_view word = argv[i];
            if (word.rfind("--", 0) == 0) {
                onCommandLine.emplace(word.substr(2, word.find('=') - 2));
            }
        }
    }

    std::string describe(const std::string& name, const std::string& value) const {
        if (!file.empty()) {
            return file + ": " + name + " = " + value;
        }
        if (onCommandLine.count(name) != 0) {
            return "--" + name + " " + value;
        }
        return environmentName(name) + "=" + value;
    }

    std::string file; // set while the file's values are applied
    std::set<std::string, std::less<>> onCommandLine;
};

// Help fits a terminal of 80 columns: option names take the first helpColumn, their
// descriptions the rest.
constexpr std::size_t helpWidth = 80;
constexpr std::size_t helpColumn = 32;

std::string wrap(const std::string& text, std::size_t width) {
    std::string wrapped;
    std::size_t lineLength = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(' ', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::size_t length = end - start;
        if (lineLength > 0 && lineLength + 1 + length > width) {
            wrapped += '\n';
            lineLength = 0;
        } else if (lineLength > 0) {
            wrapped += ' ';
            ++lineLength;
        }
        wrapped.append(text, start, length);
        lineLength += length;
        start = end + 1;
    }
    return wrapped;
}

// The file named by --config, or else by KESTRIN_CONFIG; empty when none is.
std::string configFileName(int argc, const char* const* argv) {
    std::string name;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--config" && i + 1 < argc) {
            name = argv[++i];
        } else if (word.rfind("--config=", 0) == 0) {
            name = std::string(word.substr(9));
        }
    }
    if (name.empty()) {
        if (const char* env = std::getenv("KESTRIN_CONFIG")) {
            name = env;
        }
    }
    return name;
}

} // namespace

std::uint64_t parseSize(std::string_view text) {
    std::size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        ++digits;
    }
    const std::optional<std::uint64_t> value = parseDigits(text.substr(0, digits));
    if (!value) {
        throw std::invalid_argument(digits == 0
                                        ? std::string(text.empty() ? "an empty value" : text) +
                                              " is not a size: " + std::string(sizeExpected)
                                        : std::string(text) + " is too large");
    }
    std::string unit(text.substr(digits));
    std::transform(unit.begin(), unit.end(), unit.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    static const std::pair<std::string_view, std::uint64_t> units[] = {
        {"", 1},
        {"b", 1},
        {"k", std::uint64_t{1} << 10},
        {"kib", std::uint64_t{1} << 10},
        {"kb", 1000},
        {"m", std::uint64_t{1} << 20},
        {"mib", std::uint64_t{1} << 20},
        {"mb", 1000 * 1000},
        {"g", std::uint64_t{1} << 30},
        {"gib", std::uint64_t{1} << 30},
        {"gb", 1000 * 1000 * 1000},
    };
    for (const auto& [name, scale] : units) {
        if (unit == name) {
            return scaled(*value, scale, text);
        }
    }
    throw std::invalid_argument(std::string(text) +
                                " has an unknown unit: " + std::string(sizeExpected));
}

std::uint64_t parseSeconds(std::string_view text) {
    std::uint64_t scale = 1;
    std::string_view number = text;
    if (!text.empty()) {
        switch (text.back()) {
        case 's':
            number.remove_suffix(1);
            break;
        case 'm':
            scale = 60;
            number.remove_suffix(1);
            break;
        case 'h':
            scale = 3600;
            number.remove_suffix(1);
            break;
        default:
            break;
        }
    }
    const std::optional<std::uint64_t> value = parseDigits(number);
    if (!value) {
        throw std::invalid_argument(std::string(text.empty() ? "an empty value" : text) +
                                    " is not a duration: " + std::string(secondsExpected));
    }
    return scaled(*value, scale, text);
}

ListenAddress parseListen(std::string_view text) {
    ListenAddress listen;
    std::string_view port = text;
    if (const std::size_t colon = text.rfind(':'); colon != std::string_view::npos) {
        std::string_view host = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
            host = host.substr(1, host.size() - 2);
            if (host.empty()) {
                throw std::invalid_argument("[] names no address");
            }
        } else if (host.find(':') != std::string_view::npos) {
            throw std::invalid_argument("an IPv6 address goes in brackets: [" + std::string(host) +
                                        "]:PORT");
        }
        listen.host = std::string(host);
    } else {
        // A port alone keeps the default's host: loopback, reachable from this machine only.
        listen.host = "127.0.0.1";
    }
    const std::optional<std::uint64_t> number = parseDigits(port);
    if (!number || *number > 65535) {
        throw std::invalid_argument(std::string(port.empty() ? "an empty port" : port) +
                                    " is not a port (0 to 65535)");
    }
    listen.port = static_cast<unsigned short>(*number);
    return listen;
}

Configuration parseConfiguration(int argc, const char* const* argv) {
    Configuration config;
    const unsigned cores = std::thread::hardware_concurrency();
    config.server.threads = cores > 0 ? cores : 1;
    Sources sources(argc, argv);

    CLI::App app("Serves the kestrin file-upload module over HTTP. Files posted as\n"
                 "multipart/form-data to /users or \"/ORVANE Drive\" are stored in the upload\n"
                 "directory; GET / serves the upload page, GET /healthz the health and\n"
                 "GET /metrics the metrics.\n\n"
                 "Every option can also be set by an environment variable (KESTRIN_ and the\n"
                 "option's name in capitals, - as _: KESTRIN_MAX_BODY=10M) or in the file given\n"
                 "with --config (one \"name = value\" a line: max-body = 10M). The command line\n"
                 "wins over the environment, which wins over the file.",
                 "kestrin-upload-server");
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.get_formatter()->column_width(helpColumn);
    app.footer("SIGINT or SIGTERM stops accepting (after --stop-delay), lets requests in flight\n"
               "finish (up to --shutdown-timeout) and exits with 0.");

    // Each option converts and checks its own value; a failure names where the value came from.
    // Where each option that was set came from, to name it in warnings.
    std::map<std::string, std::string> given;
    const auto option = [&](const std::string& name, const std::string& type,
                            const std::string& help, std::function<void(const std::string&)> set) {
        CLI::Option* added = app.add_option_function<std::string>(
            "--" + name,
            [&sources, &given, name, set = std::move(set)](const std::string& value) {
                try {
                    set(value);
                } catch (const std::invalid_argument& error) {
                    throw ConfigurationError(sources.describe(name, value) + ": " + error.what());
                }
                given[name] = sources.describe(name, value);
            },
            help);
        added->type_name(type)->envname(environmentName(name))->run_callback_for_default();
        return added;
    };
    const auto size = [](std::uint64_t& target, std::uint64_t least) {
        return [&target, least](const std::string& value) {
            const std::uint64_t bytes = parseSize(value);
            if (bytes < least) {
                throw std::invalid_argument("expected at least " + std::to_string(least) +
                                            " bytes");
            }
            target = bytes;
        };
    };
    // A size with a default computed later: set only when given, and never 0.
    const auto someBytes = [](std::optional<std::uint64_t>& target) {
        return [&target](const std::string& value) {
            const std::uint64_t bytes = parseSize(value);
            if (bytes == 0) {
                throw std::invalid_argument("expected more than 0 bytes");
            }
            target = bytes;
        };
    };
    const auto count = [](auto& target, std::uint64_t least, std::uint64_t most) {
        return [&target, least, most](const std::string& value) {
            target = static_cast<std::remove_reference_t<decltype(target)>>(
                wholeNumber(value, least, most));
        };
    };
    const auto seconds = [](std::chrono::seconds& target) {
        return [&target](const std::string& value) {
            const std::uint64_t number = parseSeconds(value);
            if (number == 0 || number > 86400) {
                throw std::invalid_argument("expected 1 s to 24 h");
            }
            target = std::chrono::seconds(number);
        };
    };
    const auto oneOf = [](std::string& target, std::vector<std::string> allowed) {
        return [&target, allowed = std::move(allowed)](const std::string& value) {
            if (std::find(allowed.begin(), allowed.end(), value) == allowed.end()) {
                std::string expected = "expected one of";
                for (const std::string& one : allowed) {
                    expected += " " + one;
                }
                throw std::invalid_argument(expected);
            }
            target = value;
        };
    };
    const auto path = [](std::string& target) {
        return [&target](const std::string& value) {
            if (value.empty()) {
                throw std::invalid_argument("expected a path");
            }
            target = value;
        };
    };

    ServerOptions& server = config.server;
    app.add_option("--config", config.configFile,
                   "read settings from FILE, \"name = value\" lines (also KESTRIN_CONFIG)")
        ->type_name("FILE");
    option("listen", "ADDRESS",
           "where to listen: PORT (on 127.0.0.1), :PORT (every IPv4 interface; [::]:PORT for "
           "IPv6 too), HOST:PORT or [IPv6]:PORT; HOST may be a name (its first address); port 0 "
           "picks a free one (default 127.0.0.1:8080)",
           [&server](const std::string& value) {
               const ListenAddress listen = parseListen(value);
               server.address = listen.host;
               server.port = listen.port;
           });
    option("dir", "DIR",
           "upload directory, created if missing, checked for writing at start; the server "
           "works in it (default: the working directory)",
           path(config.directory));
    option("on-conflict", "replace|refuse|rename",
           "when a file of the uploaded name exists: replace it (default), refuse the upload "
           "with a 400 result page, or store it as \"name (1).ext\"",
           oneOf(config.onConflict, {"replace", "refuse", "rename"}));
    option("max-body", "SIZE",
           "largest request body (default 1G); larger ones get 413 before they are read",
           size(server.maxBody, 0));
    option("max-memory", "SIZE",
           "memory that request bodies, the parts cut out of them and kept bodies may take in "
           "all (default: half of the machine's memory, or of the control group's limit when "
           "lower); an upload that does not fit now gets 503 with Retry-After, one that never "
           "could gets 413",
           someBytes(config.maxMemory));
    option("max-memory-per-client", "SIZE",
           "memory that the uploads of one client address may hold at once, within "
           "--max-memory (default: a quarter of it, or what one body of --max-body needs when "
           "more); past it, an upload gets 503 with Retry-After until the client's others are "
           "done",
           someBytes(config.maxMemoryPerClient));
    option("max-upload-per-client", "SIZE",
           "body bytes that one client address may upload in an hour, earned back evenly "
           "through the hour; past it, an upload gets 503 with Retry-After, and one larger than "
           "it gets 413 (default 0: no limit)",
           size(config.maxUploadPerClient, 0));
    option("keep-body-memory", "SIZE",
           "memory of finished request bodies and their parts (each of 1M or more) kept for "
           "later uploads, within --max-memory, freed after a minute unused (default 1G; 0 "
           "frees each one at once)",
           size(server.keptBodyBytes, 0));
    option("min-free", "SIZE",
           "space to keep free on the upload directory's filesystem: an upload whose body "
           "would leave less, counting the uploads under way, gets 507 before it is read, and "
           "/healthz reports the filesystem full once less is free (default: 5% of the "
           "filesystem, at most 1G; 0 keeps none)",
           [&config](const std::string& value) { config.minFree = parseSize(value); });
    option("min-free-files", "N",
           "files (inodes) to keep free on the upload directory's filesystem, as --min-free "
           "keeps bytes: an upload claims as many as its body has room for parts, at most "
           "--max-files (default: 5% of the filesystem's, at most 10000; 0 keeps none)",
           [&config](const std::string& value) {
               config.minFreeFiles = wholeNumber(value, 0, UINT64_MAX);
           });
    option("max-files", "N",
           "files one request may store (default 1000); the next is refused with a 400 result "
           "page",
           count(server.maxFiles, 1, 1'000'000));
    option("max-files-per-client", "N",
           "files that one client address may store in an hour, earned back evenly through the "
           "hour; past it, an upload gets 503 with Retry-After once its body is in, before "
           "anything is stored, and one of more files than that gets 413 (default 0: no limit)",
           count(server.maxFilesPerClient, 0, 1'000'000'000));
    option("max-connections", "N",
           "open connections (default: the descriptor limit, raised to its hard limit, less a "
           "reserve for files); when all are taken an idle or slow one is closed to make room, "
           "or accepting pauses",
           [&config](const std::string& value) {
               config.maxConnections = static_cast<std::size_t>(wholeNumber(value, 1, 10'000'000));
           });
    option("max-connections-per-client", "N",
           "open connections from one client address, an IPv6 client counting by its /64 as "
           "for all its shares (default 32)",
           count(server.maxConnectionsPerClient, 1, 10'000'000));
    option("ipv6-site-shares", "N",
           "what the /64s of one IPv6 /48 hold together of each share of one client "
           "(connections, memory, upload quota, TLS handshakes, password checks, log lines), in "
           "shares of one client; 65536 gives each /64 its own (default 16)",
           count(server.siteShares, 1, 65'536));
    option("tls-handshakes", "N",
           "TLS handshakes begun each second, in bursts of up to four seconds' worth; past "
           "that, new connections are closed unanswered (default 512)",
           count(server.tlsHandshakes, 1, 1'000'000));
    option("tls-handshakes-per-client", "N",
           "TLS handshakes begun each second from one client address, in bursts of up to four "
           "seconds' worth (default 32)",
           count(server.tlsHandshakesPerClient, 1, 1'000'000));
    option("idle-timeout", "SECS",
           "close connections that send nothing this long; nor may a body pause this long "
           "(default 30)",
           seconds(server.idleTimeout));
    option("header-timeout", "SECS",
           "a request head must arrive within this long of its first byte, or the client gets "
           "408 and is closed (default 10)",
           seconds(server.headerTimeout));
    option("min-body-rate", "SIZE",
           "bytes a second a body must keep up, after --header-timeout of grace, or the client "
           "gets 408 and is closed (default 1K)",
           size(server.minBodyRate, 1));
    option("shutdown-timeout", "SECS",
           "on SIGINT or SIGTERM, how long requests in flight may take before what is left is "
           "closed; uploads still waiting for a service thread then never start (default 30)",
           seconds(server.shutdownTimeout));
    option("stop-delay", "SECS",
           "on SIGINT or SIGTERM, keep serving this long with /healthz answering 503 before "
           "closing the listener, so that a load balancer in front stops sending requests "
           "first (default 0; a second signal stops at once)",
           [&server](const std::string& value) {
               const std::uint64_t number = parseSeconds(value);
               if (number > 3600) {
                   throw std::invalid_argument("expected at most 1 h");
               }
               server.stopDelay = std::chrono::seconds(number);
           });
    CLI::Option* origins = app.add_option_function<std::vector<std::string>>(
        "--allow-origin",
        [&sources, &server](const std::vector<std::string>& values) {
            for (const std::string& origin : values) {
                if (!normalizeOrigin(origin)) {
                    throw ConfigurationError(sources.describe("allow-origin", origin) +
                                             ": expected scheme://host[:port]");
                }
            }
            server.allowedOrigins = values;
        },
        "pages of ORIGIN (scheme://host[:port]) may post uploads from another site, e.g. one "
        "that embeds the routes in an iframe; repeatable (in the environment: separated by "
        "spaces). Without it, uploads from pages of other sites get 403");
    origins->type_name("ORIGIN")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->delimiter(' ')
        ->envname("KESTRIN_ALLOW_ORIGIN")
        ->run_callback_for_default();
    CLI::Option* proxies = app.add_option_function<std::vector<std::string>>(
        "--trusted-proxy",
        [&sources, &server](const std::vector<std::string>& values) {
            TrustedProxies checked;
            for (const std::string& network : values) {
                try {
                    checked.add(network);
                } catch (const std::invalid_argument& error) {
                    throw ConfigurationError(sources.describe("trusted-proxy", network) + ": " +
                                             error.what());
                }
            }
            server.trustedProxies = values;
        },
        "a load balancer or proxy (ADDRESS or ADDRESS/PREFIX) whose X-Forwarded-For header "
        "names the client: the client's shares of memory and password checks, and the log, "
        "count the client it names; repeatable (in the environment: separated by spaces). "
        "Connections and TLS handshakes still count by the proxy's address");
    proxies->type_name("NETWORK")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->delimiter(' ')
        ->envname("KESTRIN_TRUSTED_PROXY")
        ->run_callback_for_default();
    option("auth-file", "FILE",
           "require HTTP Basic authentication against FILE's \"user:hash\" lines (yescrypt, "
           "bcrypt or sha512crypt hashes; make one with --hash-password); read again on SIGHUP",
           path(config.authFile));
    option("auth-cpu", "PERCENT",
           "CPU time that password checks may take, in percent of one core, in bursts of up "
           "to four seconds' worth; past it, a request whose password must be checked gets 503 "
           "with Retry-After (default 25)",
           count(config.authCpu, 1, 10'000));
    option("auth-cpu-per-client", "PERCENT",
           "CPU time that the password checks of one client address may take, in percent of "
           "one core, in bursts of up to five seconds' worth (default 5)",
           count(config.authCpuPerClient, 1, 10'000));
    option("tls-cert", "FILE",
           "serve HTTPS with this PEM certificate chain (needs --tls-key); it and the key are "
           "read again on SIGHUP, for new connections",
           path(config.tlsCertificate));
    option("tls-key", "FILE", "the PEM private key of --tls-cert", path(config.tlsKey));
    option("log-format", "text|json",
           "one line per request and event on stderr, as text (default) or as JSON objects",
           oneOf(config.logFormat, {"text", "json"}));
    option("threads", "N", "IO threads (default: the core count)", count(server.threads, 1, 1024));
    option("service-threads", "N",
           "threads that run uploads, each held until its files are written: N uploads are "
           "stored at once (default 64); small uploads (64 KiB, eight files) run on the IO "
           "threads while the disk syncs quickly; a thread that frees goes to the waiting "
           "client that holds fewest",
           count(server.serviceThreads, 1, 1024));
    option("discard-route", "PATH",
           "also serve PATH by reading each body and dropping it, 200 without calling any "
           "service: the network and HTTP floor for benchmarks (default: off)",
           [&server](const std::string& value) {
               if (value.empty() || value[0] != '/') {
                   throw std::invalid_argument("expected a path starting with /");
               }
               server.discardRoute = value;
           });
    app.add_flag("--hash-password", config.hashPassword,
                 "read a password from stdin, print its salted hash, then exit");
    app.add_flag("--version", config.version,
                 "print the module's path, version and build date, then exit");
    app.set_help_flag("-h,--help", "print this help, then exit");

    // Help beside the option names, wrapped to stay within a terminal's width.
    for (CLI::Option* each : app.get_options()) {
        each->description(wrap(each->get_description(), helpWidth - helpColumn));
    }

    // The file's values go in first, as defaults: the environment and the command line then
    // take their place where they set the same option.
    config.configFile = configFileName(argc, argv);
    if (!config.configFile.empty()) {
        std::vector<CLI::ConfigItem> items;
        try {
            items = CLI::ConfigTOML().from_file(config.configFile);
        } catch (const CLI::Error& error) {
            throw ConfigurationError("--config " + config.configFile + ": cannot read it");
        }
        sources.file = config.configFile;
        for (const CLI::ConfigItem& item : items) {
            if (item.name == "++" || item.name == "--") {
                continue; // section markers
            }
            CLI::Option* target = item.parents.empty() && item.name != "config"
                                      ? app.get_option_no_throw("--" + item.name)
                                      : nullptr;
            if (target == nullptr || target->get_expected_max() == 0) {
                throw ConfigurationError(config.configFile + ": " + item.fullname() +
                                         " is not a setting (see --help for the options)");
            }
            try {
                if (target == origins || target == proxies) {
                    target->default_val(CLI::detail::join(item.inputs, " "));
                } else if (item.inputs.size() == 1) {
                    target->default_val(item.inputs.front());
                } else {
                    throw ConfigurationError(config.configFile + ": " + item.name +
                                             " takes one value");
                }
            } catch (const CLI::Error& error) {
                throw ConfigurationError(config.configFile + ": " + item.name + ": " +
                                         error.what());
            }
        }
        sources.file.clear();
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        config.help = true;
        config.helpText = app.help();
    } catch (const CLI::ParseError& error) {
        throw ConfigurationError(error.what());
    }
    if (config.tlsCertificate.empty() != config.tlsKey.empty()) {
        throw ConfigurationError("--tls-cert and --tls-key go together: give both or neither");
    }
    // A budget set for a feature that is off would look like protection that is not there.
    const auto inert = [&](std::initializer_list<const char*> names, bool off,
                           const std::string& why) {
        for (const char* name : names) {
            if (const auto found = given.find(name); off && found != given.end()) {
                config.warnings.push_back(found->second + ": does nothing " + why);
            }
        }
    };
    inert({"auth-cpu", "auth-cpu-per-client"}, config.authFile.empty(),
          "without --auth-file (no password is checked)");
    inert({"tls-handshakes", "tls-handshakes-per-client"}, config.tlsCertificate.empty(),
          "without --tls-cert (the server speaks plain HTTP)");
    return config;
}

} // namespace kestrin::host
