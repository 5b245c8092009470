// The module list: every entry in the table is complete.
#include "command/module_table.h"
#include "support.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    suite.write("vgd_modules", fuzz::text_of(data, size));
    fuzz::require(read_modules() == 0, "an existing file is read");
    fuzz::require(mod_max <= module_max, "the table has no more than its maximum of entries");
    for (int i = 0; i < mod_max; i++) {
        const module_entry& entry = mod[i];
        for (const char* text : {entry.name, entry.entrypath, entry.display})
            fuzz::require(text[0] != '\0' && std::strpbrk(text, " \t\n") == nullptr, "each text is one word");
        fuzz::require(entry.name[0] >= 'a' && entry.name[0] <= 'z', "a name begins with a letter");
        fuzz::require(entry.enabled == 1 && is_modulebusy(entry.name, nullptr) == 0,
                      "an entry is switched on at first");
        fuzz::require(is_external(entry.name) == (get_entrypath(entry.name) != nullptr ? 1 : 0) &&
                          is_external(entry.name) + is_internal(entry.name) == 1,
                      "a listed word is either internal or has a program");
    }
    return 0;
}
