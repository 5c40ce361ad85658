#include "host/BasicAuth.h"

#include "tests/common/support/ThrownText.h"
#include "tests/host/support/BasicAuthTestSupport.h"

#include <boost/beast/core/detail/base64.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <crypt.h>
#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

namespace kestrin::host {
namespace {

using kestrin::testing::thrownText;
using Outcome = BasicAuth::Outcome;
using namespace std::chrono_literals;

// The same bytes spelled another way: a spare bit set in the last digit before the padding.
std::string withSpareBit(std::string token) {
    namespace base64 = boost::beast::detail::base64;
    char& digit = token[token.find('=') - 1];
    digit = base64::get_alphabet()[base64::get_inverse()[static_cast<unsigned char>(digit)] | 1];
    return token;
}

// Messages are compared whole: a refused hash may be a plain password, so none may repeat one.
TEST(BasicAuthPasswordFile, refusesBrokenLinesAndUncheckableHashesNamingTheLine) {
    const std::string good = hashWith("$6$", 1000, "pw");
    const std::string hint = "; use a yescrypt (\"$y$\"), bcrypt (\"$2b$\") or sha512crypt "
                             "(\"$6$\") hash, made for example with `mkpasswd -m yescrypt`";
    const std::string unknown =
        "users:2: the hash of \"bob\" is not one the system's crypt library can check" + hint;
    const std::string legacy = "users:2: the hash of \"bob\" uses a weak legacy method, or is "
                               "not a hash at all (plain text reads as one)" +
                               hint;
    struct Case {
        std::string text;
        std::string message;
    };
    const Case cases[] = {
        {"alice:" + good + "\nbob\n", "users:2: no ':' between user name and hash"},
        {"# users\n\n:" + good + "\n", "users:3: empty user name"},
        {"a:" + good + "\r\n\r\n#\r\na:" + good + "\r\n",
         "users:4: user \"a\" again, first on line 1"},
        {"", "users: no users"},
        {"# nobody yet\n \t\n\r\n", "users: no users"},
        {"#\nbob:$apr1$salt$hash\n", unknown},
        {"#\nbob:{SHA}W6ph5Mm5Pz8GgiULbPgzG37mj9g=", unknown},
        {"#\nbob:" + good + " \n", unknown},
        {"#\nbob:", unknown},
        {"#\nbob:" + hashWith("$1$", 0, "pw"), legacy},
        {"#\nbob:" + hashWith("", 0, "pw"), legacy},
        {"#\nbob:s3cret\n", legacy},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(
            thrownText<std::runtime_error>([&] { (void)PasswordFile::parse(c.text, "users"); }),
            c.message);
    }
}

TEST(BasicAuthPasswordFile, verifiesEveryModernMethodAndNeverAnUnknownUser) {
    const std::string password = "pa:ss w\xc3\xb6rd\xff";
    const std::string hashes[] = {hashWith("$y$", 1, password), hashWith("$2b$", 4, password),
                                  hashWith("$6$", 1000, password), hashPassword(password)};
    for (const std::string& hash : hashes) {
        SCOPED_TRACE(hash);
        const PasswordFile file =
            PasswordFile::parse("alice:" + hash + "\r\nbob:" + hashWith("$6$", 1000, "b"), "u");
        EXPECT_TRUE(file.verify("alice", password));
        EXPECT_FALSE(file.verify("alice", password.substr(0, password.size() - 1)));
        EXPECT_FALSE(file.verify("alice", "pa"));
        // crypt reads a C string, so it would never see what follows a NUL byte.
        EXPECT_FALSE(file.verify("alice", password + std::string(1, '\0') + "x"));
        EXPECT_FALSE(file.verify("bob", password));
        // Unknown users are checked against alice's hash: even her password must fail.
        EXPECT_FALSE(file.verify("mallory", password));
        EXPECT_FALSE(file.verify("Alice", password));
        // crypt's output is compared whole: a hash damaged in its last digit matches nothing.
        std::string damaged = hash;
        damaged.back() = damaged.back() == '.' ? '/' : '.';
        EXPECT_FALSE(PasswordFile::parse("alice:" + damaged, "u").verify("alice", password));
    }
    EXPECT_EQ(hashPassword("x").rfind(crypt_preferred_method(), 0), 0u);
    EXPECT_NE(hashPassword("x"), hashPassword("x"));
    EXPECT_EQ(thrownText<std::runtime_error>([] { (void)hashPassword(std::string("a\0b", 3)); }),
              "a password cannot hold a NUL byte");
}

TEST(BasicAuthPasswordFile, loadsAFileAndNamesOneItCannotRead) {
    const std::string path = ::testing::TempDir() + "kestrin-basic-auth-users";
    std::ofstream(path) << "erin:" << hashWith("$6$", 1000, "pw") << "\n";
    EXPECT_TRUE(PasswordFile::load(path).verify("erin", "pw"));
    std::remove(path.c_str());
    for (const std::string& unreadable : {path, std::string("/")}) {
        const std::string message =
            thrownText<std::runtime_error>([&] { (void)PasswordFile::load(unreadable); });
        EXPECT_EQ(message.rfind("cannot read password file " + unreadable + ": ", 0), 0u);
    }
}

TEST(BasicAuth, readsTheHeaderStrictlyAndChecksOnlyWhatItCouldRead) {
    const std::string right = basicHeader("alice:pa:ss\xc3\xa9");
    const std::string token = right.substr(6);
    ASSERT_EQ(right.back(), '=');
    const std::string atLimit = basicHeader("alice:" + std::string(3060, 'x'), "Basic  ");
    ASSERT_EQ(atLimit.size(), BasicAuth::headerLimit);
    struct Case {
        std::string header;
        Outcome outcome;
        std::string user;
    };
    const Case cases[] = {
        {right, Outcome::granted, "alice"},
        {"basic " + token, Outcome::granted, "alice"},
        {"BASIC   " + token + " \t", Outcome::granted, "alice"},
        {basicHeader("alice:pa"), Outcome::denied, "alice"},
        {basicHeader("mallory:pa:ss\xc3\xa9"), Outcome::denied, "mallory"},
        {basicHeader(":pa:ss\xc3\xa9"), Outcome::denied, ""},
        {atLimit, Outcome::denied, "alice"},
        {atLimit + " ", Outcome::missing, ""},
        {"", Outcome::missing, ""},
        {"Basic ", Outcome::missing, ""},
        {"Basic" + token, Outcome::missing, ""},
        {"Basic\t" + token, Outcome::missing, ""},
        {"Bearer " + token, Outcome::missing, ""},
        {basicHeader("alicepassword"), Outcome::missing, ""},
        {right.substr(0, right.size() - 1), Outcome::missing, ""},
        {right + "==", Outcome::missing, ""},
        {"Basic " + token.substr(0, 12) + "!" + token.substr(13), Outcome::missing, ""},
        {"Basic " + token.substr(0, 12) + "=" + token.substr(13), Outcome::missing, ""},
        {basicHeader("alice:pa:") + "A===", Outcome::missing, ""},
        {"Basic YWxpY2U6-_==", Outcome::missing, ""},
        {"Basic ====", Outcome::missing, ""},
        {"Basic " + withSpareBit(token), Outcome::missing, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.header);
        FakeMeter meter;
        BasicAuth auth(PasswordFile::parse("alice:" + cheapHash("pa:ss\xc3\xa9"), "users"),
                       meter.options());
        const BasicAuth::Result result = auth.check(c.header);
        EXPECT_EQ(result.outcome, c.outcome);
        EXPECT_EQ(result.user, c.user);
        EXPECT_EQ(meter.checkCount(), c.outcome == Outcome::missing ? 0 : 1);
    }
}

TEST(BasicAuth, remembersGrantedHeadersOnlyUpToItsBound) {
    FakeMeter meter;
    BasicAuth::Options options = meter.options();
    options.cacheEntries = 2;
    BasicAuth auth(PasswordFile::parse("alice:" + cheapHash("pw"), "users"), options);
    const std::string first = basicHeader("alice:pw"), wrong = basicHeader("alice:wrong");
    for (const std::string* header : {&first, &first, &wrong, &wrong, &first}) {
        EXPECT_EQ(auth.check(*header).outcome,
                  header == &first ? Outcome::granted : Outcome::denied);
    }
    // One check for the granted header, one for each guess: guesses are never remembered.
    EXPECT_EQ(meter.checkCount(), 3);
    // A third spelling overflows the bound, so the first costs a check again.
    EXPECT_EQ(auth.check(basicHeader("alice:pw", "basic")).outcome, Outcome::granted);
    EXPECT_EQ(auth.check(basicHeader("alice:pw", "BASIC")).outcome, Outcome::granted);
    EXPECT_EQ(auth.check(first).outcome, Outcome::granted);
    EXPECT_EQ(meter.checkCount(), 6);
}

TEST(BasicAuth, throttlesChecksOnceTheBudgetIsSpentUntilTimeRefillsIt) {
    FakeMeter meter;
    BasicAuth auth(PasswordFile::parse("alice:" + cheapHash("pw"), "users"), meter.options(1s));
    const std::string right = basicHeader("alice:pw"), wrong = basicHeader("alice:guess");
    meter.setCost(400ms);
    // 1 s of credit: 0.6 after letting a browser in, -0.2 after two guesses.
    for (const Outcome expected : {Outcome::granted, Outcome::denied, Outcome::denied}) {
        EXPECT_EQ(auth.check(expected == Outcome::granted ? right : wrong).outcome, expected);
    }
    const BasicAuth::Result throttled = auth.check(wrong);
    EXPECT_EQ(throttled.outcome, Outcome::throttled);
    EXPECT_EQ(throttled.user, "alice");
    EXPECT_EQ(throttled.retryAfter, 1s);
    EXPECT_EQ(auth.check(basicHeader("alice:pw", "basic")).outcome, Outcome::throttled);
    // The browser let in before stays in: its header needs no check.
    EXPECT_EQ(auth.check(right).outcome, Outcome::granted);
    EXPECT_EQ(meter.checkCount(), 3);

    // 0.25 s of credit per second: -0.2 needs more than 0.8 s.
    meter.advance(700ms);
    EXPECT_EQ(auth.check(wrong).outcome, Outcome::throttled);
    meter.advance(200ms);
    EXPECT_EQ(auth.check(wrong).outcome, Outcome::denied);
    EXPECT_EQ(auth.check(wrong).outcome, Outcome::throttled);

    // A long quiet time refills no more than the budget; a costly check is charged in full.
    meter.advance(1h);
    meter.setCost(3s);
    EXPECT_EQ(auth.check(wrong).outcome, Outcome::denied);
    EXPECT_EQ(auth.check(wrong).retryAfter, 8s);
    meter.advance(7s);
    EXPECT_EQ(auth.check(wrong).retryAfter, 1s);
    meter.advance(2s);
    EXPECT_EQ(auth.check(wrong).outcome, Outcome::denied);
    EXPECT_EQ(meter.checkCount(), 6);
}

// A new password file lets in whom it names and no one else, whatever was granted before,
// even when it comes while a check against the old one is running.
TEST(BasicAuth, aReplacedPasswordFileForgetsEveryHeaderGrantedBefore) {
    FakeMeter meter;
    BasicAuth::Options options = meter.options();
    std::function<void()> duringCheck;
    options.measure = [inner = options.measure, &duringCheck](const std::function<void()>& check) {
        if (duringCheck) {
            std::exchange(duringCheck, nullptr)();
        }
        return inner(check);
    };
    BasicAuth auth(
        PasswordFile::parse("alice:" + cheapHash("old") + "\nbob:" + cheapHash("b"), "users"),
        options);
    const std::string aliceOld = basicHeader("alice:old"), bob = basicHeader("bob:b");
    EXPECT_EQ(auth.check(aliceOld).outcome, Outcome::granted);
    EXPECT_EQ(auth.check(bob).outcome, Outcome::granted);
    auth.replaceUsers(PasswordFile::parse("alice:" + cheapHash("new"), "users"));
    EXPECT_EQ(auth.check(aliceOld).outcome, Outcome::denied);
    EXPECT_EQ(auth.check(bob).outcome, Outcome::denied);
    EXPECT_EQ(auth.check(basicHeader("alice:new")).outcome, Outcome::granted);
    EXPECT_EQ(meter.checkCount(), 5);

    const std::string aliceNew = basicHeader("alice:new", "basic");
    duringCheck = [&] { auth.replaceUsers(PasswordFile::parse("carol:" + cheapHash("c"), "u")); };
    EXPECT_EQ(auth.check(aliceNew).outcome, Outcome::granted);
    EXPECT_EQ(auth.check(aliceNew).outcome, Outcome::denied);
    EXPECT_EQ(meter.checkCount(), 7);
}

// A client guessing passwords spends its own share and is throttled while another client,
// whose login was never seen, is still checked; the whole budget still bounds them all.
TEST(BasicAuth, aGuessingClientRunsOutOfItsShareBeforeOthersDo) {
    FakeMeter meter;
    BasicAuth::Options options = meter.options(1s);
    options.clientBudget = 500ms;
    options.clientRefillPerSecond = 250ms;
    BasicAuth auth(PasswordFile::parse("alice:" + cheapHash("pw"), "users"), options);
    const std::string right = basicHeader("alice:pw"), wrong = basicHeader("alice:guess");
    meter.setCost(250ms);
    EXPECT_EQ(auth.check(wrong, "10.0.0.9").outcome, Outcome::denied);
    EXPECT_EQ(auth.check(wrong, "10.0.0.9").outcome, Outcome::denied);
    const BasicAuth::Result throttled = auth.check(wrong, "10.0.0.9");
    EXPECT_EQ(throttled.outcome, Outcome::throttled);
    EXPECT_EQ(throttled.retryAfter, 1s);
    EXPECT_EQ(auth.check(right, "10.0.0.1").outcome, Outcome::granted);
    // Another guesser spends what is left of the whole budget, which then holds everyone.
    EXPECT_EQ(auth.check(wrong, "10.0.0.2").outcome, Outcome::denied);
    EXPECT_EQ(auth.check(wrong, "10.0.0.3").outcome, Outcome::throttled);
    meter.advance(2s);
    EXPECT_EQ(auth.check(wrong, "10.0.0.9").outcome, Outcome::denied);
    EXPECT_EQ(meter.checkCount(), 5);
}

} // namespace
} // namespace kestrin::host
