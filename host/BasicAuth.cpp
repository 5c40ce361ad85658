#include "host/BasicAuth.h"

#include <boost/beast/core/detail/base64.hpp>

#include <algorithm>
#include <cerrno>
#include <crypt.h>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kestrin::host {

namespace {

namespace base64 = boost::beast::detail::base64;

// Shown with every refused hash, so whoever edits the file knows what to put there instead.
constexpr std::string_view supportedHashHint =
    "; use a yescrypt (\"$y$\"), bcrypt (\"$2b$\") or sha512crypt (\"$6$\") hash, made for "
    "example with `mkpasswd -m yescrypt`";

std::string errnoText() {
    return std::error_code(errno, std::generic_category()).message();
}

std::runtime_error lineError(const std::string& sourceName, std::size_t lineNumber,
                             const std::string& what) {
    return std::runtime_error(sourceName + ":" + std::to_string(lineNumber) + ": " + what);
}

// Whether the bytes are equal, looking at every byte whatever the first difference: the time
// taken tells only the length, which every hash of one method shares.
bool equalInConstantTime(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    unsigned char difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    }
    return difference == 0;
}

// crypt's own scratch space per call, zeroed as it asks on first use; 32 KiB, so on the heap
// rather than on an IO thread's stack. Nothing is shared between threads.
std::unique_ptr<crypt_data> freshCryptData() {
    return std::make_unique<crypt_data>();
}

bool cryptMatches(std::string_view password, const std::string& hash) {
    if (password.find('\0') != std::string_view::npos) {
        return false;
    }
    const std::string phrase(password);
    const std::unique_ptr<crypt_data> data = freshCryptData();
    const char* computed = crypt_rn(phrase.c_str(), hash.c_str(), data.get(), sizeof(crypt_data));
    return computed != nullptr && equalInConstantTime(computed, hash);
}

std::string_view withoutTrailingCr(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

std::string quoted(std::string_view user) {
    return "\"" + std::string(user) + "\"";
}

// Why crypt_checksalt refused a hash, in the words of whoever wrote the file.
std::string refusedHashText(std::string_view user, int verdict) {
    const std::string what =
        verdict == CRYPT_SALT_METHOD_LEGACY
            ? "the hash of " + quoted(user) +
                  " uses a weak legacy method, or is not a hash at all (plain text reads as one)"
            : "the hash of " + quoted(user) + " is not one the system's crypt library can check";
    return what + std::string(supportedHashHint);
}

// The bytes of a padded base64 text; nothing when it has a character outside the alphabet,
// misplaced or excess padding, a length not a multiple of four, or unused bits that are not 0.
// Beast's decoder stops quietly at the first character it does not know and trusts the
// length, so it only ever sees text that passed these checks.
std::optional<std::string> decodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    const std::string_view digits = text.substr(0, text.size() - padding);
    std::string bytes(base64::decoded_size(text.size()), '\0');
    const auto [written, read] = base64::decode(bytes.data(), digits.data(), digits.size());
    if (read != digits.size()) {
        return std::nullopt;
    }
    // Two digits carry one byte and four spare bits, three carry two bytes and two spare bits.
    if (padding != 0) {
        const int last = base64::get_inverse()[static_cast<unsigned char>(digits.back())];
        const int spareBits = padding == 2 ? 0x0f : 0x03;
        if ((last & spareBits) != 0) {
            return std::nullopt;
        }
    }
    bytes.resize(written);
    return bytes;
}

struct Credentials {
    std::string user;
    std::string password;
};

std::optional<Credentials> parseBasic(std::string_view authorization) {
    if (authorization.size() > BasicAuth::headerLimit) {
        return std::nullopt;
    }
    constexpr std::string_view scheme = "basic";
    if (authorization.size() <= scheme.size() || authorization[scheme.size()] != ' ') {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        const char c = authorization[i];
        if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != scheme[i]) {
            return std::nullopt;
        }
    }
    std::string_view token = authorization.substr(scheme.size());
    token.remove_prefix(std::min(token.find_first_not_of(' '), token.size()));
    const std::size_t end = token.find_last_not_of(" \t");
    token = token.substr(0, end == std::string_view::npos ? 0 : end + 1);
    std::optional<std::string> decoded = decodeBase64(token);
    if (!decoded) {
        return std::nullopt;
    }
    const std::size_t colon = decoded->find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    return Credentials{decoded->substr(0, colon), decoded->substr(colon + 1)};
}

