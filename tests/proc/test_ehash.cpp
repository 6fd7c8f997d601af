#include "proc.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <malloc.h>
#include <stdint.h>
#include <stddef.h>
#include <string.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

// A caller record with the link entry in the middle, as the leak monitor has it.
struct record {
    int pid;
    char pad[12];
    ehash_entry link;
    int value;
};
const size_t LINK = offsetof(record, link);

// Records must outlive the table that links them, so tests declare them first.
struct Table {
    ehash *t;
    explicit Table(unsigned hint) : t(ehash_new(hint)) {}
    ~Table() { ehash_free(t); }
};

uint32_t bucket(const ehash *t, const void *key, uint32_t len)
{
    return ehash_hash(key, len) & (t->nbuckets - 1);
}

TEST(Ehash, BucketCountFromTheHint)
{
    const std::pair<unsigned, uint32_t> cases[] = {
        {0, 16}, {1, 2}, {2, 4}, {3, 4}, {4, 8}, {15, 16}, {16, 32}, {17, 32},
        {512, 1024}, {1000, 1024}, {1023, 1024}, {1024, 2048},
    };
    for (auto [hint, want] : cases) {
        Table t(hint);
        ASSERT_NE(t.t, nullptr);
        EXPECT_EQ(t.t->nbuckets, want) << "hint " << hint;
        EXPECT_EQ(t.t->count, 0u);
        for (uint32_t i = 0; i <= want; i++) // the spare word included
            EXPECT_EQ(t.t->buckets[i], nullptr);
    }
}

TEST(Ehash, AHintBeyondTheLargestTableGivesNull)
{
    EXPECT_EQ(ehash_new(0xffffffffu), nullptr);
    EXPECT_EQ(ehash_new(0x80000000u), nullptr);
}

// From a hint of 0x20000000 on, a 32-bit target cannot even express the
// block size (2^30 + 1 bucket words of 4 bytes); a wrapped size would make
// calloc hand out a few bytes that claim a huge bucket array.
TEST(Ehash, AHintWhoseBlockSizeDoesNotFitSizeTGivesNull)
{
    for (unsigned hint : {0x20000000u, 0x30000000u, 0x40000000u, 0x7fffffffu}) {
        uint64_t buckets = 1;
        while (buckets <= hint)
            buckets <<= 1;
        uint64_t need = 2 * sizeof(uint32_t) + (buckets + 1) * sizeof(ehash_entry *);
        if (need <= SIZE_MAX)
            continue;  // a 64-bit target can express it; nothing to check there
        ehash *t = ehash_new(hint);
        EXPECT_EQ(t, nullptr) << std::hex << "hint 0x" << hint << ": " << t->nbuckets
                              << " buckets in a block of " << malloc_usable_size(t)
                              << " bytes";
        ehash_free(t);
    }
}

TEST(Ehash, HashIs65599Multiplicative)
{
    EXPECT_EQ(ehash_hash("", 0), 0u);
    EXPECT_EQ(ehash_hash("a", 1), 97u);
    uint32_t h = 0;
    for (unsigned char c : std::string("abc"))
        h = h * 65599u + c;
    EXPECT_EQ(ehash_hash("abc", 3), h);
    // Bytes count as unsigned.
    const unsigned char hi[] = {0xff, 0x80};
    EXPECT_EQ(ehash_hash(hi, 2), 0xffu * 65599u + 0x80u);
}

TEST(Ehash, BinaryKeysHashAllBytesIncludingZeros)
{
    record r[3] = {};
    Table t(0);
    int32_t pids[] = {0x00000100, 0x00010000, 0x01000000};
    for (int i = 0; i < 3; i++) {
        ehash_entry **head = ehash_insert_e(t.t, &pids[i], 4, &r[i].link);
        EXPECT_EQ(head, &t.t->buckets[bucket(t.t, &pids[i], 4)]);
        EXPECT_EQ(r[i].link.keylen, 4u);
    }
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(ehash_lookup_e(t.t, &pids[i], 4, LINK), &r[i]);
    }
    // Treating the pid as a string would have stopped at its first zero byte.
    EXPECT_NE(ehash_hash(&pids[1], 4), ehash_hash(&pids[1], 0));
    EXPECT_EQ(t.t->count, 3u);
}

