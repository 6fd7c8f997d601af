#include "proc.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace {

uint32_t key_length(const void *key, uint32_t keylen)
{
    return keylen ? keylen : static_cast<uint32_t>(strlen(static_cast<const char *>(key)));
}

uint32_t bucket_of(const ehash *table, const void *key, uint32_t len)
{
    return len ? ehash_hash(key, len) & (table->nbuckets - 1) : 0;
}

void *to_record(ehash_entry *entry, size_t offset)
{
    return reinterpret_cast<char *>(entry) - offset;
}

} // namespace

uint32_t ehash_hash(const void *key, uint32_t len)
{
    const unsigned char *p = static_cast<const unsigned char *>(key);
    uint32_t h = 0;
    for (uint32_t i = 0; i < len; i++)
        h = h * 65599u + p[i];
    return h;
}

ehash *ehash_new(unsigned hint)
{
    uint64_t n = 16;
    if (hint) {
        uint64_t mask = hint;
        for (int shift = 1; shift < 32; shift <<= 1)
            mask |= mask >> shift;
        n = mask + 1;
    }
    // Past 2^31 buckets the count no longer fits its 32-bit field.
    if (n > 0x80000000u)
        return nullptr;
    // Worked out in 64 bits: on a 32-bit target a large hint gives a block
    // size that size_t cannot hold, and a wrapped size would get a tiny block.
    uint64_t size = offsetof(ehash, buckets) + (n + 1) * sizeof(ehash_entry *);
    if (size > SIZE_MAX)
        return nullptr;
    ehash *table = static_cast<ehash *>(calloc(1, static_cast<size_t>(size)));
    if (table)
        table->nbuckets = static_cast<uint32_t>(n);
    return table;
}

void ehash_free(ehash *table)
{
    if (!table)
        return;
    for (uint32_t i = 0; i < table->nbuckets; i++) {
        for (ehash_entry *e = table->buckets[i]; e; e = e->next)
            free(e->key);
    }
    free(table);
}

ehash_entry **ehash_insert_e(ehash *table, const void *key, uint32_t keylen, ehash_entry *entry)
{
    uint32_t len = key_length(key, keylen);
    ehash_entry **head = &table->buckets[bucket_of(table, key, len)];
    entry->keylen = len;
    entry->key = malloc(len ? len : 1);
    if (entry->key && len)
        memcpy(entry->key, key, len);
    entry->next = *head;
    *head = entry;
    table->count++;
    return head;
}

void *ehash_lookup_e(ehash *table, const void *key, uint32_t keylen, size_t offset)
{
    uint32_t len = key_length(key, keylen);
    for (ehash_entry *e = table->buckets[bucket_of(table, key, len)]; e; e = e->next) {
        if (e->keylen == len && memcmp(e->key, key, len) == 0)
            return to_record(e, offset);
    }
    return nullptr;
}

int ehash_remove(ehash *table, ehash_entry *entry)
{
    // A removed entry has no key copy left (its length stays): it is in no
    // bucket, and its key must not be hashed.
    if (!entry->key)
        return -ENOENT;
    ehash_entry **link = &table->buckets[bucket_of(table, entry->key, entry->keylen)];
    while (*link && *link != entry)
        link = &(*link)->next;
    if (!*link)
        return -ENOENT;
    *link = entry->next;
    table->count--;
    free(entry->key);
    entry->key = nullptr;
    entry->next = nullptr;
    return 0;
}

void *ehash_iterate_e(ehash *table, ehash_iter *iter, void **key, uint32_t *keylen,
                      size_t offset)
{
    if (iter->bucket > table->nbuckets)
        iter->bucket = table->nbuckets;
    // At the end the index equals the bucket count and reads the spare null word.
    ehash_entry *cand = iter->cur ? iter->cur->next : table->buckets[iter->bucket];
    uint32_t index = iter->bucket;
    if (!cand) {
        for (index = iter->bucket + 1; index < table->nbuckets; index++) {
            if (table->buckets[index]) {
                cand = table->buckets[index];
                break;
            }
        }
        if (!cand) {
            iter->bucket = table->nbuckets;
            iter->cur = nullptr;
            return nullptr;
        }
    }
    iter->bucket = index;
    iter->cur = cand;
    if (key)
        *key = cand->key;
    if (keylen)
        *keylen = cand->keylen;
    return to_record(cand, offset);
}
