#pragma once

#include "host/RateBudget.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kestrin::host {

// Users and their salted password hashes, read once from an htpasswd-style file. Never changed
// after it is made, so any number of threads may verify at once without a lock; each check
// hands the crypt library storage of its own.
class PasswordFile {
public:
    // Parses "user:hash" lines; blank lines and lines starting with '#' are skipped; a trailing
    // CR is tolerated. Throws std::runtime_error naming sourceName and the line number for: a
    // line without ':', an empty user name, a duplicate user, a hash the system's crypt library
    // cannot check or calls a weak legacy method (plain text reads as one), and for a text with
    // no users at all. The messages never repeat a hash: a refused one may be a plain password.
    static PasswordFile parse(std::string_view text, const std::string& sourceName);
    // Reads and parses a file; std::runtime_error naming the path when it cannot be read.
    static PasswordFile load(const std::string& path);

    // True when user exists and password matches its hash. Runs crypt even for an unknown user
    // (against the first user's hash, whose result is then ignored) so the time taken does not
    // tell which users exist. A password with a NUL byte never matches: crypt would stop there.
    [[nodiscard]] bool verify(std::string_view user, std::string_view password) const;

    std::size_t size() const noexcept { return hashes.size(); }

private:
    PasswordFile() = default;

    std::unordered_map<std::string, std::string> hashes;
    std::string decoyHash;
};

// A new salted hash of password with the crypt library's strongest default method, as an
// htpasswd-style file takes it. Throws std::runtime_error when the library fails or the
// password holds a NUL byte.
std::string hashPassword(std::string_view password);

// Decides whether a request's Authorization header grants access, for HTTP Basic against a
// PasswordFile it owns. IO threads call check at the same time; one lock guards the users and the
// cache of granted headers, and is never held while crypt runs. Password checks are
// slow by design, so the CPU time they may take is a budget that refills with time (see Options);
// once it is spent, checks that would need crypt are refused until it refills.
class BasicAuth {
public:
    enum class Outcome { granted, missing, denied, throttled };
    struct Result {
        Outcome outcome;
        // granted: the user. denied, throttled: the name the client sent, unchecked bytes.
        // missing: empty.
        std::string user;
        // throttled: whole seconds until the budget has credit again, at least 1 (Retry-After).
        std::chrono::seconds retryAfter{0};
    };

    // The WWW-Authenticate value of a 401 answer.
    static constexpr std::string_view challenge =
        "Basic realm=\"kestrin upload\", charset=\"UTF-8\"";
    // Longer Authorization values are "missing" without being decoded.
    static constexpr std::size_t headerLimit = 4096;

    struct Options {
        // Password checks may use this much CPU time at once...
        std::chrono::nanoseconds budget = std::chrono::seconds(1);
        // ...and earn it back at this much per second, up to budget.
        std::chrono::nanoseconds refillPerSecond = std::chrono::milliseconds(250);
        // One client address may use this much of it at once, and earns it back at this much
        // per second: a client guessing passwords runs out of credit long before the others.
        std::chrono::nanoseconds clientBudget = std::chrono::milliseconds(250);
        std::chrono::nanoseconds clientRefillPerSecond = std::chrono::milliseconds(50);
        // Client addresses whose credit is remembered; when full, those back at their full
        // credit are forgotten, and the rest share one client's credit.
        std::size_t clientEntries = 4096;
        // What the /64s of one IPv6 /48 may use together, in clients' credit.
        double siteShares = defaultSiteShares;
        // Granted headers remembered; when full, all are forgotten.
        std::size_t cacheEntries = 1024;
        // The clock the budget refills by; empty means std::chrono::steady_clock::now.
        std::function<std::chrono::steady_clock::time_point()> now;
        // Runs one password check and returns what it cost; empty means the CPU time of the
        // calling thread spent in it. Called from many threads at once, outside the lock.
        std::function<std::chrono::nanoseconds(const std::function<void()>& passwordCheck)> measure;
    };

    // Options whose budgets are shares of one core's time: percent for every password check,
    // clientPercent for those of one client, in bursts of four and five seconds' worth. The
    // defaults are cpuShares(25, 5).
    static Options cpuShares(unsigned percent, unsigned clientPercent);

    explicit BasicAuth(PasswordFile passwordFile);
    // Throws std::invalid_argument when the budget or its refill is not positive.
    BasicAuth(PasswordFile passwordFile, Options limits);
    BasicAuth(const BasicAuth&) = delete;
    BasicAuth& operator=(const BasicAuth&) = delete;

    // authorization: the raw header value ("" when absent). "missing" when absent, longer than
    // headerLimit, or not "Basic <base64 of user:password>" (scheme matched without regard to
    // case, base64 padded and strict, the first ':' separates user and password, so a password
    // may contain ':'); "denied" on wrong credentials; "throttled" when the budget, or client's
    // share of it, is spent. A header granted before is granted again without crypt and without
    // touching the budget. client names the address the request came from; empty: unknown,
    // charged to the whole budget only.
    Result check(std::string_view authorization, std::string_view client = {});

    // Checks from now on are made against passwordFile. Every header granted before is
    // forgotten, so a user removed or given a new password is let in no more; a check already
    // running against the old file answers by it but is not remembered.
    void replaceUsers(PasswordFile passwordFile);

private:
    const Options options;
    // Password checks are paid in seconds of CPU time.
    RateBudget budget;
    std::mutex mutex;
    // Replaced whole, under the lock; a check holds on to the one it started with.
    std::shared_ptr<const PasswordFile> users;
    // Counts replacements, so that a check that began before one does not fill the cache.
    std::uint64_t usersGeneration = 0;
    // Granted header values and their users. Only a correct password gets in, so clients
    // cannot fill it with guesses. A lookup compares whole keys only once their hashes match,
    // so its time tells a guess nothing about the headers kept here.
    std::unordered_map<std::string, std::string> granted;
};

} // namespace kestrin::host