TEST(Ehash, ZeroLengthMeansString)
{
    record r = {};
    record empty = {};
    Table t(8);
    ehash_insert_e(t.t, "hearth", 0, &r.link);
    EXPECT_EQ(r.link.keylen, 6u);
    EXPECT_EQ(memcmp(r.link.key, "hearth", 6), 0);
    EXPECT_NE(r.link.key, static_cast<const void *>("hearth")); // a copy
    EXPECT_EQ(ehash_lookup_e(t.t, "hearth", 6, LINK), &r);
    EXPECT_EQ(ehash_lookup_e(t.t, "hearth", 0, LINK), &r);
    EXPECT_EQ(ehash_lookup_e(t.t, "heart", 0, LINK), nullptr);

    EXPECT_EQ(ehash_insert_e(t.t, "", 0, &empty.link), &t.t->buckets[0]);
    EXPECT_EQ(ehash_lookup_e(t.t, "", 0, LINK), &empty);
}

// Two different keys of the same length that land in the same bucket.
std::pair<uint32_t, uint32_t> colliding(const ehash *t)
{
    std::map<uint32_t, uint32_t> seen;
    for (uint32_t k = 1;; k++) {
        uint32_t b = bucket(t, &k, 4);
        auto it = seen.find(b);
        if (it != seen.end())
            return {it->second, k};
        seen[b] = k;
    }
}

TEST(Ehash, LookupComparesBytesNotJustTheBucket)
{
    record ra = {};
    Table t(0);
    auto [a, b] = colliding(t.t);
    ASSERT_EQ(bucket(t.t, &a, 4), bucket(t.t, &b, 4));
    ehash_insert_e(t.t, &a, 4, &ra.link);
    EXPECT_EQ(ehash_lookup_e(t.t, &a, 4, LINK), &ra);
    EXPECT_EQ(ehash_lookup_e(t.t, &b, 4, LINK), nullptr);
    // Same leading bytes, other length.
    EXPECT_EQ(ehash_lookup_e(t.t, &a, 2, LINK), nullptr);
}

TEST(Ehash, LaterInsertShadowsEarlierForLookup)
{
    record first = {}, second = {};
    Table t(4);
    ehash_insert_e(t.t, "k", 0, &first.link);
    ehash_insert_e(t.t, "k", 0, &second.link);
    EXPECT_EQ(t.t->count, 2u);
    EXPECT_EQ(ehash_lookup_e(t.t, "k", 0, LINK), &second);
    EXPECT_EQ(ehash_remove(t.t, &second.link), 0);
    EXPECT_EQ(ehash_lookup_e(t.t, "k", 0, LINK), &first);
    EXPECT_EQ(t.t->count, 1u);
}

TEST(Ehash, IteratingAnEmptyTableEndsAtOnce)
{
    Table t(100);
    ehash_iter it = {0, nullptr};
    EXPECT_EQ(ehash_iterate_e(t.t, &it, nullptr, nullptr, LINK), nullptr);
    EXPECT_EQ(it.bucket, 128u);
    // And stays at the end.
    EXPECT_EQ(ehash_iterate_e(t.t, &it, nullptr, nullptr, LINK), nullptr);
    EXPECT_EQ(it.bucket, 128u);
}

TEST(Ehash, IterationVisitsEveryEntryOnceInBucketOrder)
{
    const int N = 100;
    std::vector<record> recs(N);
    Table t(0);
    for (int i = 0; i < N; i++) {
        recs[i].pid = 1000 + i * 7;
        ehash_insert_e(t.t, &recs[i].pid, 4, &recs[i].link);
    }
    std::set<int> seen;
    ehash_iter it = {0, nullptr};
    uint32_t last_bucket = 0;
    void *key = nullptr;
    uint32_t keylen = 0;
    while (void *p = ehash_iterate_e(t.t, &it, &key, &keylen, LINK)) {
        record *r = static_cast<record *>(p);
        EXPECT_EQ(keylen, 4u);
        EXPECT_EQ(memcmp(key, &r->pid, 4), 0);
        EXPECT_EQ(it.bucket, bucket(t.t, &r->pid, 4));
        EXPECT_GE(it.bucket, last_bucket);
        last_bucket = it.bucket;
        EXPECT_EQ(it.cur, &r->link);
        EXPECT_TRUE(seen.insert(r->pid).second) << "visited twice: " << r->pid;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(N));
    EXPECT_EQ(it.bucket, 16u);
}

