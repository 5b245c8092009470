#include "options/module_list.h"

#include "mail/replace_file.h"
#include "mail/state_file.h"
#include "mail/state_path.h"
#include "protocol/listings.h"
#include "term/text.h"

namespace client {

namespace {

// Empty when there is no directory for it.
std::string path_for(const host_name& host) {
    const std::string directory = private_directory();
    return directory.empty() ? "" : directory + "/modules-" + key_of(host);
}

}  // namespace

void keep_modules(const host_name& host, std::string_view answer) {
    std::string names;
    // The shells show these names on the terminal.
    for (const module_row& row : parse_modules(printable_text().clean(answer))) {
        names += row.name + "\n";
    }
    // A listing that cannot be kept is only missing in completion.
    if (std::string path = path_for(host), problem; !path.empty()) {
        replace_file(path, names, 0600, false, problem);
    }
}

std::vector<std::string> kept_modules(const host_name& host) {
    std::vector<std::string> names;
    each_line(read_file(path_for(host)).value_or(""),
              [&names](const std::string& name) { names.push_back(name); });
    return names;
}

}  // namespace client
