// Extent names: exact round trips, order, and refusal of anything else.
#include "entrymodel.h"
#include "hostapi/archive.h"

#include <gtest/gtest.h>

#include <climits>

TEST(ExtentNames, RoundTripInFixedWidthAndStrictDecoding) {
    std::vector<unsigned long long> numbers = {0,         1, 9, 10, 12, 99999, 1ULL << 32, 1ULL << 63, ULLONG_MAX - 1,
                                               ULLONG_MAX};
    std::string previous;
    for (unsigned long long n : numbers) {
        std::string name;
        ASSERT_TRUE(ExtentNameConverter::GetFilePath(n, name));
        EXPECT_EQ(name.size(), 26u) << name;
        EXPECT_EQ(name.rfind("Extent", 0), 0u);
        EXPECT_LT(previous, name);  // names sort as their numbers
        previous = name;
        unsigned long long back = 7;
        ASSERT_TRUE(ExtentNameConverter::GetExtentNumberFromFileName(name, back)) << name;
        EXPECT_EQ(back, n);
    }
    EXPECT_EQ(previous, "Extent18446744073709551615");

    for (auto [name, n] : std::vector<std::pair<std::string, unsigned long long>>{
             {"Extent12", 12}, {"Extent0", 0}, {"Extent18446744073709551615", ULLONG_MAX}}) {
        unsigned long long back = 7;
        EXPECT_TRUE(ExtentNameConverter::GetExtentNumberFromFileName(name, back)) << name;
        EXPECT_EQ(back, n) << name;
    }
    // clang-format off
    const std::string bad[] = {
        "", "Extent", "extent12", "EXTENT12", "Extent-1", "Extent+1", "Extent 12", " Extent12", "Extent12 ",
        "Extent012", "Extent00", "Extent1a", "Extent0x10", "Extent18446744073709551616", "Extent99999999999999999999",
        "Extent000000000000000000012", "disk0_Extent12", "\\vm\\d\\Extent1", "Extent1/", std::string("Extent1\0", 8),
        "Extent\xef\xbc\x91"};
    // clang-format on
    for (const std::string& name : bad) {
        unsigned long long back = 7;
        EXPECT_FALSE(ExtentNameConverter::GetExtentNumberFromFileName(name, back)) << name;
        EXPECT_EQ(back, 7u) << name;
    }

    // A name the host gives by hand still decodes for restore; one without the word
    // or without digits after it does not.
    uint64_t n = 0;
    EXPECT_TRUE(vsstream::DecodeExtentName("disk0_Extent7.bin", n));
    EXPECT_EQ(n, 7u);
    EXPECT_FALSE(vsstream::DecodeExtentName("disk0_Block7", n));
    EXPECT_FALSE(vsstream::DecodeExtentName("Extent-7", n));
}
