// Hash tables by chaining. All records also stand on one list in the order of entering, numbered upwards, so that a
// walk's state is a number that stays good whatever is freed; the list's next stop is remembered to find it at once.
#include <support/hash.h>

#include <cstddef>
#include <cstring>

#include <support/stg.h>
#include <support/sysutl.h>

namespace {

struct Node {
    Node *next_in_bucket;
    Node *older;
    Node *newer;
    uint64_t number; // of entering, from 1
    uint64_t hash;
    const void *key;
};

constexpr size_t least_buckets = 16;
constexpr size_t most_buckets = size_t{1} << 24;
constexpr size_t largest_size = size_t{1} << 40; // of a record or a key
constexpr size_t unit = alignof(max_align_t);

constexpr size_t aligned(size_t size) {
    return (size + unit - 1) / unit * unit;
}

constexpr size_t node_size = aligned(sizeof(Node));

} // namespace

struct hash_table {
    Node **buckets;
    size_t bucket_count; // a power of two
    size_t record_count;
    Node *oldest;
    Node *newest;
    Node *walk_stop; // where the latest walk goes on; null: at the end
    uint64_t walk_number;
    uint64_t last_number;
    uint64_t seed;
    size_t record_size;
    size_t key_length; // 0: strings
    bool copies_keys;
};

namespace {

size_t length_of_key(const hash_table &table, const void *key) {
    return table.key_length != 0 ? table.key_length : strlen(static_cast<const char *>(key)) + 1;
}

// The seed differs per table, so that keys from outside cannot be chosen to meet in one bucket.
uint64_t hash_of(const hash_table &table, const void *key) {
    constexpr uint64_t prime = 0x100000001b3;
    uint64_t hash = table.seed;
    const auto *bytes = static_cast<const unsigned char *>(key);
    const size_t length = length_of_key(table, key);
    for (size_t i = 0; i < length; ++i)
        hash = (hash ^ bytes[i]) * prime;
    hash ^= hash >> 33;
    hash *= 0xff51afd7ed558ccd;
    return hash ^ hash >> 33;
}

bool same_key(const hash_table &table, const void *left, const void *right) {
    if (table.key_length != 0)
        return memcmp(left, right, table.key_length) == 0;
    return strcmp(static_cast<const char *>(left), static_cast<const char *>(right)) == 0;
}

Node **bucket_of(const hash_table &table, uint64_t hash) {
    return &table.buckets[hash & (table.bucket_count - 1)];
}

// The link that leads to the key's node, or to the null at its bucket's end.
Node **link_to(const hash_table &table, const void *key, uint64_t hash) {
    Node **link = bucket_of(table, hash);
    while (*link != nullptr && ((*link)->hash != hash || !same_key(table, (*link)->key, key)))
        link = &(*link)->next_in_bucket;
    return link;
}

void *record_of(Node *node) {
    return reinterpret_cast<char *>(node) + node_size;
}

void give(const Node *node, void **out_key, void **out_record) {
    if (out_key != nullptr)
        *out_key = node != nullptr ? const_cast<void *>(node->key) : nullptr;
    if (out_record != nullptr)
        *out_record = node != nullptr ? record_of(const_cast<Node *>(node)) : nullptr;
}

Node **new_buckets(size_t count) {
    const size_t bytes = count * sizeof(void *);
    auto **buckets = static_cast<Node **>(stg_malloc(bytes));
    if (buckets != nullptr)
        memset(buckets, 0, bytes);
    return buckets;
}

// Without memory for more buckets the table goes on with longer chains.
void grow_if_full(hash_table &table) {
    if (table.record_count < table.bucket_count || table.bucket_count >= most_buckets)
        return;
    const size_t count = table.bucket_count * 2;
    Node **buckets = new_buckets(count);
    if (buckets == nullptr)
        return;
    stg_free(table.buckets);
    table.buckets = buckets;
    table.bucket_count = count;
    for (Node *node = table.oldest; node != nullptr; node = node->newer) {
        Node **bucket = bucket_of(table, node->hash);
        node->next_in_bucket = *bucket;
        *bucket = node;
    }
}

// The record, and a copied key behind it, are parts of the node's block.
Node *new_node(const hash_table &table, const void *key) {
    const size_t copied = table.copies_keys ? length_of_key(table, key) : 0;
    const size_t size = node_size + aligned(table.record_size) + copied;
    auto *node = static_cast<Node *>(stg_malloc(size));
    if (node == nullptr)
        return nullptr;
    memset(node, 0, size);
    node->key = key;
    if (table.copies_keys)
        node->key = memcpy(static_cast<char *>(record_of(node)) + aligned(table.record_size), key, copied);
    return node;
}

void append_node(hash_table &table, Node *node) {
    node->number = ++table.last_number;
    node->older = table.newest;
    (table.newest != nullptr ? table.newest->newer : table.oldest) = node;
    table.newest = node;
    if (table.walk_stop == nullptr)
        table.walk_stop = node;
    ++table.record_count;
}

void unlink_node(hash_table &table, Node *node) {
    (node->older != nullptr ? node->older->newer : table.oldest) = node->newer;
    (node->newer != nullptr ? node->newer->older : table.newest) = node->older;
    if (table.walk_stop == node)
        table.walk_stop = node->newer;
    --table.record_count;
}

int enter(hash_table &table, const void *key, void **out_key, void **out_record) {
    const uint64_t hash = hash_of(table, key);
    Node *standing = *link_to(table, key, hash);
    if (standing != nullptr) {
        give(standing, out_key, out_record);
        return 1;
    }
    Node *node = new_node(table, key);
    give(node, out_key, out_record);
    if (node == nullptr)
        return -1;
    grow_if_full(table);
    node->hash = hash;
    Node **bucket = bucket_of(table, hash);
    node->next_in_bucket = *bucket;
    *bucket = node;
    append_node(table, node);
    return 0;
}

int lookup(const hash_table &table, const void *key, void **out_key, void **out_record) {
    const Node *node = *link_to(table, key, hash_of(table, key));
    give(node, out_key, out_record);
    return node != nullptr;
}

int remove(hash_table &table, const void *key, void **out_key, void **out_record) {
    Node **link = link_to(table, key, hash_of(table, key));
    Node *node = *link;
    give(nullptr, out_key, out_record);
    if (node == nullptr)
        return 0;
    if (out_key != nullptr && !table.copies_keys)
        *out_key = const_cast<void *>(node->key);
    *link = node->next_in_bucket;
    unlink_node(table, node);
    stg_free(node);
    return 1;
}

// Another walk than the latest one has to search for its place.
Node *next_of_walk(const hash_table &table, uint64_t number) {
    if (number == table.walk_number)
        return table.walk_stop;
    Node *node = table.oldest;
    while (node != nullptr && node->number <= number)
        node = node->newer;
    return node;
}

int next(hash_table &table, hash_iter_t *state, void **out_key, void **out_record) {
    Node *node = *state != 0 ? next_of_walk(table, *state) : table.oldest;
    give(node, out_key, out_record);
    if (node == nullptr)
        return 0;
    *state = table.walk_number = node->number;
    table.walk_stop = node->newer;
    return 1;
}

hash_table_t create(size_t size, size_t record_size, int flag, size_t key_length) {
    if (record_size > largest_size || key_length > largest_size ||
        (flag != HASH_KEEP_POINTER && flag != HASH_KEEP_COPY))
        return nullptr;
    size_t bucket_count = least_buckets;
    while (bucket_count < size && bucket_count < most_buckets)
        bucket_count *= 2;
    auto *table = static_cast<hash_table *>(stg_malloc(sizeof(hash_table)));
    Node **buckets = new_buckets(bucket_count);
    if (table == nullptr || buckets == nullptr) {
        stg_free(table);
        stg_free(buckets);
        return nullptr;
    }
    *table = {};
    table->buckets = buckets;
    table->bucket_count = bucket_count;
    table->seed = sysutl_sock_port_uniquifier() * 0x9e3779b97f4a7c15;
    table->record_size = record_size;
    table->key_length = key_length;
    table->copies_keys = flag == HASH_KEEP_COPY;
    return table;
}

} // namespace

