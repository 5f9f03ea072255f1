// The wrapped operations whose loans and words are noted. See wraps.cpp for where a raise may arrive.
#include <tests/sim/noted.h>

#include <cstring>

#include <dirent.h>

#include <gtest/gtest.h>

#include <support/clp.h>
#include <support/credmap.h>
#include <support/ivlthread.h>
#include <tests/sim/world.h>

namespace sim {

Noted &noted() {
    static Noted noted;
    return noted;
}

std::atomic<int> &thread_blocks() {
    static std::atomic<int> blocks;
    return blocks;
}

namespace {

using AuthenticatorOperations = std::remove_pointer_t<decltype(AUTH::ah_ops)>;

AuthenticatorOperations real_operations;

void destroy_noted(AUTH *authenticator) {
    --noted().authenticators;
    real_operations.ah_destroy(authenticator);
}

void destroy_first(AUTH *) {
    --noted().first_authenticators;
}

} // namespace

void make_first_authenticator(AUTH &authenticator) {
    static AuthenticatorOperations operations = *authnone_create()->ah_ops;
    operations.ah_destroy = destroy_first;
    authenticator = *authnone_create();
    authenticator.ah_ops = &operations;
    ++noted().first_authenticators;
}

AUTH *note_authenticator(AUTH *authenticator) {
    static AuthenticatorOperations operations;
    if (authenticator == nullptr)
        return nullptr;
    real_operations = operations = *authenticator->ah_ops;
    operations.ah_destroy = destroy_noted;
    authenticator->ah_ops = &operations;
    ++noted().authenticators;
    return authenticator;
}

} // namespace sim

using sim::noted;

extern "C" {

int __real_credmap_local_to_remote_sid(const credutl_sid_credentials_t *credentials, const char *host,
                                       credutl_sid_credentials_t *result);
int __wrap_credmap_local_to_remote_sid(const credutl_sid_credentials_t *credentials, const char *host,
                                       credutl_sid_credentials_t *result) {
    noted().mapped_credentials.push_back({host, *credentials});
    return __real_credmap_local_to_remote_sid(credentials, host, result);
}

void *__real_ivlthread_alloc_tls(size_t size);
void *__wrap_ivlthread_alloc_tls(size_t size) {
    ++sim::thread_blocks();
    void *block = __real_ivlthread_alloc_tls(size);
    if (noted().soils_thread_blocks && block != nullptr)
        memset(block, 0x5a, size);
    return block;
}

int __real_ivlthread_set_tls(ivlthread_key_t key, void *value);
int __wrap_ivlthread_set_tls(ivlthread_key_t key, void *value) {
    return noted().keeps_no_thread_values ? 1 : __real_ivlthread_set_tls(key, value);
}

void __real_ivlthread_free_tls(void *block);
void __wrap_ivlthread_free_tls(void *block) {
    --sim::thread_blocks();
    __real_ivlthread_free_tls(block);
}

dirent *__real_readdir(DIR *directory);
dirent *__wrap_readdir(DIR *directory) {
    auto &entries = noted().directory_entries;
    if (entries.empty())
        return __real_readdir(directory);
    static dirent entry;
    entry.d_name[entries.front().copy(entry.d_name, sizeof entry.d_name - 1)] = '\0';
    entries.pop_front();
    return &entry;
}

int __real_clp_get_next_flag_value(clp_hdl_t parser, int reserved, int *index);
int __wrap_clp_get_next_flag_value(clp_hdl_t parser, int reserved, int *index) {
    EXPECT_EQ(reserved, 1);
    const int found = __real_clp_get_next_flag_value(parser, reserved, index);
    auto &rows = noted().flag_rows;
    if (found == CLP_FLAG && !rows.empty()) {
        *index = rows.front();
        rows.pop_front();
    }
    return found;
}

int __real_clp_get_last_flag_name(clp_hdl_t parser, int reserved, size_t size, char *name);
int __wrap_clp_get_last_flag_name(clp_hdl_t parser, int reserved, size_t size, char *name) {
    EXPECT_EQ(reserved, 1);
    return __real_clp_get_last_flag_name(parser, reserved, size, name);
}

void __real_hash_set_order(hash_table_t table);
void __wrap_hash_set_order(hash_table_t table) {
    noted().ordered_tables.insert(table);
    __real_hash_set_order(table);
}

int __real_strutl_write(const char *text, const char *path, int reserved1, int reserved2);
int __wrap_strutl_write(const char *text, const char *path, int reserved1, int reserved2) {
    EXPECT_EQ(reserved1, 0);
    EXPECT_EQ(reserved2, 0);
    return __real_strutl_write(text, path, reserved1, reserved2);
}

} // extern "C"
