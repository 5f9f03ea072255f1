#include <server/registry/password.h>

#include <memory>
#include <stdexcept>

#include <crypt.h>

namespace velia::server {

namespace {

constexpr const char *method = "$y$"; // yescrypt

std::string hash_with(const std::string &password, const std::string &setting) {
    const auto data = std::make_unique<crypt_data>();
    const char *hash = crypt_rn(password.c_str(), setting.c_str(), data.get(), sizeof *data);
    return hash != nullptr && hash[0] != '*' ? hash : "";
}

} // namespace

std::string hash_of(const std::string &password) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (crypt_gensalt_rn(method, 0, nullptr, 0, setting, sizeof setting) == nullptr)
        throw std::runtime_error("no salt for a password");
    std::string hash = hash_with(password, setting);
    if (hash.empty())
        throw std::runtime_error("a password of this length or form cannot be kept");
    return hash;
}

bool is_password(const std::string &password, const std::string &hash) {
    const std::string other = hash_with(password, hash);
    unsigned difference = other.size() == hash.size() ? 0 : 1;
    for (size_t i = 0; i < hash.size() && i < other.size(); ++i)
        difference |= static_cast<unsigned char>(other[i]) ^ static_cast<unsigned char>(hash[i]);
    return difference == 0 && !hash.empty();
}

} // namespace velia::server
