// The kinds of store that the registry may be kept in, each with a place of its own for one test.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <server/registry/store.h>

namespace velia::server {

// Where one test's registry is. Nothing is left of it at the end.
class StorePlace {
public:
    StorePlace() = default;
    virtual ~StorePlace() = default;
    StorePlace(const StorePlace &) = delete;
    StorePlace &operator=(const StorePlace &) = delete;

    // One more store on the registry there, which is made if there is none.
    virtual std::unique_ptr<Store> open(bool &is_new) = 0;
};

struct StoreKind {
    std::string name;
    std::function<std::unique_ptr<StorePlace>()> make_place;
};

inline void PrintTo(const StoreKind &kind, std::ostream *out) {
    *out << kind.name;
}

std::vector<StoreKind> store_kinds();

} // namespace velia::server
