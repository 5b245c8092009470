// A table of test cases is an array of rows.
#pragma once

#include <gmock/gmock.h>

#include <ostream>

// One case. With SCOPED_TRACE(row) a failure shows the row's name and what was given.
template <typename Given, typename Wanted>
struct Row {
    const char* name;
    Given given;
    Wanted wanted;
};

template <typename Given, typename Wanted>
std::ostream& operator<<(std::ostream& out, const Row<Given, Wanted>& row) {
    return out << row.name << ", given " << testing::PrintToString(row.given);
}
