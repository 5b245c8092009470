// What the property tests share. rapidcheck prints the seed when it starts. For a failure it prints the smallest input
// that it found, and the value of RC_PARAMS with which the test meets that input again.
#pragma once

#include "unit_support.h"

#include <rapidcheck.h>

namespace unit {

// Names in a generated text that stand for longer texts, so that a printed input stays short.
using Names = std::vector<std::pair<std::string, std::string>>;

inline std::string expand(std::string text, const Names& names) {
    for (const auto& [name, meaning] : names) {
        for (std::size_t at = 0; (at = text.find(name, at)) != std::string::npos; at += meaning.size())
            text.replace(at, name.size(), meaning);
    }
    return text;
}

}  // namespace unit
