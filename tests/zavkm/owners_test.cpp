// owners_test.cpp - the owners of zavkm.hpp: SecretBytes keeps what it should and leaves no
// byte it let go of readable; Counted and Out release exactly once, with the count that came
// with the array. Leaks show up through LeakSanitizer, which this binary links.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "zavkm.hpp"

namespace {

using zavkm::SecretBytes;

SecretBytes bytesOf(std::vector<uint8_t> v) { return SecretBytes(v.data(), v.size()); }
std::vector<uint8_t> contents(const SecretBytes& b) { return {b.begin(), b.end()}; }

TEST(SecretBytes, EqualityComparesLengthAndEveryByte) {
    struct Row {
        const char* name;
        std::vector<uint8_t> a, b;
        bool equal;
    };
    const Row rows[] = {
        {"same", {1, 2, 3, 4}, {1, 2, 3, 4}, true},
        {"both empty", {}, {}, true},
        {"first byte differs", {9, 2, 3, 4}, {1, 2, 3, 4}, false},
        {"last byte differs", {1, 2, 3, 4}, {1, 2, 3, 5}, false},
        {"only a high bit differs", {1, 2, 3, 0x04}, {1, 2, 3, 0x84}, false},
        {"prefix", {1, 2, 3}, {1, 2, 3, 4}, false},
        {"empty and not", {}, {0}, false},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(bytesOf(r.a) == bytesOf(r.b), r.equal) << r.name;
        EXPECT_EQ(bytesOf(r.b) == bytesOf(r.a), r.equal) << r.name;
    }
}

TEST(SecretBytes, ResizeKeepsThePrefixZeroesNewBytesAndWipesCutOnes) {
    SecretBytes b = bytesOf({1, 2, 3, 4, 5, 6});
    b.resize(2);  // the storage stays: what was cut must read as zero
    EXPECT_EQ(contents(b), (std::vector<uint8_t>{1, 2}));
    for (size_t i = 2; i < 6; ++i) EXPECT_EQ(b.data()[i], 0) << i;
    b.resize(4);
    EXPECT_EQ(contents(b), (std::vector<uint8_t>{1, 2, 0, 0}));
    b.resize(100);  // new storage: the contents move over
    ASSERT_EQ(b.size(), 100u);
    EXPECT_EQ(b[0], 1);
    EXPECT_EQ(b[1], 2);
    for (size_t i = 2; i < 100; ++i) EXPECT_EQ(b[i], 0) << i;
    EXPECT_EQ(contents(SecretBytes(3)), (std::vector<uint8_t>{0, 0, 0}));
}

TEST(SecretBytes, AssignAndCopyReplaceTheContentsAndWipeTheRest) {
    SecretBytes b = bytesOf({7, 7, 7, 7});
    const uint8_t shorter[] = {1, 2};
    b.assign(shorter, sizeof shorter);
    EXPECT_EQ(contents(b), (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(b.data()[2], 0);
    EXPECT_EQ(b.data()[3], 0);
    const std::vector<uint8_t> longer(40, 9);
    b.assign(longer.data(), longer.size());
    EXPECT_EQ(contents(b), longer);

    SecretBytes copy(b);
    EXPECT_EQ(contents(copy), longer);
    EXPECT_NE(copy.data(), b.data());
    copy = bytesOf({5});
    EXPECT_EQ(contents(copy), (std::vector<uint8_t>{5}));
    copy = copy;  // assigning to itself changes nothing
    EXPECT_EQ(contents(copy), (std::vector<uint8_t>{5}));
    b = copy;
    EXPECT_EQ(contents(b), (std::vector<uint8_t>{5}));
}

TEST(SecretBytes, WipeZeroesAndKeepsTheSize) {
    SecretBytes b = bytesOf({1, 2, 3});
    b.wipe();
    EXPECT_EQ(contents(b), (std::vector<uint8_t>{0, 0, 0}));
    EXPECT_FALSE(b.empty());
}

TEST(SecretBytes, MovingHandsTheStorageOverAndLeavesTheSourceEmpty) {
    SecretBytes a = bytesOf({1, 2, 3});
    const uint8_t* storage = a.data();
    SecretBytes b(std::move(a));
    EXPECT_EQ(b.data(), storage);
    EXPECT_EQ(contents(b), (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_TRUE(a.empty());  // NOLINT(bugprone-use-after-move): what is left is the point
    EXPECT_EQ(a.data(), nullptr);
    a.resize(2);  // a moved-from buffer is usable again
    EXPECT_EQ(contents(a), (std::vector<uint8_t>{0, 0}));

    SecretBytes c = bytesOf({9, 9});
    c = std::move(b);
    EXPECT_EQ(c.data(), storage);
    EXPECT_EQ(b.size(), 0u);
    EXPECT_EQ(b.data(), nullptr);
}

// Released arrays: what Counted passed to its release function.
struct Released {
    int* records;
    uint32_t count;
};
std::vector<Released> released;
void releaseInts(int* records, uint32_t count) noexcept {
    released.push_back({records, count});
    delete[] records;
}
using Ints = zavkm::Counted<int, releaseInts>;

TEST(Counted, ReleasesOnceWithTheCountThatCameWithTheArray) {
    released.clear();
    int* first = new int[3]{1, 2, 3};
    int* second = new int[1]{4};
    {
        Ints a(first, 3);
        EXPECT_EQ(a.size(), 3u);
        EXPECT_EQ(a[2], 3);
        EXPECT_EQ(a.end() - a.begin(), 3);
        Ints b(std::move(a));
        EXPECT_EQ(a.get(), nullptr);  // NOLINT(bugprone-use-after-move)
        EXPECT_TRUE(a.empty());
        EXPECT_TRUE(released.empty());
        Ints c(second, 1);
        c = std::move(b);  // c's own array goes now, b's later
        ASSERT_EQ(released.size(), 1u);
        EXPECT_EQ(released[0].records, second);
        EXPECT_EQ(released[0].count, 1u);
    }
    ASSERT_EQ(released.size(), 2u);  // the moved-from owners release nothing
    EXPECT_EQ(released[1].records, first);
    EXPECT_EQ(released[1].count, 3u);

    Ints none;
    EXPECT_EQ(none.begin(), none.end());
    none.reset();
    EXPECT_EQ(released.size(), 2u);
}

TEST(Out, TheRecordLandsInTheOwnerAfterTheCall) {
    zavkm::DNPtr dn;
    ASSERT_EQ(ZAVKM_InitDNItem(zavkm::out(dn)), ZAVKM_OK);
    ASSERT_NE(dn, nullptr);
    EXPECT_EQ(dn->cn, nullptr);
    auto fails = [](ZAVKM_DNItem** slot) { *slot = nullptr; };
    fails(zavkm::out(dn));  // the owner takes what the call left, null included; the record it
    EXPECT_EQ(dn, nullptr);  // held is released (LeakSanitizer would report it otherwise)

    zavkm::BlockPtr block(static_cast<uint8_t*>(ZAVKM_Malloc(16)));
    ASSERT_NE(block, nullptr);
}

}  // namespace