TEST(Ehash, RemoveUnlinksHeadMiddleAndTail)
{
    record r[5] = {};
    Table t(0);
    // Five keys in one bucket: chain order is newest first.
    std::vector<uint32_t> keys;
    uint32_t target = 3;
    for (uint32_t k = 1; keys.size() < 5; k++) {
        if (bucket(t.t, &k, 4) == target)
            keys.push_back(k);
    }
    for (int i = 0; i < 5; i++)
        ehash_insert_e(t.t, &keys[i], 4, &r[i].link);
    EXPECT_EQ(t.t->buckets[target], &r[4].link);

    EXPECT_EQ(ehash_remove(t.t, &r[2].link), 0); // middle
    EXPECT_EQ(ehash_remove(t.t, &r[4].link), 0); // head
    EXPECT_EQ(ehash_remove(t.t, &r[0].link), 0); // tail
    EXPECT_EQ(t.t->count, 2u);
    EXPECT_EQ(t.t->buckets[target], &r[3].link);
    EXPECT_EQ(r[3].link.next, &r[1].link);
    EXPECT_EQ(r[1].link.next, nullptr);
    EXPECT_EQ(ehash_lookup_e(t.t, &keys[2], 4, LINK), nullptr);
    EXPECT_EQ(ehash_lookup_e(t.t, &keys[1], 4, LINK), &r[1]);
    EXPECT_EQ(ehash_lookup_e(t.t, &keys[3], 4, LINK), &r[3]);
}

TEST(Ehash, RemovingAnEntryThatIsNotThereChangesNothing)
{
    record in = {};
    record stranger = {};
    Table t(0);
    auto [a, b] = colliding(t.t);
    ehash_insert_e(t.t, &a, 4, &in.link);

    // Never inserted, but its key hashes to a bucket that holds another entry.
    stranger.link.key = &b;
    stranger.link.keylen = 4;
    EXPECT_EQ(ehash_remove(t.t, &stranger.link), -ENOENT);
    EXPECT_EQ(t.t->count, 1u);
    EXPECT_EQ(ehash_lookup_e(t.t, &a, 4, LINK), &in);
    EXPECT_EQ(t.t->buckets[bucket(t.t, &a, 4)], &in.link);

    // Its bucket is empty.
    uint32_t c = 0;
    for (c = 1; bucket(t.t, &c, 4) == bucket(t.t, &a, 4); c++) {
    }
    stranger.link.key = &c;
    EXPECT_EQ(ehash_remove(t.t, &stranger.link), -ENOENT);
    EXPECT_EQ(t.t->count, 1u);
}

TEST(Ehash, RemovingTheSameEntryTwiceGivesEnoent)
{
    record r[2] = {};
    Table t(0);
    auto [a, b] = colliding(t.t);
    ehash_insert_e(t.t, &a, 4, &r[0].link);
    ehash_insert_e(t.t, &b, 4, &r[1].link);
    EXPECT_EQ(ehash_remove(t.t, &r[0].link), 0);
    // The key copy is gone; a second removal must not look at it.
    EXPECT_EQ(ehash_remove(t.t, &r[0].link), -ENOENT);
    EXPECT_EQ(t.t->count, 1u);
    EXPECT_EQ(ehash_lookup_e(t.t, &b, 4, LINK), &r[1]);

    // The same for a string key and for the last entry of its bucket.
    record s = {};
    ehash_insert_e(t.t, "name", 0, &s.link);
    EXPECT_EQ(ehash_remove(t.t, &s.link), 0);
    EXPECT_EQ(ehash_remove(t.t, &s.link), -ENOENT);
    EXPECT_EQ(ehash_remove(t.t, &r[1].link), 0);
    EXPECT_EQ(ehash_remove(t.t, &r[1].link), -ENOENT);
    EXPECT_EQ(t.t->count, 0u);
}

TEST(Ehash, RemovalDuringIterationWithRestart)
{
    // The leak monitor's pattern: remove, then restart from a zeroed iterator.
    std::vector<record> recs(40);
    Table t(0);
    for (int i = 0; i < 40; i++) {
        recs[i].pid = i;
        recs[i].value = i % 3;
        ehash_insert_e(t.t, &recs[i].pid, 4, &recs[i].link);
    }
    ehash_iter it = {0, nullptr};
    while (void *p = ehash_iterate_e(t.t, &it, nullptr, nullptr, LINK)) {
        record *r = static_cast<record *>(p);
        if (r->value == 0) {
            ASSERT_EQ(ehash_remove(t.t, &r->link), 0);
            it = {0, nullptr};
        }
    }
    EXPECT_EQ(t.t->count, 26u);
    int left = 0;
    it = {0, nullptr};
    while (void *p = ehash_iterate_e(t.t, &it, nullptr, nullptr, LINK)) {
        EXPECT_NE(static_cast<record *>(p)->value, 0);
        left++;
    }
    EXPECT_EQ(left, 26);
}

TEST(Ehash, FreeAcceptsNullAndLeavesEntriesToTheCaller)
{
    ehash_free(nullptr);
    auto r = std::make_unique<record>();
    ehash *t = ehash_new(0);
    ehash_insert_e(t, "x", 0, &r->link);
    ehash_free(t); // frees the key copy; the record stays ours (ASan would see misuse)
    r->value = 5;
    EXPECT_EQ(r->value, 5);
}

} // namespace
