// A site whose registry is saved and restored.
#pragma once

#include <string>

#include <tests/system/support/registry_site.h>

namespace velia::system_test {

struct BackupSite : RegistrySite {
    std::string saved() const { return site.path("registry.saved"); }
    std::string stored() const { return site.path("host/priv/registry.db"); }

    Outcome server(Words words, const Words &environment = {}) const {
        words.insert(words.begin(), RVZD_SERVER);
        return run_apart(site, words, environment);
    }
    Outcome save(const Words &environment = {}) const { return server({"--save-registry", saved()}, environment); }
    Outcome restore(const Words &environment = {}) const {
        return server({"--restore-registry", saved()}, environment);
    }
    void add_regions(const Words &names) const {
        for (const auto &name : names)
            ASSERT_EQ(add_region(name), TBS_ST_OK);
    }
};

} // namespace velia::system_test
