// The module list: the table against a second reading of each line.
#include "support.h"

#include "command/module_table.h"

#include <sstream>
#include <tuple>

namespace {

using row = std::tuple<std::string, std::string, std::string, int>;

std::vector<row> rows_of(std::string_view text) {
    std::vector<row> rows;
    for (const std::string& line : fuzz::pieces_of(text, 510)) {
        std::istringstream words(line);
        std::string name, path, display, number;
        char* end = nullptr;
        if (line[0] < 'a' || line[0] > 'z' || !(words >> name >> path >> display >> number)) continue;
        const auto timeout = static_cast<int>(std::strtol(number.c_str(), &end, 10));
        if (end != number.c_str() && rows.size() < module_max) rows.emplace_back(name, path, display, timeout);
    }
    return rows;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    suite.write("vgd_modules", fuzz::text_of(data, size));
    fuzz::require(read_modules() == 0, "a file that is there can be read");
    std::vector<row> found;
    for (int i = 0; i < mod_max; i++) {
        const module_entry& entry = mod[i];
        found.emplace_back(entry.name, entry.entrypath, entry.display, entry.timeout);
        fuzz::require(entry.enabled == 1 && is_modulebusy(entry.name, nullptr) == 0, "an entry starts on");
        fuzz::require(is_external(entry.name) == (get_entrypath(entry.name) != nullptr ? 1 : 0) &&
                          is_external(entry.name) + is_internal(entry.name) == 1,
                      "a listed word has a program or is internal");
    }
    fuzz::require(found == rows_of(fuzz::text_of(data, size)), "both readings find the same entries");
    return 0;
}