hash_table_t hash_str_create(size_t size, size_t record_size, int flag) {
    return create(size, record_size, flag, 0);
}

hash_table_t hash_flen_create(size_t size, size_t record_size, int flag, size_t key_length) {
    return key_length != 0 ? create(size, record_size, flag, key_length) : nullptr;
}

// Every table keeps the order.
void hash_set_order(hash_table_t) {}

int hash_str_enter(hash_table_t table, const char *key, void **out_key, void **out_record) {
    return enter(*table, key, out_key, out_record);
}

int hash_flen_enter(hash_table_t table, const void *key, void **out_key, void **out_record) {
    return enter(*table, key, out_key, out_record);
}

int hash_str_lookup(hash_table_t table, const char *key, void **out_key, void **out_record) {
    return lookup(*table, key, out_key, out_record);
}

int hash_flen_lookup(hash_table_t table, const void *key, void **out_key, void **out_record) {
    return lookup(*table, key, out_key, out_record);
}

int hash_str_free(hash_table_t table, const char *key, void **out_key, void **out_record) {
    return remove(*table, key, out_key, out_record);
}

int hash_flen_free(hash_table_t table, const void *key, void **out_key, void **out_record) {
    return remove(*table, key, out_key, out_record);
}

int hash_str_next(hash_table_t table, hash_iter_t *state, void **out_key, void **out_record) {
    return next(*table, state, out_key, out_record);
}

int hash_flen_next(hash_table_t table, hash_iter_t *state, void **out_key, void **out_record) {
    return next(*table, state, out_key, out_record);
}

void hash_delete_ht(hash_table_t *table) {
    if (table == nullptr || *table == nullptr)
        return;
    for (Node *node = (*table)->oldest; node != nullptr;) {
        Node *newer = node->newer;
        stg_free(node);
        node = newer;
    }
    stg_free((*table)->buckets);
    stg_free(*table);
    *table = nullptr;
}
