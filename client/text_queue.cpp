#include "text_queue.h"

#include "text.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

// For each queue: a usual answer needs no file, and the answers of many hosts do not fill the memory.
constexpr std::size_t most_in_memory = 16384;  // bytes

// Throws, because incomplete output must not look like a complete answer.
[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), "cannot store waiting output: " + what);
}

// Opens a temporary file and removes its name, so that it disappears with the process in any case.
int open_nameless() {
    const char* directory = std::getenv("TMPDIR");
    // A relative path would depend on the working directory, so it is ignored.
    std::string path = directory != nullptr && directory[0] == '/' ? directory : "/tmp";
    path += "/schedctl-XXXXXX";
    // Only the owner may read the file: output can be confidential.
    const int file = mkostemp(path.data(), O_CLOEXEC);
    if (file < 0) {
        fail(path);
    }
    // A failure leaves the file behind, but the queue works.
    unlink(path.c_str());
    return file;
}

}  // namespace

text_queue::~text_queue() {
    if (file_ >= 0) {
        close(file_);
    }
}

text_queue::text_queue(text_queue&& other) noexcept
    : memory_(std::move(other.memory_)), file_(std::exchange(other.file_, -1)) {}

void text_queue::add(std::string_view text) {
    memory_ += text;
    if (memory_.size() > most_in_memory) {
        move_to_file();
    }
}

void text_queue::move_to_file() {
    if (file_ < 0) {
        file_ = open_nameless();
    }
    // All of memory_ goes to the file, so that later text in memory always follows that of the file.
    if (!write_all(file_, memory_)) {
        fail("temporary file");
    }
    memory_.clear();
}

void text_queue::drain(const std::function<void(std::string_view)>& take) {
    if (file_ >= 0) {
        // Writing has left the position at the end. The file is read in pieces, as it may be larger than the
        // memory.
        lseek(file_, 0, SEEK_SET);
        std::string piece(most_in_memory, '\0');
        ssize_t n = 0;
        while ((n = read(file_, piece.data(), piece.size())) > 0) {
            take(std::string_view(piece).substr(0, static_cast<std::size_t>(n)));
        }
        if (n < 0) {
            fail("temporary file");
        }
        close(std::exchange(file_, -1));
    }
    const std::string rest = std::exchange(memory_, {});
    if (!rest.empty()) {
        take(rest);
    }
}

}  // namespace client
