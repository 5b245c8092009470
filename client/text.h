// Text on its way out. On a terminal, what modules and messages say must not steer it.
#pragma once

#include <string>
#include <string_view>

namespace client {

// Makes a stream printable: line feeds, tabs and printable characters of the locale pass, carriage returns
// are dropped, any other byte becomes \xHH. A character that arrives in two pieces is put together again.
class printable_text {
public:
    std::string clean(std::string_view bytes);

private:
    std::string pending_;
};

// Writes all bytes, however many calls it takes. false when the descriptor refuses them; errno says why.
bool write_all(int fd, std::string_view bytes);

// One line of foreign text, printable and cut to so many columns of the terminal.
std::string fit(std::string_view text, std::size_t columns);

}  // namespace client
