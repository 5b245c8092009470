#include "mail/held_connection.h"

#include "mail/state_path.h"

#include <cstdlib>

namespace client {

namespace {

std::string path_of(const std::string& key) {
    return state_directory() + "/live/" + key + ".held";
}

}  // namespace

held_connection::held_connection(const std::string& key, clock::time_point connected_at)
    : file_(path_of(key), state_file::access::create) {
    // The clock counts from the start of the machine, so processes can compare it. The text has a fixed width.
    std::string text = std::to_string(connected_at.time_since_epoch().count());
    text.insert(0, 20 - std::min<std::size_t>(text.size(), 20), '0');
    if (!file_.is_open() || !file_.lock() || !file_.write_at(0, text)) {
        file_ = state_file();
    }
}

held_connection::~held_connection() {
    if (is_held()) {
        file_.remove();
    }
}

bool held_connection::older_exists(const std::string& key, clock::time_point connecting_at) {
    state_file file(path_of(key), state_file::access::update);
    const long long since = file.is_open() ? std::strtoll(file.read().c_str(), nullptr, 10) : 0;
    // remove_dead() comes last: the holder may have ended since the file was opened. Then no other process gets our
    // messages.
    return since != 0 && since < connecting_at.time_since_epoch().count() && !file.remove_dead();
}

}  // namespace client
