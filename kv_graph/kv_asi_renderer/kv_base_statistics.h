#pragma once

// A statistics object as a host sees it: display rows of name/value text pairs, so a
// host can show any statistics object without knowing its class. Installed for hosts;
// includes nothing but the standard library.

#include <string>
#include <utility>
#include <vector>

// The order of the virtual operations is part of the contract with separately built
// hosts: never reorder, insert or remove one.
class kv_base_statistics {
public:
    virtual ~kv_base_statistics() = default;
    // (item name, item value text) pairs in display order.
    virtual std::vector<std::pair<std::string, std::string>> get_items() const = 0;
};