// The CPU time the calling thread spent in check: what a password check costs the server, and
// unlike the wall clock not inflated when other threads hold the cores.
std::chrono::nanoseconds threadCpuTime(const std::function<void()>& check) {
    const auto read = [] {
        timespec now{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    const auto start = read();
    check();
    return read() - start;
}

double seconds(std::chrono::nanoseconds duration) {
    return std::chrono::duration<double>(duration).count();
}

BasicAuth::Options withDefaults(BasicAuth::Options options) {
    if (options.budget <= std::chrono::nanoseconds::zero() ||
        options.refillPerSecond <= std::chrono::nanoseconds::zero() ||
        options.clientBudget <= std::chrono::nanoseconds::zero() ||
        options.clientRefillPerSecond <= std::chrono::nanoseconds::zero()) {
        throw std::invalid_argument("the password check budget and its refill must be positive");
    }
    if (!options.now) {
        options.now = [] { return std::chrono::steady_clock::now(); };
    }
    if (!options.measure) {
        options.measure = threadCpuTime;
    }
    return options;
}

} // namespace

PasswordFile PasswordFile::parse(std::string_view text, const std::string& sourceName) {
    PasswordFile file;
    std::unordered_map<std::string, std::size_t> firstLines;
    std::size_t lineNumber = 0;
    while (!text.empty()) {
        const std::size_t newline = std::min(text.find('\n'), text.size());
        const std::string_view line = withoutTrailingCr(text.substr(0, newline));
        text.remove_prefix(std::min(newline + 1, text.size()));
        ++lineNumber;
        if (isBlank(line) || line.front() == '#') {
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) {
            throw lineError(sourceName, lineNumber, "no ':' between user name and hash");
        }
        const std::string user(line.substr(0, colon));
        const std::string hash(line.substr(colon + 1));
        if (user.empty()) {
            throw lineError(sourceName, lineNumber, "empty user name");
        }
        const auto [first, added] = firstLines.emplace(user, lineNumber);
        if (!added) {
            throw lineError(sourceName, lineNumber,
                            "user " + quoted(user) + " again, first on line " +
                                std::to_string(first->second));
        }
        const int verdict = crypt_checksalt(hash.c_str());
        if (verdict != CRYPT_SALT_OK) {
            throw lineError(sourceName, lineNumber, refusedHashText(user, verdict));
        }
        if (file.decoyHash.empty()) {
            file.decoyHash = hash;
        }
        file.hashes.emplace(user, hash);
    }
    if (file.hashes.empty()) {
        throw std::runtime_error(sourceName + ": no users");
    }
    return file;
}

PasswordFile PasswordFile::load(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw std::runtime_error("cannot read password file " + path + ": " + errnoText());
    }
    std::string text;
    char chunk[4096];
    for (;;) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            const std::string reason = errnoText();
            ::close(fd);
            throw std::runtime_error("cannot read password file " + path + ": " + reason);
        }
        if (got == 0) {
            break;
        }
        text.append(chunk, static_cast<std::size_t>(got));
    }
    ::close(fd);
    return parse(text, path);
}

bool PasswordFile::verify(std::string_view user, std::string_view password) const {
    const auto found = hashes.find(std::string(user));
    const bool known = found != hashes.end();
    const bool matches = cryptMatches(password, known ? found->second : decoyHash);
    return known && matches;
}

std::string hashPassword(std::string_view password) {
    if (password.find('\0') != std::string_view::npos) {
        throw std::runtime_error("a password cannot hold a NUL byte");
    }
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (crypt_gensalt_rn(nullptr, 0, nullptr, 0, setting, sizeof setting) == nullptr) {
        throw std::runtime_error("cannot make a salt: " + errnoText());
    }
    const std::string phrase(password);
    const std::unique_ptr<crypt_data> data = freshCryptData();
    const char* hash = crypt_rn(phrase.c_str(), setting, data.get(), sizeof(crypt_data));
    if (hash == nullptr) {
        throw std::runtime_error("cannot hash the password: " + errnoText());
    }
    return hash;
}

BasicAuth::Options BasicAuth::cpuShares(unsigned percent, unsigned clientPercent) {
    // One percent of a core is 10 ms of CPU time each second.
    Options options;
    options.refillPerSecond = std::chrono::milliseconds(10) * percent;
    options.budget = 4 * options.refillPerSecond;
    options.clientRefillPerSecond = std::chrono::milliseconds(10) * clientPercent;
    options.clientBudget = 5 * options.clientRefillPerSecond;
    return options;
}

BasicAuth::BasicAuth(PasswordFile passwordFile)
    : BasicAuth(std::move(passwordFile), Options()) {}

BasicAuth::BasicAuth(PasswordFile passwordFile, Options limits)
    : options(withDefaults(std::move(limits)))
    , budget(RateBudget::Limits{seconds(options.budget), seconds(options.refillPerSecond),
                                seconds(options.clientBudget),
                                seconds(options.clientRefillPerSecond), options.clientEntries,
                                options.siteShares},
             options.now())
    , users(std::make_shared<const PasswordFile>(std::move(passwordFile))) {}

void BasicAuth::replaceUsers(PasswordFile passwordFile) {
    auto replacement = std::make_shared<const PasswordFile>(std::move(passwordFile));
    const std::lock_guard<std::mutex> lock(mutex);
    users = std::move(replacement);
    ++usersGeneration;
    granted.clear();
}

BasicAuth::Result BasicAuth::check(std::string_view authorization, std::string_view client) {
    std::optional<Credentials> credentials = parseBasic(authorization);
    if (!credentials) {
        return {Outcome::missing, {}, {}};
    }
    const std::string header(authorization);
    const std::string address(client);
    std::shared_ptr<const PasswordFile> checkedAgainst;
    std::uint64_t generation = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        checkedAgainst = users;
        generation = usersGeneration;
        const auto known = granted.find(header);
        if (known != granted.end()) {
            return {Outcome::granted, known->second, {}};
        }
    }
    if (const std::optional<RateBudget::Refusal> refused = budget.check(address, options.now())) {
        return {Outcome::throttled, std::move(credentials->user), refused->retryAfter};
    }
    bool matches = false;
    const std::chrono::nanoseconds cost = options.measure(
        [&] { matches = checkedAgainst->verify(credentials->user, credentials->password); });
    budget.spend(address, seconds(cost), options.now());
    if (!matches) {
        return {Outcome::denied, std::move(credentials->user), {}};
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (generation != usersGeneration) {
        return {Outcome::granted, std::move(credentials->user), {}};
    }
    // Forgetting every entry at once keeps the bound without bookkeeping of age. It only
    // happens after that many distinct correct headers, each of which paid for its check, and
    // a forgotten header costs its client one more check.
    if (granted.size() >= options.cacheEntries) {
        granted.clear();
    }
    granted.emplace(header, credentials->user);
    return {Outcome::granted, std::move(credentials->user), {}};
}

} // namespace kestrin::host
