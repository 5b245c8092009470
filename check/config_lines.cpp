#include "config_lines.h"

#include <cerrno>
#include <fstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace check {

namespace {

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

void validate_line(const std::string& path, int number, const std::string& line, std::size_t size, findings& to,
                   const std::function<void(const line_piece&)>& validate) {
    if (line.find('\0') != std::string::npos) {
        to.add(path, number, "a NUL character: what follows it is not read");
    }
    if (line.size() > size) {
        to.add(path, number,
               "longer than " + std::to_string(size - 1) + " characters: the rest is read as a further line");
    }
    for (std::size_t begin = 0; begin < line.size(); begin += size - 1) {
        const std::string piece = line.substr(begin, size - 1);
        validate({number, piece.substr(0, piece.find('\0'))});
    }
}

// Returns an empty text when path can be read as a file, otherwise the reason.
std::string why_unreadable(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || access(path.c_str(), R_OK) != 0) {
        return std::generic_category().message(errno);
    }
    return S_ISREG(info.st_mode) ? "" : "not a regular file";
}

}  // namespace

bool validate_lines(const std::string& path, std::size_t size, missing_file missing, findings& to,
                    const std::function<void(const line_piece&)>& validate) {
    if (missing == missing_file::allowed && access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        return false;
    }
    std::string reason = why_unreadable(path);
    std::ifstream file;
    if (reason.empty()) {
        file.open(path, std::ios::binary);
    }
    if (!file.is_open()) {
        to.unreadable(path, reason.empty() ? std::generic_category().message(errno) : reason);
        return false;
    }
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        validate_line(path, ++number, file.eof() ? line : line + "\n", size, to, validate);
    }
    return true;
}

scratch_file::scratch_file() : fd_(memfd_create("line", MFD_CLOEXEC)), name_(std::to_string(fd_.get())) {
    if (!fd_) {
        fail("cannot create a file in memory");
    }
}

void scratch_file::put(std::string_view text) {
    if (ftruncate(fd_.get(), 0) != 0 ||
        pwrite(fd_.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        fail("cannot write a file in memory");
    }
}

scratch_file& scratch() {
    static scratch_file file;
    return file;
}

bool is_blank(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }

}  // namespace check
