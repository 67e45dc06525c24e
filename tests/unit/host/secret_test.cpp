// Stored form of passwords.
#include "hostapi/appmgr.h"
#include "temp_home.h"
#include "vshost/catalog.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <thread>

namespace {
bool Decrypts(const std::string& stored) {
    std::string plain = "untouched";
    bool ok = vshost::DecryptSecret(stored, plain);
    return ok || plain != "untouched";  // a failure must not write half a result
}

std::string KeyOf(const vstest::TempHome& home) {
    std::ifstream in(home.sub("keys/secret.key"), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
}  // namespace

TEST(SecretTest, RoundTripWithPrivateKeyFile) {
    vstest::TempHome home;
    std::vector<std::string> plains = {"p@ss w\xc3\xb6rd", "", std::string("a\0b", 3), std::string(3000, 'k')};
    std::vector<std::string> stored(plains.size());
    std::vector<std::thread> threads;  // concurrent first use must agree on one key
    for (size_t i = 0; i < plains.size(); ++i)
        threads.emplace_back([&, i] { stored[i] = vshost::EncryptSecret(plains[i]); });
    for (auto& t : threads) t.join();
    for (size_t i = 0; i < plains.size(); ++i) {
        std::string back;
        ASSERT_TRUE(vshost::DecryptSecret(stored[i], back)) << i;
        EXPECT_EQ(back, plains[i]);
    }
    EXPECT_NE(vshost::EncryptSecret("same"), vshost::EncryptSecret("same"));  // fresh nonce

    EXPECT_EQ(KeyOf(home).size(), 32u);

    vsAppMgr mgr;
    std::string clear;
    EXPECT_EQ(mgr.decryptPassword(vsAppMgr::encryptPassword("via mgr"), &clear), 0);
    EXPECT_EQ(clear, "via mgr");
    EXPECT_EQ(mgr.decryptPassword("garbage", &clear), 1);
}

TEST(SecretTest, RejectsTamperedAndGarbageForms) {
    vstest::TempHome home;
    const std::string stored = vshost::EncryptSecret("secret");
    ASSERT_TRUE(Decrypts(stored));
    for (size_t i = 0; i + 2 < stored.size(); i += 3) {  // base64 padding left alone
        std::string bad = stored;
        bad[i] = bad[i] == 'A' ? 'B' : 'A';
        EXPECT_FALSE(Decrypts(bad)) << "changed at " << i;
    }
    for (const std::string& bad : {stored.substr(0, stored.size() - 4), stored + "AAAA", stored + "!", std::string(),
                                   std::string("AAAA"), std::string("not base64")})
        EXPECT_FALSE(Decrypts(bad)) << bad;
    std::mt19937 rng(12345);
    for (int n = 0; n < 300; ++n) {
        std::string junk(rng() % 120, '\0');
        for (char& c : junk) c = static_cast<char>(rng());
        EXPECT_FALSE(Decrypts(junk));
    }
}

TEST(SecretTest, EachHomeHasItsOwnKey) {
    vstest::TempHome a;
    const std::string fromA = vshost::EncryptSecret("pw");
    {
        vstest::TempHome b;
        EXPECT_FALSE(Decrypts(fromA));
        EXPECT_TRUE(Decrypts(vshost::EncryptSecret("pw")));
        EXPECT_NE(KeyOf(a), KeyOf(b));
    }
    vshost::OpenHome(a.path());
    EXPECT_TRUE(Decrypts(fromA));

    vshost::CloseHome();  // no home: nowhere to keep a key
    EXPECT_THROW(vshost::EncryptSecret("pw"), std::runtime_error);
    EXPECT_FALSE(Decrypts(fromA));
    EXPECT_EQ(vsAppMgr::encryptPassword("pw"), "");
}
