#include "mail/replace_file.h"

#include "term/text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

std::string directory_of(const std::string& path) {
    const std::string directory = std::filesystem::path(path).parent_path();
    return directory.empty() ? "." : directory;
}

void replace_file(const std::string& path, std::string_view text, mode_t mode,
                  const std::function<bool(int fd)>& prepare) {
    // The rename would put a file in the place of /dev/null, or of /dev/stdout, for everybody.
    struct stat info {};
    if (lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        throw std::runtime_error(path + ": is not a regular file");
    }
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), directory_of(path));
    }
    const bool written = fchmod(fd, mode) == 0 && write_all(fd, text) && (prepare == nullptr || prepare(fd));
    const int write_error = errno;       // closing may set errno too
    const bool closed = close(fd) == 0;  // some file systems report a full disk only here
    if (!written || !closed || std::rename(temporary.c_str(), path.c_str()) != 0) {
        const int problem = written ? errno : write_error;
        unlink(temporary.c_str());
        throw std::system_error(problem, std::generic_category(), path);
    }
}
