// Whether JSON is as a schema says. It knows the words of JSON Schema that the tool's schemas use and no others: one
// that it does not know is a fault, so that nothing passes unlooked at.
#pragma once

#include <string>

#include <tests/system/support/json.h>

namespace velia::system_test {

// The first fault with the place where it is; empty for none.
std::string fault_by_schema(const Json &value, const Json &schema, const std::string &place = "$");

} // namespace velia::system_test
